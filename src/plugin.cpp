#include "plugin.h"

#include <filesystem>
#include <iostream>

#include "platform/zavra_os/zavra_os.h"

namespace emberline {

namespace detail {
std::string fixed_point(double number, int decimals) {
  std::ostringstream stream;
  stream.setf(std::ios::fixed, std::ios::floatfield);
  stream.setf(std::ios::showpoint);
  stream.precision(decimals);
  stream << number;
  return stream.str();
}
}  // namespace detail

namespace {
const std::string& visible_name(const std::string& key, const Section::FieldOptions& options) {
  return options.label ? *options.label : key;
}
}  // namespace

std::shared_ptr<ISerializable> Section::add_value(const std::string& name,
                                                  std::shared_ptr<ISerializable> value,
                                                  const FieldOptions& options, bool front) {
  if (values.count(name) != 0) return nullptr;
  if (front) {
    value_order.push_front(name);
  } else {
    value_order.push_back(name);
  }
  values.emplace(name, std::make_pair(value, options));
  return value;
}

std::shared_ptr<Section> Section::add_subsection(const std::string& name,
                                                 std::shared_ptr<Section> section,
                                                 const FieldOptions& options) {
  if (subsections.count(name) != 0) return nullptr;
  subsection_order.push_back(name);
  subsections.emplace(name, std::make_pair(section, options));
  return section;
}

std::shared_ptr<Section> Section::add_subsection(const std::string& name,
                                                 const FieldOptions& options) {
  return add_subsection(name, std::make_shared<Section>(), options);
}

void Section::update_tree_metadata(unsigned int new_depth, const std::string& new_prefix) {
  depth = new_depth;
  prefix = new_prefix;
  for (auto& [key, entry] : subsections) {
    entry.first->update_tree_metadata(depth + 1, prefix + key + ".");
  }
}

std::string Section::to_str() const {
  std::ostringstream out;
  bool first = true;
  join_values(out, " | ", first,
              [&](const std::string& key, const ISerializable& value, const FieldOptions& options) {
                out << visible_name(key, options) << ": " << value.to_str();
              });
  if (!subsection_order.empty() && (!value_order.empty() || depth != 0)) out << '\n';
  first = true;
  join_subsections(
      out, "\n", first,
      [&](const std::string& key, const Section& section, const FieldOptions& options) {
        out << std::string(4 * depth, ' ') << '[' << visible_name(key, options) << "] "
            << section.to_str();
      });
  return out.str();
}

std::string Section::to_inline_str() const {
  std::ostringstream out;
  bool first = true;
  join_values(out, ",", first,
              [&](const std::string& key, const ISerializable& value, const FieldOptions& options) {
                out << visible_name(key, options) << '=' << value.to_str();
              });
  join_subsections(
      out, ",", first,
      [&](const std::string& key, const Section& section, const FieldOptions& options) {
        out << visible_name(key, options) << "=(" << section.to_inline_str() << ')';
      });
  return out.str();
}

std::string Section::to_json() const {
  std::ostringstream out;
  out << '{';
  bool first = true;
  join_values(out, ",", first,
              [&](const std::string& key, const ISerializable& value, const FieldOptions&) {
                out << '"' << key << "\":" << value.to_json();
              });
  join_subsections(out, ",", first,
                   [&](const std::string& key, const Section& section, const FieldOptions&) {
                     out << '"' << key << "\":" << section.to_json();
                   });
  out << '}';
  return out.str();
}

std::string Section::_to_csv(bool header) const {
  std::ostringstream out;
  bool first = true;
  join_values(out, ",", first,
              [&](const std::string& key, const ISerializable& value, const FieldOptions&) {
                if (header) {
                  out << prefix << key;
                } else {
                  out << value.to_csv();
                }
              });
  join_subsections(out, ",", first,
                   [&](const std::string&, const Section& section, const FieldOptions&) {
                     out << section._to_csv(header);
                   });
  return out.str();
}

std::string Section::get_description(OutputFormat format) const {
  std::vector<std::array<std::string, 3>> rows{{"Key", "", "Description"}, {"-----", "", "-----"}};
  description_helper(&rows, format);
  return utils::format_table<3>(rows, 2, 0);
}

void Section::description_helper(std::vector<std::array<std::string, 3>>* rows,
                                 OutputFormat format) const {
  for (const auto& key : value_order) {
    rows->push_back(get_description_row(format, key, values.at(key).second));
  }
  for (const auto& key : subsection_order) {
    const auto& [section, options] = subsections.at(key);
    if (format != OutputFormat::CSV) rows->push_back(get_description_row(format, key, options));
    section->description_helper(rows, format);
  }
}

std::array<std::string, 3> Section::get_description_row(OutputFormat format,
                                                        const std::string& name,
                                                        const FieldOptions& options) const {
  std::string first;
  switch (format) {
    case OutputFormat::CSV:
      first = prefix + name;
      break;
    case OutputFormat::JSON:
      first = std::string(4 * depth, ' ') + name;
      break;
    default:
      first = std::string(4 * depth, ' ') + visible_name(name, options);
      break;
  }
  return {first, ":  ", options.description.value_or("")};
}

void TimingSection::add_plugin(std::string name) {
  auto value = std::make_shared<RoundedValue<1>>();
  plugin_times[name] = value;
  add_value(name, value, FieldOptions(name, std::nullopt), false);
}

PluginManager::~PluginManager() {
  // Plugin destructors do real work (restoring nodes, joining workers), so release them in
  // reverse order of registration rather than in the hash order of the subsection map.
  timing_section.reset();
  subsections.clear();
  while (!plugins.empty()) plugins.pop_back();
}

void PluginManager::add_plugin(const std::string& name, std::shared_ptr<Plugin> plugin,
                               const PluginFieldOptions& options) {
  plugins.emplace_back(name, std::make_pair(std::move(plugin), options));
}

bool PluginManager::init(bool time_plugins) {
  if (time_plugins) {
    timing_section = std::make_shared<TimingSection>();
    add_subsection("timing", timing_section, FieldOptions("Plugin Timing", "Timing"));
  }
  for (auto& [key, entry] : plugins) {
    auto& [plugin, options] = entry;
    if (plugin->init()) {
      add_subsection(key, plugin, options);
      if (timing_section) timing_section->add_plugin(key);
    } else if (!options.optional) {
      std::cerr << "ERROR: Failed to initialize plugin '" << key << "'" << std::endl;
      return false;
    }
  }
  update_tree_metadata(0, "");
  return true;
}

bool PluginManager::on_sample() {
  for (auto& [key, entry] : plugins) {
    Plugin& plugin = *entry.first;
    if (!plugin.on_sample()) {
      std::cerr << "ERROR: Sample update failed for plugin '" << key << "'" << std::endl;
      return false;
    }
    if (emit_to_perfetto && !plugin.on_emit_to_perfetto()) {
      std::cerr << "ERROR: Emit to perfetto failed for plugin '" << key << "'" << std::endl;
      return false;
    }
  }
  return true;
}

bool PluginManager::on_output() {
  if (timing_section) {
    for (auto& [key, value] : timing_section->plugin_times) value->set(0);
  }
  for (auto& [key, entry] : plugins) {
    auto begin = std::chrono::steady_clock::now();
    if (!entry.first->on_output()) {
      std::cerr << "ERROR: Output update failed for plugin '" << key << "'" << std::endl;
      return false;
    }
    if (timing_section) {
      auto end = std::chrono::steady_clock::now();
      auto found = timing_section->plugin_times.find(key);
      if (found != timing_section->plugin_times.end()) {
        found->second->set(detail::whole_milliseconds(end - begin));
      }
    }
  }
  return true;
}

float detail::whole_milliseconds(std::chrono::nanoseconds elapsed) {
  const std::int64_t micros = elapsed.count() / 1000;
  return static_cast<float>(static_cast<std::int32_t>(static_cast<double>(micros) / 1000.0));
}

const bool is_brantley = Zavra::OS::deviceIsBrantley();
const bool is_chipset2_device = detail::chipset2_from_queries(
    Zavra::OS::deviceIsFennick(), Zavra::OS::deviceIsMaplet(), Zavra::OS::deviceIsDorrin());

std::shared_ptr<FileReader> file_reader = std::make_shared<FileReader>();

std::string FileReader::ReadFile(std::string path) {
  return Zavra::OS::File::ReadText(path, 10485760).value_or("");
}

bool FileReader::Exists(std::string path) {
  std::error_code error;
  auto type = std::filesystem::status(path, error).type();
  return type != std::filesystem::file_type::none && type != std::filesystem::file_type::not_found;
}

namespace utils {
std::vector<std::string> split(const std::string& text, char delimiter) {
  std::vector<std::string> pieces;
  std::istringstream stream(text);
  std::string piece;
  while (std::getline(stream, piece, delimiter)) {
    if (!piece.empty()) pieces.push_back(piece);
  }
  return pieces;
}
}  // namespace utils

}  // namespace emberline
