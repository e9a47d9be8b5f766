#pragma once

#include <map>
#include <string>

#include "json/json_val.h"
#include "plugin.h"

namespace emberline {

// A report field whose keys appear at run time. Keys stay in byte order in every form.
class JsonMapValue : public ISerializable {
 public:
  void set(const std::string& key, coralis::tidemark::json::JsonVal value);

  std::string to_str() const override;
  std::string to_inline_str() const override { return to_str(); }
  std::string to_json() const override;
  std::string to_csv() const override;

  // The owner empties and refills it at each output tick.
  std::map<std::string, coralis::tidemark::json::JsonVal> entries;
};

}  // namespace emberline
