#include "plugins/logcat_ravelin_plugin.h"

#include <cstdlib>
#include <limits>

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

LogcatRavelinPlugin::LogcatRavelinPlugin() : WindowedPlugin(kCommandPrefix) {
  add_field("fps", "Average frames per second since last output", field("FPS=", false));
  add_field("prd", "Overall e2e latency", field("Prd=", false));
  add_field("stale_frames", "Average stale frames since last output", field("Stale=", false));
  add_field("tears", "Average Screen Tear Count", field("Tear=", false));
  add_field("cfl", "Average Compositor Frame Latency p95", field("ICFLp95=", true));
}

void LogcatRavelinPlugin::add_field(const std::string& key, const std::string& description,
                                    std::function<float(std::string)> parser) {
  auto reader = std::make_shared<RavelinFieldReader<RoundedValue<2>>>(std::move(parser));
  add_value(key, reader->value, FieldOptions(description, key), false);
  readers.push_back(reader);
}

bool LogcatRavelinPlugin::on_output() {
  if (open_window()) {
    read_dated_lines<kLineBuffer>([this](const char* line) {
      for (const std::string& token : utils::split(line, ',')) {
        for (const auto& reader : readers) reader->parse(token);
      }
    });
    close_window();
  }
  for (const auto& reader : readers) reader->finalize();
  return true;
}

}  // namespace emberline
