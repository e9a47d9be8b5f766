#pragma once

// A logcat plugin that reads its windows from the fuzz input instead of a `logcat` process.

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_input.h"

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

// Runs a fresh plugin over the input's windows, one output tick each, and calls `after_tick` with
// it after every tick. The window's stamp goes into a shell command between single quotes: nothing
// from the log may close them.
template <typename Plugin, typename AfterTick>
void run_windows(const std::uint8_t* data, std::size_t size, AfterTick&& after_tick) {
  auto windows = pieces(data, size);
  const std::size_t ticks = windows.size();
  FromText<Plugin> plugin(std::move(windows));
  plugin.init();
  for (std::size_t t = 0; t < ticks; ++t) {
    plugin.on_output();
    std::size_t quotes = 0;
    for (char c : plugin.last_command) quotes += c == '\'';
    check(quotes == 2, "the stamp stays inside its quotes");
    after_tick(plugin);
  }
}

}  // namespace fuzz
