#include "plugins/logcat_window.h"

namespace emberline::logcat {

namespace {
constexpr char kShape[] = "dddd-dd-dd dd:dd:dd.ddd";
static_assert(sizeof kShape - 1 == kStampLength);

bool has_stamp_shape(const char* line) {
  for (std::size_t i = 0; i < kStampLength; ++i) {
    const char c = line[i];
    // A NUL fails the comparison here, so a short line is never read past its end.
    if (kShape[i] == 'd' ? c < '0' || c > '9' : c != kShape[i]) return false;
  }
  // logcat puts a blank behind its stamp; more digits there would be some other text.
  return line[kStampLength] == ' ';
}
}  // namespace

std::string start_stamp(std::time_t start) {
  char text[32] = {};
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S.000", std::localtime(&start));
  return text;
}

std::string_view leading_stamp(const char* line) {
  std::tm parsed{};
  if (::strptime(line, "%Y-%m-%d %H:%M:%S.", &parsed) == nullptr) return {};
  if (!has_stamp_shape(line)) return {};
  return std::string_view(line, kStampLength);
}

std::string window_command(const char* prefix, std::string_view stamp) {
  std::string command = prefix;
  command += '\'';
  command += stamp;
  command += '\'';
  return command;
}

WindowedPlugin::WindowedPlugin(const char* command_prefix)
    : start_time(std::time(nullptr)), command_prefix(command_prefix) {}

WindowedPlugin::~WindowedPlugin() {
  if (pipe != nullptr) ::pclose(pipe);
}

bool WindowedPlugin::init() {
  command = window_command(command_prefix, start_stamp(start_time));
  return true;
}

bool WindowedPlugin::open_window() {
  pipe = open_log(command);
  return pipe != nullptr;
}

void WindowedPlugin::close_window() {
  close_log(pipe);
  pipe = nullptr;
}

}  // namespace emberline::logcat
