#pragma once

#include <memory>
#include <string>
#include <vector>

#include "plugin.h"

namespace emberline {

// Named files, read whole at every output, each shown as a text field keyed by its path.
class FilePlugin : public Plugin {
 public:
  explicit FilePlugin(std::vector<std::string> files);

  bool init() override;
  bool on_output() override;

 private:
  std::vector<std::string> wanted_files;
  std::vector<std::string> paths;
  std::vector<std::shared_ptr<StringValue>> values;
};

}  // namespace emberline
