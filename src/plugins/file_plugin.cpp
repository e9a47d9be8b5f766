#include "plugins/file_plugin.h"

#include <cstdio>
#include <optional>

#include "platform/os/node.h"
#include "platform/os/read.h"
#include "platform/zavra_os/zavra_os.h"

namespace emberline {

namespace {
constexpr unsigned long kReadLimit = 10485760;
}  // namespace

FilePlugin::FilePlugin(std::vector<std::string> files) : wanted_files(std::move(files)) {}

bool FilePlugin::init() {
  for (const std::string& path : wanted_files) {
    // A path that is wrong at the start is a mistake on the command line: refuse to run.
    FILE* file = os::open_node_file(path);
    if (file == nullptr) {
      std::fprintf(stderr, "ERROR: Couldn't open file: %s\n", path.c_str());
      return false;
    }
    std::fclose(file);
    paths.push_back(path);
    values.push_back(std::make_shared<StringValue>());
    add_value(path, values.back(), FieldOptions(path, path), false);
    std::fprintf(stderr, "Adding file: %s\n", path.c_str());
  }
  return true;
}

bool FilePlugin::on_output() {
  for (std::size_t i = 0; i < paths.size(); ++i) {
    std::optional<std::string> text = Zavra::OS::File::ReadText(paths[i], kReadLimit);
    // A file that went away keeps showing what it last held.
    if (!text) continue;
    text->resize(os::trim_end(*text).size());
    values[i]->set(std::move(*text));
  }
  return true;
}

}  // namespace emberline
