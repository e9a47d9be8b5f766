#include "emberline.h"

#include <android/log.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <iostream>
#include <limits>
#include <thread>

#include "crash_restore.h"
#include "platform/os/node.h"
#include "platform/trace/perfetto.h"
#include "plugins/charge_plugin.h"
#include "plugins/cpu_credits_plugin.h"
#include "plugins/dsp_trace_plugin.h"
#include "plugins/example_plugin.h"
#include "plugins/file_plugin.h"
#include "plugins/logcat_dsp_plugin.h"
#include "plugins/logcat_ravelin_plugin.h"
#include "plugins/power_plugin.h"
#include "plugins/power_rails_plugin.h"
#include "plugins/quillon_dram_bandwidth_plugin.h"
#include "plugins/quillon_power_rails_plugin.h"
#include "plugins/stats_plugin.h"
#include "plugins/thermals_plugin.h"

namespace emberline {

std::atomic<bool> stop_flag{false};

std::string local_time_stamp() {
  std::time_t now = std::time(nullptr);
  char text[32] = {};
  std::strftime(text, sizeof text, "%Y-%m-%d-%H-%M-%S", std::localtime(&now));
  return text;
}

std::string default_trace_path() {
  return std::string(kDefaultOutputDirectory) + kFileStem + local_time_stamp() + ".perfetto-trace";
}

namespace utils {

LogBuffer& log_buffer = *new LogBuffer;

std::streamsize LogBuffer::xsputn(const char* text, std::streamsize count) {
  std::string record(text, static_cast<std::size_t>(count));
  __android_log_print(ANDROID_LOG_INFO, "emberline", "%s", record.c_str());
  return count;
}

LogBuffer::int_type LogBuffer::overflow(int_type c) {
  if (!traits_type::eq_int_type(c, traits_type::eof())) {
    __android_log_print(ANDROID_LOG_INFO, "emberline", "%c", traits_type::to_char_type(c));
  }
  return c;
}

void redirect_console_to_log() {
  std::cerr.rdbuf(&log_buffer);
  std::cout.rdbuf(&log_buffer);
  std::cerr.clear();
  std::cout.clear();
}

}  // namespace utils

USBCharging::USBCharging()
    : paths{"/sys/class/qcom-battery/input_suspend",
            "/sys/class/power_supply/battery/input_suspend",
            "/sys/class/power_supply/usb/input_suspend",
            "/sys/class/power_supply/wireless/input_suspend"} {
  for (const auto& path : paths) {
    int fd = os::open_node(path, O_WRONLY);
    if (fd >= 0) {
      fds.push_back(fd);
    } else if (errno == EACCES) {
      std::cerr << "Permission denied for " << path << std::endl;
    }
  }
}

USBCharging::~USBCharging() {
  for (int fd : fds) ::close(fd);
}

void USBCharging::write_all(char byte) {
  for (int fd : fds) {
    [[maybe_unused]] ssize_t ignored = ::pwrite(fd, &byte, 1, 0);
  }
}

void USBCharging::disable() {
  // Armed before the first '1', so that no moment passes with charging suspended and unguarded.
  if (restores.empty()) {
    for (int fd : fds) restores.push_back(crash_restore::Restore::write_back(fd, "0"));
  }
  write_all('1');
}

void USBCharging::enable() {
  write_all('0');
  restores.clear();
}

std::int64_t SystemLoopClock::now_us() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

void SystemLoopClock::sleep_for(std::chrono::nanoseconds duration) {
  std::this_thread::sleep_for(duration);
}

Emberline::Emberline(bool perfetto) : perfetto(perfetto), plugin_manager(perfetto) {}

Emberline::~Emberline() {
  if (charging_disabled) {
    output_message("Enabling charging...");
    usb_charging.enable();
  }
  if (output_file.is_open()) {
    output_file.flush();
    output_file.close();
  }
}

void Emberline::setup_file_output(std::string& path) {
  if (path.empty()) {
    const char* extension = output_format == OutputFormat::JSON  ? ".json"
                            : output_format == OutputFormat::CSV ? ".csv"
                                                                 : ".txt";
    path = std::string(kDefaultOutputDirectory) + kFileStem + local_time_stamp() + extension;
  }
  output_file.open(path, std::ios::out | std::ios::trunc);
  if (output_file.fail() || output_file.bad()) {
    output_message("Failed to open output file at '" + path + "'");
  } else {
    output_message("Output will be saved to '" + path + "'");
  }
}

bool Emberline::init(bool time_plugins) {
  return plugin_manager.init(time_plugins);
}

void Emberline::output_line(const std::string& text) {
  if (output_file.is_open()) output_file << text << '\n' << std::flush;
  if (log_logcat) {
    __android_log_print(ANDROID_LOG_INFO, "emberline_telemetry", "%s", text.c_str());
  }
  if (!quiet) std::cout << text << '\n' << std::flush;
}

void Emberline::output_message(const std::string& text) {
  if (!quiet) std::cerr << text << '\n' << std::flush;
}

void Emberline::add_root_value(const std::string& key, std::shared_ptr<ISerializable> value,
                               const char* description) {
  plugin_manager.add_value(key, std::move(value), Section::FieldOptions(description), false);
}

void Emberline::add_timestamp_fields() {
  add_root_value("sequence", sequence, "Incrementing output sequence number");
  add_root_value("timestamp", timestamp, "Time since trace start (measured in seconds)");
  add_root_value("device_timestamp", device_timestamp, "Device epoch time (measured in seconds)");
}

void Emberline::add_timing_fields() {
  add_root_value("sample_time_ms", sample_time_ms,
                 "The plugins sampling time (measured in milliseconds)");
  add_root_value("output_time_ms", output_time_ms,
                 "The plugins output time (measured in milliseconds)");
  add_root_value("process_time_ms", process_time_ms,
                 "The plugins total processing time (measured in milliseconds)");
  add_root_value("drift_time_ms", drift_time_ms,
                 "The timing loop drift time (measured in milliseconds)");
  add_root_value("wait_time_ms", wait_time_ms,
                 "The timing loop wait time (measured in milliseconds)");
}

void Emberline::print_schema() {
  std::cout << plugin_manager.get_description(output_format);
}

void Emberline::register_power_plugin(PowerPath path, bool use_window, unsigned int window_size,
                                      float alpha) {
  std::shared_ptr<Plugin> plugin;
  if (use_window) {
    plugin = std::make_shared<PowerWindowPlugin>(path, window_size, is_chipset2_device);
  } else {
    plugin = std::make_shared<PowerExpSmoothPlugin>(path, alpha, is_chipset2_device);
  }
  const std::string name = path == PowerPath::USB ? "USB" : "BATTERY";
  const std::string key = path == PowerPath::USB ? "power_usb" : "power";
  plugin_manager.add_plugin(key, plugin,
                            PluginManager::PluginFieldOptions("Device " + name + " power data",
                                                              "Power (" + name + ")", false));
}

void Emberline::register_stats_plugin(bool cycle) {
  plugin_manager.add_plugin(
      "stats", std::make_shared<StatsPlugin>(cycle),
      PluginManager::PluginFieldOptions("Stats about CPU, GPU and other device properties", "Stats",
                                        false));
}

void Emberline::register_credits_plugin() {
  plugin_manager.add_plugin(
      "credits", std::make_shared<CpuCreditsPlugin>(),
      PluginManager::PluginFieldOptions("CPU credit usage per process", "Credits", false));
}

void Emberline::register_dsp_trace_plugin() {
  plugin_manager.add_plugin(
      "dsp_trace", std::make_shared<DspTracePlugin>(),
      PluginManager::PluginFieldOptions("DSP tracing data", "DSP Tracing", false));
}

void Emberline::register_charge_plugin() {
  plugin_manager.add_plugin(
      "charge", std::make_shared<ChargePlugin>(),
      PluginManager::PluginFieldOptions("Values related to charging", "Charge", false));
}

// The instrumented-hardware plugins are optional: hardware without the nodes just leaves them out.
void Emberline::register_brantley_rails_plugin() {
  plugin_manager.add_plugin("power_rails", std::make_shared<PowerRailsPlugin>(),
                            PluginManager::PluginFieldOptions(
                                "Instrumented power rail readings (brantley only)", "Rails", true));
}

void Emberline::register_quillon_rails_plugin() {
  plugin_manager.add_plugin(
      "quillon_rails", std::make_shared<QuillonPowerRailsPlugin>(),
      PluginManager::PluginFieldOptions("Instrumented power rail readings (quillon only)",
                                        "Quillon Rails", true));
}

void Emberline::register_quillon_dram_bw_plugin(unsigned int ms) {
  plugin_manager.add_plugin(
      "quillon_dram", std::make_shared<QuillonDRAMBandwidthPlugin>(ms),
      PluginManager::PluginFieldOptions("Instrumented dram bandwidth readings (quillon only)",
                                        "Quillon DRAM", true));
}

void Emberline::register_ravelin_plugin() {
  plugin_manager.add_plugin("ravelin", std::make_shared<LogcatRavelinPlugin>(),
                            PluginManager::PluginFieldOptions(
                                "Values read from Ravelin logcat entries", "Ravelin", false));
}

void Emberline::register_dsp_plugin() {
  plugin_manager.add_plugin("dsp", std::make_shared<LogcatDspPlugin>(),
                            PluginManager::PluginFieldOptions(
                                "DSP utilization percentage, average and max", "DSP", false));
}

void Emberline::register_tail_plugin(std::vector<std::string> files) {
  plugin_manager.add_plugin(
      "files", std::make_shared<FilePlugin>(std::move(files)),
      PluginManager::PluginFieldOptions("Additional Files to log", "Files", false));
}

void Emberline::register_thermals_plugin() {
  plugin_manager.add_plugin(
      "thermals", std::make_shared<ThermalsPlugin>(),
      PluginManager::PluginFieldOptions("Thermal info. Temperatures are measured in Celsius",
                                        "Thermals", false));
}

void Emberline::register_example_plugin() {
  plugin_manager.add_plugin("example", std::make_shared<ExamplePlugin>(),
                            PluginManager::PluginFieldOptions(
                                "Example plugin with sample and output counts", "Example", false));
}

namespace {
// Whole milliseconds, truncated toward zero.
constexpr std::int64_t ms(std::int64_t micros) {
  return micros / 1000;
}
}  // namespace

int Emberline::run(unsigned int time, unsigned int sample, unsigned int output) {
  if (!continue_charging) {
    output_message("Disabling charging...");
    usb_charging.disable();
    charging_disabled = true;
    // Let the charger's current settle before the first reading.
    clock->sleep_for(std::chrono::seconds(1));
  }

  output_message(time == 0 ? std::string("Starting trace. ")
                           : "Starting " + std::to_string(time) + " second trace. ");
  output_message("Press CTRL-C to stop...");
  output_message("\n");
  if (output_format == OutputFormat::CSV) output_line(plugin_manager._to_csv(true));

  const std::int64_t start = clock->now_us();
  if (stop_flag) return 0;

  const std::uint64_t limit_ms = static_cast<std::uint64_t>(time) * 1000;
  std::uint32_t sample_left = 0;
  std::uint32_t output_left = output;
  std::int64_t tick_ms = ms(start);
  std::uint64_t reports = 0;

  for (;;) {
    const std::int64_t now = clock->now_us();

    sample_time_ms->set(0);
    if (sample_left == 0) {
      const std::int64_t before = clock->now_us();
      if (!plugin_manager.on_sample()) return 1;
      sample_time_ms->set(static_cast<unsigned long>(ms(clock->now_us() - before)));
      sample_left = sample;
    }

    const std::int64_t now_ms = ms(now);
    const std::uint64_t elapsed_ms = static_cast<std::uint64_t>(ms(now - start));

    output_time_ms->set(0);
    if (output_left == 0) {
      const std::int64_t before = clock->now_us();
      if (!plugin_manager.on_output()) return 1;
      sequence->set(++reports);
      timestamp->set(static_cast<double>(elapsed_ms) / 1000.0);
      device_timestamp->set(static_cast<double>(now_ms) / 1000.0);
      if (!perfetto) {
        switch (output_format) {
          case OutputFormat::CSV:
            output_line(plugin_manager._to_csv(false));
            break;
          case OutputFormat::JSON:
            output_line(plugin_manager.to_json());
            break;
          case OutputFormat::TEXT:
            output_line(plugin_manager.to_str());
            output_line("------");
            break;
          default:
            output_line(plugin_manager.to_inline_str());
            break;
        }
      }
      output_time_ms->set(static_cast<unsigned long>(ms(clock->now_us() - before)));
      output_left = output;
    }

    // On a headset the tracing service collects packets by itself. The run's own session stands in
    // for it and writes what this cycle traced, the DSP worker's slices included, before the wait.
    trace::flush();

    const std::uint32_t step = std::min(sample_left, output_left);
    if (limit_ms != 0 && elapsed_ms > limit_ms) return 0;
    sample_left -= step;
    output_left -= step;

    const std::int64_t process = ms(clock->now_us() - now);
    process_time_ms->set(static_cast<unsigned long>(process));
    const std::int64_t drift = now_ms - tick_ms;
    drift_time_ms->set(static_cast<unsigned long>(drift));
    const std::int64_t wait = static_cast<std::int64_t>(step) - drift - process;
    if (wait >= 1) {
      // Beyond this many milliseconds the nanosecond count would overflow.
      constexpr std::int64_t kLongestWaitMs = 9223372036855;
      clock->sleep_for(wait >= kLongestWaitMs
                           ? std::chrono::nanoseconds(std::numeric_limits<std::int64_t>::max())
                           : std::chrono::nanoseconds(wait * 1000000));
    }
    tick_ms += step;
    wait_time_ms->set(static_cast<unsigned long>(wait));
    if (stop_flag) return 0;
  }
}

}  // namespace emberline
