#pragma once

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <memory>
#include <streambuf>
#include <string>
#include <vector>

#include "crash_restore.h"
#include "plugin.h"
#include "plugins/power_sampler.h"

namespace emberline {

// Set by the signal handlers, read by the timing loop.
extern std::atomic<bool> stop_flag;

inline constexpr const char* kDefaultOutputDirectory = "/data/local/tmp/";
inline constexpr const char* kFileStem = "emberline-";

// Local time as used in default file names: %Y-%m-%d-%H-%M-%S.
std::string local_time_stamp();

// Where a run's own trace session writes: the report directory, .perfetto-trace.
std::string default_trace_path();

namespace utils {
// Turns console output into log records after a hangup: one record per insertion.
class LogBuffer : public std::streambuf {
 protected:
  std::streamsize xsputn(const char* text, std::streamsize count) override;
  int_type overflow(int_type c) override;
};

// Never destroyed: after a hangup the standard streams point at it until the runtime's very
// last flush, which comes after every other static object has gone.
extern LogBuffer& log_buffer;

// Sends both console streams to the log; safe to call from a signal handler.
void redirect_console_to_log();
}  // namespace utils

class USBCharging {
 public:
  USBCharging();
  ~USBCharging();
  USBCharging(const USBCharging&) = delete;
  USBCharging& operator=(const USBCharging&) = delete;

  void disable();
  void enable();

 private:
  void write_all(char byte);

  std::vector<int> fds;
  std::vector<std::string> paths;
  // Give charging back should the process die while it is suspended.
  std::vector<crash_restore::Restore> restores;
};

// The loop's view of time, replaceable so that tests can drive the loop deterministically.
class LoopClock {
 public:
  virtual ~LoopClock() = default;
  virtual std::int64_t now_us() = 0;
  virtual void sleep_for(std::chrono::nanoseconds duration) = 0;
};

class SystemLoopClock : public LoopClock {
 public:
  std::int64_t now_us() override;
  void sleep_for(std::chrono::nanoseconds duration) override;
};

class Emberline {
 public:
  explicit Emberline(bool perfetto);
  ~Emberline();
  Emberline(const Emberline&) = delete;
  Emberline& operator=(const Emberline&) = delete;

  void set_output_format(OutputFormat format) { output_format = format; }
  void set_log_logcat(bool value) { log_logcat = value; }
  void set_quiet(bool value) { quiet = value; }
  void set_continue_charging(bool value) { continue_charging = value; }
  void set_clock(std::shared_ptr<LoopClock> new_clock) { clock = std::move(new_clock); }

  void setup_file_output(std::string& path);
  bool init(bool time_plugins);
  int run(unsigned int time, unsigned int sample, unsigned int output);
  void output_line(const std::string& text);
  void output_message(const std::string& text);
  void add_timestamp_fields();
  void add_timing_fields();
  void print_schema();

  void register_power_plugin(PowerPath path, bool use_window, unsigned int window_size,
                             float alpha);
  void register_stats_plugin(bool cycle);
  void register_thermals_plugin();
  void register_example_plugin();
  void register_ravelin_plugin();
  void register_dsp_plugin();
  void register_tail_plugin(std::vector<std::string> files);
  void register_charge_plugin();
  void register_brantley_rails_plugin();
  void register_quillon_rails_plugin();
  void register_quillon_dram_bw_plugin(unsigned int ms);
  void register_credits_plugin();
  void register_dsp_trace_plugin();

  // For tests: the root of the output tree.
  PluginManager& manager() { return plugin_manager; }

 private:
  void add_root_value(const std::string& key, std::shared_ptr<ISerializable> value,
                      const char* description);

  bool perfetto;
  bool log_logcat = false;
  bool quiet = false;
  OutputFormat output_format = OutputFormat::TEXT;
  PluginManager plugin_manager;
  bool charging_disabled = false;
  bool continue_charging = false;
  USBCharging usb_charging;
  std::ofstream output_file;
  std::shared_ptr<Value<unsigned long>> sequence = std::make_shared<Value<unsigned long>>();
  std::shared_ptr<TimestampValue<3>> device_timestamp = std::make_shared<TimestampValue<3>>();
  std::shared_ptr<TimestampValue<3>> timestamp = std::make_shared<TimestampValue<3>>();
  std::shared_ptr<Value<unsigned long>> sample_time_ms = std::make_shared<Value<unsigned long>>();
  std::shared_ptr<Value<unsigned long>> output_time_ms = std::make_shared<Value<unsigned long>>();
  std::shared_ptr<SignedFigureValue> process_time_ms = std::make_shared<SignedFigureValue>();
  std::shared_ptr<SignedFigureValue> drift_time_ms = std::make_shared<SignedFigureValue>();
  std::shared_ptr<SignedFigureValue> wait_time_ms = std::make_shared<SignedFigureValue>();
  std::shared_ptr<LoopClock> clock = std::make_shared<SystemLoopClock>();
};

}  // namespace emberline
