#pragma once

// What the two logcat plugins share: a `logcat` run at each output, over a window of log time
// that opens at the stamp of the last dated line the run before read.

#include <array>
#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>

#include "plugin.h"

namespace emberline::logcat {

// "YYYY-MM-DD HH:MM:SS.mmm": how `logcat -v time,year` begins every entry.
inline constexpr std::size_t kStampLength = 23;

// The first window opens at `start`, whole seconds of local time.
std::string start_stamp(std::time_t start);

// The stamp at the head of `line`, when the line starts with a date and time that strptime reads
// and that has exactly the shape of a logcat stamp, followed by a blank. The stamp goes into a
// shell command, so any other character in those places (a quote, a line end, a 24th digit)
// makes the line undated; the line is then skipped as a whole.
std::string_view leading_stamp(const char* line);

// `prefix` followed by the stamp in single quotes: the time holds a blank and passes a shell.
std::string window_command(const char* prefix, std::string_view stamp);

// The base of a plugin that reads one window of the log at each output.
class WindowedPlugin : public Plugin {
 public:
  ~WindowedPlugin() override;
  WindowedPlugin(const WindowedPlugin&) = delete;
  WindowedPlugin& operator=(const WindowedPlugin&) = delete;

  // The first window opens at construction, in whole seconds.
  bool init() override;

 protected:
  // `command_prefix` ends in the option that takes the window's start, and a blank.
  explicit WindowedPlugin(const char* command_prefix);

  // Where the entries come from; tests stand a memory stream in for `logcat`.
  virtual FILE* open_log(const std::string& command) { return ::popen(command.c_str(), "r"); }
  virtual void close_log(FILE* stream) { ::pclose(stream); }

  // Starts the run of this window into `pipe`; false when it cannot be started.
  bool open_window();
  void close_window();

  // Reads the run's lines with fgets into a buffer of `Size` bytes, and gives `each` every line
  // that begins with a stamp. A longer entry arrives in pieces, and only the first carries the
  // stamp. The next window opens at the last stamp read; a run without one asks for the same
  // window again.
  template <int Size, typename Each>
  void read_dated_lines(Each&& each);

  FILE* pipe = nullptr;
  std::string command;
  std::time_t start_time;

 private:
  const char* command_prefix;
};

template <int Size, typename Each>
void WindowedPlugin::read_dated_lines(Each&& each) {
  char line[Size];
  std::array<char, kStampLength> last_stamp;
  bool dated = false;
  while (std::fgets(line, Size, pipe) != nullptr) {
    const std::string_view stamp = leading_stamp(line);
    if (stamp.empty()) continue;
    stamp.copy(last_stamp.data(), last_stamp.size());
    dated = true;
    each(line);
  }
  if (dated) {
    command = window_command(command_prefix, std::string_view(last_stamp.data(), kStampLength));
  }
}

}  // namespace emberline::logcat
