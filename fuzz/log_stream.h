#pragma once

// A logcat plugin that reads its windows from the fuzz input instead of a `logcat` process.

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace fuzz {

template <typename Plugin>
class FromText : public Plugin {
 public:
  // Each text is what one `logcat` run prints; every output tick takes the next.
  explicit FromText(std::vector<std::string> windows) : windows(std::move(windows)) {}

  // Windows left to read, and the command of the last one asked for.
  std::size_t next = 0;
  std::string last_command;
  using Plugin::values;

 protected:
  FILE* open_log(const std::string& command) override {
    last_command = command;
    if (next >= windows.size()) return nullptr;
    std::string& text = windows[next++];
    // fmemopen refuses an empty buffer: a run that printed nothing.
    if (text.empty()) return fmemopen(nullptr, 1, "w+");
    return fmemopen(text.data(), text.size(), "r");
  }
  void close_log(FILE* stream) override { std::fclose(stream); }

 private:
  std::vector<std::string> windows;
};

}  // namespace fuzz
