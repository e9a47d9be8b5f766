#pragma once

// One way to read a node whole, one way to walk text by lines and one way to cut its trailing
// white space, for every reader whose node may be read however suits it. The buffer is the caller's
// and is reused, so that a node read at every tick allocates nothing once the buffer has grown to
// its size.

#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>

namespace emberline::os {

enum class NodeRead {
  kUnopened,   // the node cannot be opened
  kFailed,     // a read failed; the text holds what came before it
  kWhole,      // the text is the whole node
  kOverLimit,  // the node holds more than the limit; the text is its first `limit` bytes
};

// Reads the node at `path` from its start, through a descriptor of open_node, into `text`.
// sysfs gives every node the size 4096, so the size is learned by reading to the end.
NodeRead read_node(const char* path, std::string& text, std::size_t limit);
inline NodeRead read_node(const std::string& path, std::string& text, std::size_t limit) {
  return read_node(path.c_str(), text, limit);
}

// `text` without its trailing white space: blanks, tabs, line feeds and carriage returns.
inline std::string_view trim_end(std::string_view text) {
  const std::size_t end = text.find_last_not_of(" \t\n\r");
  return text.substr(0, end == std::string_view::npos ? 0 : end + 1);
}

// Calls `each` with every line of `text`, without its line end; a last line without one counts,
// an empty text has no line. Where `each` returns bool, false ends the walk.
template <typename Each>
void for_each_line(std::string_view text, Each&& each) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    if constexpr (std::is_same_v<std::invoke_result_t<Each&, std::string_view>, bool>) {
      if (!each(line)) return;
    } else {
      each(line);
    }
    if (end == std::string_view::npos) return;
    text.remove_prefix(end + 1);
  }
}

}  // namespace emberline::os
