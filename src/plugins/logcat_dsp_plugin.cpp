#include "plugins/logcat_dsp_plugin.h"

#include <cstring>
#include <optional>
#include <regex>
#include <stdexcept>
#include <string_view>

#include "platform/trace/perfetto.h"

namespace emberline {

namespace {
constexpr const char* kCommandPrefix = "/system/bin/logcat -s \"Tracking:I\" -v time,year -t ";
constexpr char kMarker[] = "HexagonTelemetry";
constexpr std::size_t kMarkerColumn = 48;
constexpr std::size_t kMinLineLength = 96;
// A longer entry arrives in pieces; only the first carries the date, so the rest is skipped.
constexpr int kLineBuffer = 256;

// Compiled once: the searches run on every marked line of every output.
const std::regex kFrequency("Freq: ([0-9]*)");
const std::regex kPercentage("([0-9]*\\.[0-9]*)%");

enum Slot { kOverall, kScalar, kHvx, kHmx, kUdma, kSlots };

struct Telemetry {
  float freq;
  float fractions[kSlots];
};

// The numbers of one marked line, or nothing when it lacks the frequency or one of the five
// percentages, or holds a number a float cannot take: such a line counts for nothing.
std::optional<Telemetry> parse_telemetry(const std::string& line) {
  Telemetry t{};
  try {
    std::smatch match;
    if (!std::regex_search(line, match, kFrequency)) return std::nullopt;
    t.freq = std::stof(match[1].str());
    auto rest = line.cbegin();
    for (float& fraction : t.fractions) {
      if (!std::regex_search(rest, line.cend(), match, kPercentage)) return std::nullopt;
      fraction = std::stof(match[1].str()) / 100.0f;
      rest = match[0].second;
    }
  } catch (const std::logic_error&) {  // stof: no digits, or out of range
    return std::nullopt;
  }
  return t;
}

const perfetto::CounterTrack& track(Slot slot) {
  static const perfetto::CounterTrack tracks[] = {
      perfetto::CounterTrack("global DSP Util"), perfetto::CounterTrack("Scalar Util"),
      perfetto::CounterTrack("HVX Util"), perfetto::CounterTrack("HMX Util"),
      perfetto::CounterTrack("UDMA Util")};
  return tracks[slot];
}

const perfetto::CounterTrack& frequency_track() {
  static const perfetto::CounterTrack track("DSP Freq");
  return track;
}
}  // namespace

LogcatDspPlugin::LogcatDspPlugin() : WindowedPlugin(kCommandPrefix) {
  add_value("dsp_util_max_prct", util_max,
            FieldOptions("The max percentage of compute being utilized by the DSP"), false);
  add_value("dsp_util_avg_prct", util_avg,
            FieldOptions("The average percentage of compute being utilized by the DSP"), false);
  add_value("dsp_scalar_util_avg_prct", scalar_avg,
            FieldOptions("The average percentage of scalar compute being utilized by the DSP"),
            false);
  add_value("dsp_hvx_util_avg_prct", hvx_avg,
            FieldOptions("The average percentage of HVX compute being utilized by the DSP"), false);
  add_value("dsp_hmx_util_avg_prct", hmx_avg,
            FieldOptions("The average percentage of HMX compute being utilized by the DSP"), false);
  add_value("dsp_udma_util_avg_prct", udma_avg,
            FieldOptions("The average percentage of UDMA compute being utilized by the DSP"),
            false);
  add_value("dsp_freq", freq_avg, FieldOptions("The average frequency of the DSP in MHz"), false);
}

bool LogcatDspPlugin::on_output() {
  if (!open_window()) return true;
  // A run that printed nothing leaves the values and the window as they were.
  const int first = std::fgetc(pipe);
  if (first == EOF) {
    close_window();
    return true;
  }
  std::ungetc(first, pipe);

  std::uint32_t count = 0;
  float sum_freq = 0.0f, max_util = 0.0f;
  float sums[kSlots] = {};
  // Every dated line moves the window, telemetry or not.
  read_dated_lines<kLineBuffer>([&](const char* line) {
    const std::size_t length = std::strlen(line);
    if (length < kMinLineLength) return;
    if (std::string_view(line + kMarkerColumn, sizeof kMarker - 1) != kMarker) return;
    const std::optional<Telemetry> t = parse_telemetry(std::string(line, length));
    if (!t) return;
    sum_freq += t->freq;
    ++count;
    max_util = std::max(max_util, t->fractions[kOverall]);
    for (int slot = 0; slot < kSlots; ++slot) sums[slot] += t->fractions[slot];
  });
  close_window();

  // An output without telemetry keeps the last numbers in the report and on the counters.
  if (count != 0) {
    const float n = static_cast<float>(count);
    util_avg->set(sums[kOverall] / n);
    util_max->set(max_util);
    scalar_avg->set(sums[kScalar] / n);
    hvx_avg->set(sums[kHvx] / n);
    hmx_avg->set(sums[kHmx] / n);
    udma_avg->set(sums[kUdma] / n);
    freq_avg->set(sum_freq / n);
  }
  return true;
}

bool LogcatDspPlugin::on_emit_to_perfetto() {
  trace::emit_counter(track(kOverall), util_avg->value);
  trace::emit_counter(track(kScalar), scalar_avg->value);
  trace::emit_counter(track(kHvx), hvx_avg->value);
  trace::emit_counter(track(kHmx), hmx_avg->value);
  trace::emit_counter(track(kUdma), udma_avg->value);
  trace::emit_counter(frequency_track(), freq_avg->value);
  return true;
}

}  // namespace emberline
