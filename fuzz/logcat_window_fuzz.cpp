// The stamp at the head of a logcat line, which the next `logcat` command line carries.

#include <cstdint>
#include <string>

#include "fuzz_input.h"
#include "plugins/logcat_window.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string line(reinterpret_cast<const char*>(data), size);
  const std::string_view stamp = emberline::logcat::leading_stamp(line.c_str());
  if (stamp.empty()) return 0;
  fuzz::check(stamp.size() == emberline::logcat::kStampLength, "a stamp has one length");
  fuzz::check(stamp.data() == line.c_str(), "the stamp is the line's head");
  fuzz::check(line[stamp.size()] == ' ', "a blank follows the stamp");
  for (std::size_t i = 0; i < stamp.size(); ++i) {
    const char c = stamp[i];
    const bool digit = c >= '0' && c <= '9';
    // Only digits and the separators of a date and time reach the shell.
    fuzz::check(digit || c == '-' || c == ' ' || c == ':' || c == '.', "stamp characters");
  }
  const std::string command = emberline::logcat::window_command("logcat -t ", stamp);
  fuzz::check(command == "logcat -t '" + std::string(stamp) + "'", "the stamp in single quotes");
  return 0;
}
