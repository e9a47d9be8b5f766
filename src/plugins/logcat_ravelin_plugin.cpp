#include "plugins/logcat_ravelin_plugin.h"

#include <cstdlib>
#include <cstring>
#include <limits>

#include "plugins/logcat_window.h"

namespace emberline {

namespace {
constexpr const char* kCommandPrefix = "/system/bin/logcat -s Ravelin:I -v time,year -t ";
// A longer entry arrives in pieces; only the first carries the date, so the rest is skipped.
constexpr int kLineBuffer = 500;

// "KEY=number" anywhere in the piece; the number ends where atoi/atof stop reading.
std::function<float(std::string)> field(const char* key, bool fractional) {
  return [key, fractional](std::string token) {
    if (token.find(key) == std::string::npos) return LogcatRavelinPlugin::kNoMatch;
    const std::vector<std::string> pieces = utils::split(token, '=');
    // "KEY=" with nothing behind it leaves a single piece: no number to read.
    if (pieces.size() < 2) return LogcatRavelinPlugin::kNoMatch;
    return fractional ? static_cast<float>(std::atof(pieces[1].c_str()))
                      : static_cast<float>(std::atoi(pieces[1].c_str()));
  };
}
}  // namespace

const float LogcatRavelinPlugin::kNoMatch = std::numeric_limits<float>::max();

template <typename T>
void LogcatRavelinPlugin::RavelinFieldReader<T>::parse(std::string token) {
  const float number = parser(std::move(token));
  if (number == kNoMatch) return;
  sum += number;
  ++count;
}

template <typename T>
void LogcatRavelinPlugin::RavelinFieldReader<T>::finalize() {
  // A period without the field shows null, never zero or the previous period's number.
  if (count >= 1) {
    value->set(sum / static_cast<float>(count));
  } else {
    value->set_null();
  }
  reset();
}

LogcatRavelinPlugin::LogcatRavelinPlugin() : start_time(std::time(nullptr)) {
  add_field("fps", "Average frames per second since last output", field("FPS=", false));
  add_field("prd", "Overall e2e latency", field("Prd=", false));
  add_field("stale_frames", "Average stale frames since last output", field("Stale=", false));
  add_field("tears", "Average Screen Tear Count", field("Tear=", false));
  add_field("cfl", "Average Compositor Frame Latency p95", field("ICFLp95=", true));
}

LogcatRavelinPlugin::~LogcatRavelinPlugin() {
  if (pipe != nullptr) ::pclose(pipe);
}

void LogcatRavelinPlugin::add_field(const std::string& key, const std::string& description,
                                    std::function<float(std::string)> parser) {
  auto reader = std::make_shared<RavelinFieldReader<RoundedValue<2>>>(std::move(parser));
  add_value(key, reader->value, FieldOptions(description, key), false);
  readers.push_back(reader);
}

bool LogcatRavelinPlugin::init() {
  command = logcat::window_command(kCommandPrefix, logcat::start_stamp(start_time));
  return true;
}

bool LogcatRavelinPlugin::on_output() {
  pipe = open_log(command);
  if (pipe != nullptr) {
    read_window(pipe);
    close_log(pipe);
    pipe = nullptr;
  }
  for (const auto& reader : readers) reader->finalize();
  return true;
}

void LogcatRavelinPlugin::read_window(FILE* stream) {
  char line[kLineBuffer];
  std::string last_stamp;
  while (std::fgets(line, sizeof line, stream) != nullptr) {
    const std::string_view stamp = logcat::leading_stamp(line);
    if (stamp.empty()) continue;
    last_stamp = stamp;
    for (const std::string& token : utils::split(line, ',')) {
      for (const auto& reader : readers) reader->parse(token);
    }
  }
  // Without a dated line the next run asks for the same window again.
  if (!last_stamp.empty()) command = logcat::window_command(kCommandPrefix, last_stamp);
}

}  // namespace emberline
