#pragma once

// What the two logcat plugins share: the window of log time that each `logcat` run asks for.

#include <ctime>
#include <string>
#include <string_view>

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

}  // namespace emberline::logcat
