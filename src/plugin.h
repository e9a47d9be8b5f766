#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

namespace emberline {

enum class OutputFormat : std::int32_t { INLINE = 0, TEXT = 1, JSON = 2, CSV = 3 };

class ISerializable {
 public:
  virtual ~ISerializable() = default;
  virtual std::string to_str() const = 0;
  virtual std::string to_inline_str() const = 0;
  virtual std::string to_json() const = 0;
  virtual std::string to_csv() const = 0;
};

namespace detail {
// Classic-locale "%#.Nf": always N digits behind the point, no width, fill or sign flag.
std::string fixed_point(double number, int decimals);

// A plugin's report time as its timing field shows it: whole milliseconds, cut rather than
// rounded, so that 0.9 ms shows 0.
float whole_milliseconds(std::chrono::nanoseconds elapsed);
}  // namespace detail

// A leaf of the output tree. Plugins store readings in place; the tree prints whatever is there.
template <typename T>
class Value : public ISerializable {
 public:
  bool is_null = true;
  T value{};

  std::string to_str() const override { return is_null ? "null" : _to_str(); }
  std::string to_inline_str() const override { return to_str(); }
  std::string to_json() const override { return is_null ? "null" : _to_json(); }
  std::string to_csv() const override { return is_null ? "null" : _to_csv(); }

  void set(T v) {
    value = v;
    is_null = false;
  }
  void set_null() { is_null = true; }

  virtual std::string _to_str() const { return plain(); }
  virtual std::string _to_json() const { return plain(); }
  virtual std::string _to_csv() const { return plain(); }

 private:
  std::string plain() const {
    if constexpr (std::is_same_v<T, bool>) {
      return value ? "true" : "false";
    } else {
      return std::to_string(value);
    }
  }
};

// A number with N decimals in every form; the classes below decorate only the text form.
template <typename T, int N>
class FixedPointValue : public Value<T> {
 public:
  std::string _to_str() const override { return detail::fixed_point(this->value, N); }
  // Deliberately not virtual calls: derived classes decorate only the text forms.
  std::string _to_json() const override { return FixedPointValue::_to_str(); }
  std::string _to_csv() const override { return FixedPointValue::_to_str(); }
};

template <int N>
class RoundedValue : public FixedPointValue<float, N> {};

template <int N, char C>
class UnitValue : public RoundedValue<N> {
 public:
  std::string _to_str() const override { return RoundedValue<N>::_to_str() + C; }
};

template <int N>
class GigahertzValue : public RoundedValue<N> {
 public:
  std::string _to_str() const override { return RoundedValue<N>::_to_str() + "Ghz"; }
};

// Stores a fraction; text shows percent, JSON and CSV the fraction with two more decimals.
template <int N>
class PercentageValue : public RoundedValue<N + 2> {
 public:
  std::string _to_str() const override {
    return detail::fixed_point(this->value * 100.0f, N) + "%";
  }
};

template <int N>
class TimestampValue : public FixedPointValue<double, N> {};

// Held unsigned, as the loop's figures are, but printed as the signed number of the same bits:
// a cycle that overran shows its negative wait rather than a twenty-digit number.
class SignedFigureValue : public Value<unsigned long> {
 public:
  std::string _to_str() const override { return std::to_string(static_cast<long>(value)); }
  std::string _to_json() const override { return SignedFigureValue::_to_str(); }
  std::string _to_csv() const override { return SignedFigureValue::_to_str(); }
};

class SwitchValue : public Value<bool> {
 public:
  std::string _to_str() const override { return value ? "on" : "off"; }
};

class StringValue : public ISerializable {
 public:
  bool is_null = true;
  std::string value;

  std::string to_str() const override { return is_null ? "null" : value; }
  std::string to_inline_str() const override { return to_str(); }
  std::string to_json() const override { return is_null ? "null" : "\"" + value + "\""; }
  std::string to_csv() const override { return is_null ? "null" : value; }

  void set(std::string v) {
    value = std::move(v);
    is_null = false;
  }
  void set_null() { is_null = true; }
};

class Section : public ISerializable {
 public:
  struct FieldOptions {
    std::optional<std::string> description;
    std::optional<std::string> label;
    FieldOptions(std::optional<std::string> description = std::nullopt,
                 std::optional<std::string> label = std::nullopt)
        : description(std::move(description)), label(std::move(label)) {}
  };

  std::shared_ptr<ISerializable> add_value(const std::string& name,
                                           std::shared_ptr<ISerializable> value,
                                           const FieldOptions& options, bool front = false);
  std::shared_ptr<Section> add_subsection(const std::string& name, std::shared_ptr<Section> section,
                                          const FieldOptions& options);
  std::shared_ptr<Section> add_subsection(const std::string& name, const FieldOptions& options);
  void update_tree_metadata(unsigned int depth, const std::string& prefix);

  std::string to_str() const override;
  std::string to_inline_str() const override;
  std::string to_json() const override;
  std::string to_csv() const override { return _to_csv(false); }
  std::string _to_csv(bool header) const;

  std::string get_description(OutputFormat format) const;
  void description_helper(std::vector<std::array<std::string, 3>>* rows, OutputFormat format) const;
  std::array<std::string, 3> get_description_row(OutputFormat format, const std::string& name,
                                                 const FieldOptions& options) const;

  unsigned int get_depth() const { return depth; }
  const std::string& get_prefix() const { return prefix; }

 protected:
  // Every form lists the values, then the subsections, in the order they were added.
  template <typename OnValue>
  void join_values(std::ostream& out, const char* separator, bool& first, OnValue on_value) const {
    for (const auto& key : value_order) {
      if (!first) out << separator;
      first = false;
      const auto& [value, options] = values.at(key);
      on_value(key, *value, options);
    }
  }
  template <typename OnSection>
  void join_subsections(std::ostream& out, const char* separator, bool& first,
                        OnSection on_section) const {
    for (const auto& key : subsection_order) {
      if (!first) out << separator;
      first = false;
      const auto& [section, options] = subsections.at(key);
      on_section(key, *section, options);
    }
  }

  std::list<std::string> value_order;
  std::list<std::string> subsection_order;
  std::unordered_map<std::string, std::pair<std::shared_ptr<ISerializable>, FieldOptions>> values;
  std::unordered_map<std::string, std::pair<std::shared_ptr<Section>, FieldOptions>> subsections;
  unsigned int depth = 0;
  std::string prefix;
};

class Plugin : public Section {
 public:
  virtual bool init() { return true; }
  virtual bool on_sample() { return true; }
  virtual bool on_output() { return true; }
  virtual bool on_emit_to_perfetto() { return true; }
};

class TimingSection : public Section {
 public:
  void add_plugin(std::string name);

  std::map<std::string, std::shared_ptr<RoundedValue<1>>> plugin_times;
};

class PluginManager : public Section {
 public:
  struct PluginFieldOptions : public Section::FieldOptions {
    bool optional;
    PluginFieldOptions(std::optional<std::string> description, std::optional<std::string> label,
                       bool optional)
        : FieldOptions(std::move(description), std::move(label)), optional(optional) {}
  };

  explicit PluginManager(bool emit_to_perfetto) : emit_to_perfetto(emit_to_perfetto) {}
  ~PluginManager() override;

  void add_plugin(const std::string& name, std::shared_ptr<Plugin> plugin,
                  const PluginFieldOptions& options);
  bool init(bool time_plugins);
  bool on_sample();
  bool on_output();

  std::vector<std::pair<std::string, std::pair<std::shared_ptr<Plugin>, PluginFieldOptions>>>
      plugins;
  bool emit_to_perfetto;
  std::shared_ptr<TimingSection> timing_section;
};

// The device generation, fixed before main from the device's identity.
extern const bool is_brantley;
extern const bool is_chipset2_device;

namespace detail {
// The Quillon generations, from the answers of the device queries.
constexpr bool chipset2_from_queries(bool fennick, bool maplet, bool dorrin) {
  return fennick || maplet || dorrin;
}
}  // namespace detail

// Replaceable so that tests can stand in for the file system.
class FileReader {
 public:
  virtual ~FileReader() = default;
  virtual std::string ReadFile(std::string path);
  virtual bool Exists(std::string path);
};

extern std::shared_ptr<FileReader> file_reader;

namespace utils {

std::vector<std::string> split(const std::string& text, char delimiter);

template <std::size_t Columns>
std::string format_table(const std::vector<std::array<std::string, Columns>>& rows,
                         unsigned int column_gap, unsigned int indent) {
  std::array<std::size_t, Columns> widths{};
  for (const auto& row : rows) {
    for (std::size_t c = 0; c + 1 < Columns; ++c) {
      widths[c] = std::max(widths[c], row[c].size());
    }
  }
  std::string out;
  for (const auto& row : rows) {
    out.append(indent, ' ');
    for (std::size_t c = 0; c + 1 < Columns; ++c) {
      out += row[c];
      out.append(widths[c] + column_gap - row[c].size(), ' ');
    }
    out += row[Columns - 1];
    out += '\n';
  }
  return out;
}

}  // namespace utils
}  // namespace emberline
