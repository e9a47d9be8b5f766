#include <stdlib.h>
#include <sys/system_properties.h>

#include "platform/os/os.h"

namespace emberline::os {

std::string property(const char* name) {
  char value[PROP_VALUE_MAX] = {};
  __system_property_get(name, value);
  return value;
}

const char* program_name() {
  return getprogname();
}

}  // namespace emberline::os
