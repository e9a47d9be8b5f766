#include <cerrno>

#include "platform/os/os.h"
#include "platform/zavra_os/zavra_os.h"

namespace emberline::os {

// Without Android's property service, the properties are the build.prop file the system image
// carries (and the simulated headset writes).
std::string property(const char* name) {
  auto text = Zavra::OS::File::ReadText("/system/build.prop", 1 << 20);
  return text ? Zavra::OS::findProperty(*text, name) : std::string();
}

const char* program_name() {
  return program_invocation_short_name;
}

}  // namespace emberline::os
