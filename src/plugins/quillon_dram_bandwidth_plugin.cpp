#include "plugins/quillon_dram_bandwidth_plugin.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <iostream>

#include "crash_restore.h"
#include "platform/os/node.h"
#include "platform/trace/perfetto.h"
#include "platform/zavra_os/zavra_os.h"

namespace emberline {

namespace dram {

namespace {

// One tab-separated column in base 16, read as the driver's tools read it: leading blanks and a
// "0x" are allowed, and the number ends at the first character that is no digit.
bool parse_hex(std::string_view piece, unsigned long& out) {
  std::size_t start = piece.find_first_not_of(" \n\r\f\v");
  if (start == std::string_view::npos) return false;
  piece.remove_prefix(start);
  if (piece.size() > 2 && piece[0] == '0' && (piece[1] == 'x' || piece[1] == 'X')) {
    piece.remove_prefix(2);
  }
  auto [end, error] = std::from_chars(piece.data(), piece.data() + piece.size(), out, 16);
  return error == std::errc() && end != piece.data();
}

bool parse_line(std::string_view line, Sample& sample) {
  std::size_t column = 0;
  while (column < sample.size() && !line.empty()) {
    std::size_t tab = line.find('\t');
    std::string_view piece = line.substr(0, tab);
    line.remove_prefix(tab == std::string_view::npos ? line.size() : tab + 1);
    // Runs of tabs count as one separator.
    if (piece.empty()) continue;
    if (!parse_hex(piece, sample[column])) return false;
    ++column;
  }
  return column == sample.size();
}

BandwidthStats reduce(std::span<const Sample> samples, bool signed_division) {
  BandwidthStats stats;
  if (samples.empty()) return stats;
  auto low = [](unsigned long number) { return static_cast<std::uint32_t>(number); };

  std::uint32_t n = static_cast<std::uint32_t>(samples.size());
  std::uint32_t used_sum = 0, avail_sum = 0, ddr_sum = 0;
  stats.minimum = stats.maximum = low(samples[0][1]);
  stats.ddr_minimum = stats.ddr_maximum = low(samples[0][3]);
  for (const Sample& s : samples) {
    used_sum += low(s[1]);
    avail_sum += low(s[2]);
    ddr_sum += low(s[3]);
    stats.minimum = std::min(stats.minimum, low(s[1]));
    stats.maximum = std::max(stats.maximum, low(s[1]));
    stats.ddr_minimum = std::min(stats.ddr_minimum, low(s[3]));
    stats.ddr_maximum = std::max(stats.ddr_maximum, low(s[3]));
  }

  if (signed_division) {
    auto as_signed = [](std::uint32_t v) { return static_cast<std::int32_t>(v); };
    std::int32_t mean = as_signed(used_sum) / as_signed(n);
    std::int32_t avail = as_signed(avail_sum) / as_signed(n);
    stats.mean = static_cast<std::uint32_t>(mean);
    stats.available = static_cast<std::uint32_t>(avail);
    stats.utilisation = static_cast<float>(mean) / static_cast<float>(avail);
  } else {
    stats.mean = used_sum / n;
    stats.available = avail_sum / n;
    stats.ddr_mean = ddr_sum / n;
    stats.utilisation = static_cast<float>(stats.mean) / static_cast<float>(stats.available);
  }

  double squares = 0;
  for (const Sample& s : samples) {
    std::uint32_t difference = low(s[1]) - stats.mean;
    squares += static_cast<double>(static_cast<std::int32_t>(difference * difference));
  }
  stats.samples = n;
  stats.stddev = std::sqrt(squares / n);
  return stats;
}

}  // namespace

void parse_samples(std::string_view text, std::vector<Sample>& out) {
  while (!text.empty()) {
    std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    Sample sample{};
    if (!line.empty() && parse_line(line, sample)) out.push_back(sample);
  }
}

BandwidthStats client_stats(std::span<const Sample> samples) {
  return reduce(samples, true);
}
BandwidthStats total_stats(std::span<const Sample> samples) {
  return reduce(samples, false);
}

}  // namespace dram

namespace {

const std::string kRoot = "/sys/devices/system/cpu/bw_prof/";
constexpr unsigned long kReadLimit = 0xA00000;
// Room for a few hundred samples per list before the buffer has to grow.
constexpr std::size_t kInitialReadBuffer = 16 * 1024;
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
  for (const Restore& r : restores) {
    crash_restore::forget(r.slot);
    ::close(r.fd);
  }
  for (int fd : sample_fds) {
    if (fd >= 0) ::close(fd);
  }
}

bool QuillonDRAMBandwidthPlugin::init() {
  // Opening has no effect on the driver, so the lists are readable even if configuring fails.
  for (int i = 0; i < kMonitors; ++i) {
    sample_fds[i] = os::open_node(sample_paths[i]);
    monitor_samples[i].reserve(kInitialSamples);
  }
  read_buffer.resize(kInitialReadBuffer);

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
    std::size_t end = text->find_last_not_of(" \t\n\r");
    client_index[text->substr(0, end == std::string::npos ? 0 : end + 1)] = i;
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
  for (const Restore& r : restores) {
    if (r.path == path) return;
  }
  int fd = os::open_node(path, O_WRONLY);
  if (fd < 0) return;
  int slot = crash_restore::remember(fd, bytes);
  if (slot < 0) {
    ::close(fd);
    return;
  }
  restores.push_back({path, fd, slot});
  // The node is changed at init, long before the engine starts a guard for charging, and
  // with --continue-charging it starts none.
  crash_restore::start_exit_guard();
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
  int fd = sample_fds[monitor];
  std::size_t size = 0;
  if (fd >= 0) {
    // Past the limit the node counts as unreadable, as a whole-file read would have it.
    while (size <= kReadLimit) {
      if (size == read_buffer.size()) read_buffer.resize(std::max(size * 2, kInitialReadBuffer));
      ssize_t got = ::pread(fd, read_buffer.data() + size, read_buffer.size() - size,
                            static_cast<off_t>(size));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) {
        if (got == 0) {
          dram::parse_samples(std::string_view(read_buffer.data(), size), samples);
          return true;
        }
        break;
      }
      size += static_cast<std::size_t>(got);
    }
  }
  std::cerr << "Failed to read sample from '" << sample_paths[monitor] << "'" << std::endl;
  return false;
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
