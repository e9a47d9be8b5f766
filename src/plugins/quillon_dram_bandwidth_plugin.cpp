#include "plugins/quillon_dram_bandwidth_plugin.h"

#include <algorithm>
#include <cerrno>
#include <iostream>

#include "platform/os/node.h"
#include "platform/os/read.h"
#include "platform/trace/perfetto.h"
#include "platform/zavra_os/zavra_os.h"

namespace emberline {

namespace {

const std::string kRoot = "/sys/devices/system/cpu/bw_prof/";
constexpr unsigned long kReadLimit = 0xA00000;
// Room for the lists of a few seconds' sampling before they have to grow.
constexpr std::size_t kInitialSamples = 1024;

enum Counter {
  kCpuBw,
  kCpuUtil,
  kGpuBw,
  kGpuUtil,
  kTotalBw,
  kTotalUtil,
  kTotalAvail,
  kDdrFreq,
  kCpuSamples,
  kGpuSamples,
  kTotalSamples,
  kCounters
};

const perfetto::CounterTrack& track(Counter counter) {
  static const perfetto::CounterTrack tracks[kCounters] = {
      perfetto::CounterTrack("CPU BW utilized MB/s"),
      perfetto::CounterTrack("CPU BW utilized percentage"),
      perfetto::CounterTrack("GPU BW utilized MB/s"),
      perfetto::CounterTrack("GPU BW utilized percentage"),
      perfetto::CounterTrack("Total BW utilized MB/s"),
      perfetto::CounterTrack("Total BW utilized percentage"),
      perfetto::CounterTrack("Total BW available MB/s"),
      perfetto::CounterTrack("DDR frequency"),
      perfetto::CounterTrack("CPU BW sample count"),
      perfetto::CounterTrack("GPU BW sample count"),
      perfetto::CounterTrack("Total BW sample count")};
  return tracks[counter];
}

void write_failed(const std::string& text, const std::string& path) {
  std::cerr << "Failed to write value " << text << " to '" << path << "'" << std::endl;
}

}  // namespace

QuillonDRAMBandwidthPlugin::QuillonDRAMBandwidthPlugin(unsigned int sample_ms)
    : sample_ms(sample_ms), sample_ms_path(kRoot + "sample_ms") {
  auto unsigned_value = [] { return std::make_shared<Value<unsigned int>>(); };
  for (ClientValues* c : {&cpu, &gpu, &total}) {
    c->mean = unsigned_value();
    c->minimum = unsigned_value();
    c->maximum = unsigned_value();
    c->samples = unsigned_value();
    c->stddev = std::make_shared<Value<double>>();
    c->utilisation = std::make_shared<PercentageValue<3>>();
  }
  total_avail_bw_mbps = unsigned_value();
  ddr_freq_mhz = unsigned_value();
  ddr_min_freq_mhz = unsigned_value();
  ddr_max_freq_mhz = unsigned_value();

  auto add = [this](const char* key, std::shared_ptr<ISerializable> value, const char* text) {
    add_value(key, std::move(value), FieldOptions(text), false);
  };
  add("cpu_bw_mbps", cpu.mean, "The memory bandwidth the CPU used in MB/s");
  add("gpu_bw_mbps", gpu.mean, "The memory bandwidth the GPU used in MB/s");
  add("total_bw_mbps", total.mean, "The total memory bandwidth used in MB/s");
  add("cpu_min_bw_mbps", cpu.minimum, "The minimum memory bandwidth the CPU used in MB/s");
  add("gpu_min_bw_mbps", gpu.minimum, "The minimum memory bandwidth the GPU used in MB/s");
  add("total_min_bw_mbps", total.minimum, "The minimum total memory bandwidth used in MB/s");
  add("cpu_max_bw_mbps", cpu.maximum, "The maximum memory bandwidth the CPU used in MB/s");
  add("gpu_max_bw_mbps", gpu.maximum, "The maximum memory bandwidth the GPU used in MB/s");
  add("total_max_bw_mbps", total.maximum, "The maximum total memory bandwidth used in MB/s");
  add("cpu_samples", cpu.samples, "The number of profiling samples for the CPU");
  add("gpu_samples", gpu.samples, "The number of profiling samples for the GPU");
  add("total_samples", total.samples, "The number of profiling samples for the Total");
  add("cpu_stddev_bw_mbps", cpu.stddev, "The std dev memory bandwidth the CPU used in MB/s");
  add("gpu_stddev_bw_mbps", gpu.stddev, "The std dev memory bandwidth the GPU used in MB/s");
  add("total_stddev_bw_mbps", total.stddev, "The std dev memory bandwidth used in MB/s");
  add("cpu_util_prct", cpu.utilisation,
      "The percentage of total available memory bandwidth used by the CPU");
  add("gpu_util_prct", gpu.utilisation,
      "The percentage of total available memory bandwidth used by the GPU");
  add("total_util_prct", total.utilisation,
      "The percentage of total available memory bandwidth used");
  add("total_avail_bw_mbps", total_avail_bw_mbps, "The total available memory bandwidth in MB/s");
  add("ddr_freq_mhz", ddr_freq_mhz, "The freqency the DDR memory in MHz");
  add("ddr_min_freq_mhz", ddr_min_freq_mhz, "The minimum freqency seen for the DDR memory in MHz");
  add("ddr_max_freq_mhz", ddr_max_freq_mhz, "The maximum freqency seen for the DDR memory in MHz");

  for (int i = 0; i < kMonitors; ++i) {
    std::string monitor = kRoot + "bwmon" + std::to_string(i) + "/";
    client_paths.push_back(monitor + "client");
    enable_paths.push_back(monitor + "mon_enabled");
    sample_paths.push_back(monitor + "last_sample");
  }
}

QuillonDRAMBandwidthPlugin::~QuillonDRAMBandwidthPlugin() {
  if (!saved_sample_ms.empty() &&
      Zavra::OS::File::WriteText(sample_ms_path, saved_sample_ms, false) != 0) {
    write_failed(saved_sample_ms, sample_ms_path);
  }
  configureMonitors("0");
  // Only now that the nodes are back may a fatal signal stop rewriting them.
  restores.clear();
}

bool QuillonDRAMBandwidthPlugin::init() {
  for (auto& samples : monitor_samples) samples.reserve(kInitialSamples);
  bool mapped = initClientMappings();
  cpu_monitor = monitorOf("cpu");
  gpu_monitor = monitorOf("gpu");
  total_monitor = monitorOf("total");
  if (!mapped) return false;
  if (!configureSampling(std::to_string(sample_ms))) return false;
  return configureMonitors("1");
}

unsigned int QuillonDRAMBandwidthPlugin::monitorOf(const std::string& client) const {
  // A name that no monitor serves falls back to monitor 0, as an absent map entry would.
  auto found = client_index.find(client);
  return found == client_index.end() ? 0 : found->second;
}

bool QuillonDRAMBandwidthPlugin::initClientMappings() {
  for (unsigned int i = 0; i < kMonitors; ++i) {
    auto text = Zavra::OS::File::ReadText(client_paths[i], kReadLimit);
    if (!text) {
      std::cerr << "Failed to read file at '" << client_paths[i] << "'" << std::endl;
      return false;
    }
    client_index[std::string(os::trim_end(*text))] = i;
  }
  return true;
}

std::string QuillonDRAMBandwidthPlugin::readSampleMsNode() {
  auto text = Zavra::OS::File::ReadText(sample_ms_path, kReadLimit);
  if (!text) {
    std::cerr << "Failed to read value from '" << sample_ms_path << "'" << std::endl;
    return {};
  }
  return *text;
}

void QuillonDRAMBandwidthPlugin::armRestore(const std::string& path, const std::string& bytes) {
  if (restores.count(path) == 0) {
    restores.emplace(path, crash_restore::Restore::write_back(path, bytes));
  }
}

bool QuillonDRAMBandwidthPlugin::configureSampling(const std::string& text) {
  saved_sample_ms = readSampleMsNode();
  // Armed before the write: a signal in between rewrites the old value, which does no harm.
  if (!saved_sample_ms.empty()) armRestore(sample_ms_path, saved_sample_ms);
  if (Zavra::OS::File::WriteText(sample_ms_path, text, false) != 0) {
    write_failed(text, sample_ms_path);
    return false;
  }
  return true;
}

bool QuillonDRAMBandwidthPlugin::configureMonitors(const std::string& text) {
  for (const std::string& path : enable_paths) {
    if (text != "0") armRestore(path, "0");
    if (Zavra::OS::File::WriteText(path, text, false) != 0) {
      write_failed(text, path);
      return false;
    }
  }
  return true;
}

bool QuillonDRAMBandwidthPlugin::readSampleNode(int monitor) {
  std::vector<dram::Sample>& samples = monitor_samples[monitor];
  samples.clear();
  // By path at every tick: the driver may replace the node, or make it only after the start.
  const auto text = Zavra::OS::File::ReadText(sample_paths[monitor], kReadLimit);
  if (!text) {
    std::cerr << "Failed to read sample from '" << sample_paths[monitor] << "'" << std::endl;
    return false;
  }
  dram::parse_samples(os::trim_end(*text), samples);
  return true;
}

void QuillonDRAMBandwidthPlugin::store(const ClientValues& values,
                                       const dram::BandwidthStats& stats) {
  values.mean->set(stats.mean);
  values.utilisation->set(stats.utilisation);
  values.maximum->set(stats.maximum);
  values.minimum->set(stats.minimum);
  values.samples->set(stats.samples);
  values.stddev->set(stats.stddev);
}

void QuillonDRAMBandwidthPlugin::updateTotal(std::span<const dram::Sample> samples) {
  if (samples.empty()) return;
  dram::BandwidthStats stats = dram::total_stats(samples);
  store(total, stats);
  total_avail_bw_mbps->set(stats.available);
  ddr_freq_mhz->set(stats.ddr_mean);
  ddr_min_freq_mhz->set(stats.ddr_minimum);
  ddr_max_freq_mhz->set(stats.ddr_maximum);
}

bool QuillonDRAMBandwidthPlugin::update() {
  for (int i = 0; i < kMonitors; ++i) readSampleNode(i);
  updateTotal(monitor_samples[total_monitor]);
  // A list without samples, a failed read included, leaves the last statistics standing.
  if (!monitor_samples[cpu_monitor].empty()) {
    store(cpu, dram::client_stats(monitor_samples[cpu_monitor]));
  }
  if (!monitor_samples[gpu_monitor].empty()) {
    store(gpu, dram::client_stats(monitor_samples[gpu_monitor]));
  }
  return true;
}

bool QuillonDRAMBandwidthPlugin::on_sample() {
  return update();
}

bool QuillonDRAMBandwidthPlugin::on_emit_to_perfetto() {
  trace::emit_counter(track(kCpuBw), cpu.mean->value);
  trace::emit_counter(track(kCpuUtil), cpu.utilisation->value);
  trace::emit_counter(track(kGpuBw), gpu.mean->value);
  trace::emit_counter(track(kGpuUtil), gpu.utilisation->value);
  trace::emit_counter(track(kTotalBw), total.mean->value);
  trace::emit_counter(track(kTotalUtil), total.utilisation->value);
  trace::emit_counter(track(kTotalAvail), total_avail_bw_mbps->value);
  trace::emit_counter(track(kDdrFreq), ddr_freq_mhz->value);
  trace::emit_counter(track(kCpuSamples), cpu.samples->value);
  trace::emit_counter(track(kGpuSamples), gpu.samples->value);
  trace::emit_counter(track(kTotalSamples), total.samples->value);
  return true;
}

}  // namespace emberline
