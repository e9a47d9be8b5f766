#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "crash_restore.h"
#include "plugin.h"
#include "plugins/dram_samples.h"

namespace emberline {

// DRAM traffic of the CPU, the GPU and the whole memory system, from the driver's bandwidth
// monitors, reduced at every sample tick.
class QuillonDRAMBandwidthPlugin : public Plugin {
 public:
  explicit QuillonDRAMBandwidthPlugin(unsigned int sample_ms);
  ~QuillonDRAMBandwidthPlugin() override;
  QuillonDRAMBandwidthPlugin(const QuillonDRAMBandwidthPlugin&) = delete;
  QuillonDRAMBandwidthPlugin& operator=(const QuillonDRAMBandwidthPlugin&) = delete;

  bool init() override;
  bool on_sample() override;
  bool on_emit_to_perfetto() override;

  bool configureSampling(const std::string& text);
  bool configureMonitors(const std::string& text);
  std::string readSampleMsNode();
  bool initClientMappings();
  bool update();

 private:
  static constexpr int kMonitors = 3;

  struct ClientValues {
    std::shared_ptr<Value<unsigned int>> mean, minimum, maximum, samples;
    std::shared_ptr<Value<double>> stddev;
    std::shared_ptr<PercentageValue<3>> utilisation;
  };

  bool readSampleNode(int monitor);
  void store(const ClientValues& values, const dram::BandwidthStats& stats);
  void updateTotal(std::span<const dram::Sample> samples);
  unsigned int monitorOf(const std::string& client) const;
  // Has `bytes` go back into `path` on a way out that runs no destructor, once per node.
  void armRestore(const std::string& path, const std::string& bytes);

  unsigned int sample_ms;
  ClientValues cpu, gpu, total;
  std::shared_ptr<Value<unsigned int>> total_avail_bw_mbps;
  std::shared_ptr<Value<unsigned int>> ddr_freq_mhz, ddr_min_freq_mhz, ddr_max_freq_mhz;
  std::string saved_sample_ms;
  std::string sample_ms_path;
  std::vector<std::string> client_paths;
  std::vector<std::string> enable_paths;
  std::vector<std::string> sample_paths;
  std::unordered_map<std::string, unsigned int> client_index;

  // Kept across ticks, so that once the lists fit, parsing them allocates nothing.
  std::array<std::vector<dram::Sample>, kMonitors> monitor_samples;
  unsigned int cpu_monitor = 0, gpu_monitor = 0, total_monitor = 0;

  std::unordered_map<std::string, crash_restore::Restore> restores;
};

}  // namespace emberline
