#include "proc_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <system_error>
#include <unordered_set>

#include "profile.h"
#include "state_dir.h"

namespace emberline::sim {

namespace {

using namespace std::string_literals;

constexpr double kTicksPerSecond = 100.0;
// The headset has been up for an hour when the sim starts.
constexpr double kUptimeSeconds = 3600.0;
// Worker threads that fill a tree up take little, so that thousands of them fit on eight CPUs.
const ThreadTraits kWorker{"", 0.0002, 0.0008, false};

ProcessSpec process(int pid, std::string cmdline, std::vector<ThreadTraits> threads,
                    std::string transient_prefix = {}) {
  return {pid, std::move(cmdline), std::move(threads), std::move(transient_prefix)};
}

}  // namespace

// A standalone headset's userspace about an hour after boot. Names are what the kernel keeps of
// them: 15 characters, an app's main thread the tail of its package name.
ProcTreeParams headset_threads(int threads) {
  ProcTreeParams tree{
      .processes =
          {
              process(2110, "/system/bin/logd\0"s,
                      {{"logd", 0.002, 0.004},
                       {"logd.writer", 0.004, 0.01},
                       {"logd.reader", 0.001, 0.004},
                       {"logd.klogd", 0.0005, 0.001},
                       {"logd.auditd", 0.0005, 0.001}}),
              process(2125, "/system/bin/servicemanager\0"s, {{"servicemanager", 0.002, 0.006}}),
              process(2131, "/system/bin/surfaceflinger\0"s,
                      {{"surfaceflinger", 0.02, 0.08},
                       {"RenderEngine", 0.01, 0.15, true},
                       {"app", 0.004, 0.02},
                       {"sf", 0.004, 0.02},
                       {"binder:2131_1", 0.002, 0.01},
                       {"binder:2131_2", 0.002, 0.01},
                       {"HwBinder:2131_1", 0.001, 0.004}}),
              process(2160, "zygote64\0"s,
                      {{"zygote64", 0.0, 0.0},
                       {"Signal Catcher", 0.0, 0.0},
                       {"HeapTaskDaemon", 0.0, 0.0}}),
              process(2215, "system_server\0"s,
                      {{"system_server", 0.002, 0.01},
                       {"Signal Catcher", 0.0, 0.0},
                       {"HeapTaskDaemon", 0.002, 0.02},
                       {"FinalizerDaemon", 0.001, 0.004},
                       {"android.display", 0.006, 0.03},
                       {"android.anim", 0.004, 0.03},
                       {"ActivityManager", 0.003, 0.02},
                       {"PowerManagerSer", 0.001, 0.004},
                       {"binder:2215_1", 0.003, 0.02},
                       {"binder:2215_2", 0.003, 0.02},
                       {"binder:2215_3", 0.002, 0.015}},
                      "pool-1-thread-"),
              process(2402, "/vendor/bin/hw/android.hardware.sensors@2.0-service\0"s,
                      {{"sensors@2.0-se", 0.01, 0.02},
                       {"sensor_poll", 0.02, 0.02},
                       {"HwBinder:2402_1", 0.002, 0.004}}),
              process(2430, "/system/bin/audioserver\0"s,
                      {{"audioserver", 0.001, 0.002},
                       {"AudioOut_D", 0.01, 0.04},
                       {"binder:2430_1", 0.001, 0.004}}),
              process(2488, "/vendor/bin/trackingd\0--imu=400\0"s,
                      {{"trackingd", 0.002, 0.004},
                       {"Tracking", 0.06, 0.1, true},
                       {"imu_fusion", 0.04, 0.05},
                       {"dsp_rx", 0.01, 0.02}}),
              process(2510, "/apex/com.android.adbd/bin/adbd\0--root_seclabel=u:r:su:s0\0"s,
                      {{"adbd", 0.001, 0.002}, {"usb ffs open", 0.001, 0.002}}),
              process(2601, "com.coralis.ravelin\0"s,
                      {{"coralis.ravelin", 0.005, 0.02},
                       {"RavelinComp", 0.05, 0.35, true},
                       {"TimeWarp", 0.08, 0.25, true},
                       {"RenderThread", 0.03, 0.3, true},
                       {"HeapTaskDaemon", 0.001, 0.01},
                       {"binder:2601_1", 0.002, 0.01}},
                      "Thread-"),
              process(2755, "com.coralis.home\0"s,
                      {{"om.coralis.home", 0.002, 0.02},
                       {"UnityMain", 0.02, 0.6, true},
                       {"UnityGfxDeviceW", 0.01, 0.4, true},
                       {"RenderThread", 0.005, 0.1, true},
                       {"Job.Worker 0", 0.0, 0.15},
                       {"Job.Worker 1", 0.0, 0.15},
                       {"HeapTaskDaemon", 0.001, 0.02}},
                      "Thread-"),
              process(2890, "/system/bin/sh\0"s, {{"sh", 0.0, 0.0}}),
          },
      .clusters = {{0, {300000, 691200, 1190400, 1497600, 1785600}},
                   {4, {710400, 1171200, 1574400, 2016000, 2419200}}},
      .total_threads = threads,
      // More threads start and end, in proportion, in a crowded tree.
      .transient_per_s = threads == 0 ? 2.0 : 2.0 * (threads / 300.0),
  };
  return tree;
}

namespace {

double uniform(std::mt19937_64& rng, double low, double high) {
  // Our own mapping from raw bits, as the model does: one seed, one run, on any library.
  return low + (high - low) * (static_cast<double>(rng() >> 11) * 0x1.0p-53);
}

std::size_t frequencies(const ProcTreeParams& params) {
  std::size_t n = 0;
  for (const ClusterSpec& c : params.clusters) n += c.freqs_khz.size();
  return n;
}

// Where a thread's cluster's frequencies start among its counters, and how many there are.
std::pair<std::size_t, std::size_t> cluster_span(const ProcTreeParams& params, bool big) {
  std::size_t index = big && params.clusters.size() > 1 ? params.clusters.size() - 1 : 0;
  std::size_t begin = 0;
  for (std::size_t c = 0; c < index; ++c) begin += params.clusters[c].freqs_khz.size();
  return {begin, params.clusters[index].freqs_khz.size()};
}

ThreadState start_thread(const ProcTreeParams& params, int pid, int tid, ThreadTraits traits) {
  ThreadState t{pid, tid, std::move(traits), std::vector<double>(frequencies(params)), 0, 0};
  // An hour of history, mostly at the cluster's lower frequencies.
  auto [begin, count] = cluster_span(params, t.traits.big);
  double total =
      (t.traits.idle_share + 0.3 * t.traits.busy_share) * kUptimeSeconds * kTicksPerSecond;
  double weight = 0.5;
  for (std::size_t f = 0; f < count; ++f, weight /= 2) {
    t.ticks[begin + f] = std::floor(total * (f + 1 == count ? weight * 2 : weight));
  }
  return t;
}

void write_whole(const std::string& path, const std::string& content) {
  UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!fd ||
      ::write(fd.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
    throw std::system_error(errno, std::generic_category(), "cannot write " + path);
  }
}

const ProcessSpec* find_process(const ProcTreeParams& params, int pid) {
  for (const ProcessSpec& p : params.processes) {
    if (p.pid == pid) return &p;
  }
  return nullptr;
}

}  // namespace

std::string thread_dir(int pid, int tid) {
  return "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid);
}

std::string time_in_state(const ProcTreeParams& params, const ThreadState& thread) {
  std::string text;
  std::size_t i = 0;
  for (const ClusterSpec& cluster : params.clusters) {
    text += "cpu" + std::to_string(cluster.first_cpu) + "\n";
    for (long freq : cluster.freqs_khz) {
      text +=
          std::to_string(freq) + " " + std::to_string(static_cast<long>(thread.ticks[i++])) + "\n";
    }
  }
  return text;
}

ProcTreeState initial_proc_tree(const ProcTreeParams& params, std::uint64_t seed) {
  ProcTreeState state;
  state.rng.seed(seed ^ 0x7468726561647321ull);
  // Thread ids above every pid, in the order the threads were made.
  state.next_tid = 5001;
  for (const ProcessSpec& p : params.processes) {
    for (std::size_t i = 0; i < p.threads.size(); ++i) {
      int tid = i == 0 ? p.pid : state.next_tid++;
      state.threads.push_back(start_thread(params, p.pid, tid, p.threads[i]));
    }
  }
  // Binder pools fill the tree up, spread over the processes.
  std::vector<int> pool(params.processes.size(), 0);
  for (std::size_t i = 0;
       static_cast<int>(state.threads.size()) < params.total_threads && !params.processes.empty();
       ++i) {
    std::size_t p = i % params.processes.size();
    const ProcessSpec& process = params.processes[p];
    ThreadTraits worker = kWorker;
    worker.comm = "binder:" + std::to_string(process.pid) + "_" + std::to_string(10 + pool[p]++);
    state.threads.push_back(start_thread(params, process.pid, state.next_tid++, worker));
  }
  return state;
}

void step_proc_tree(DeviceState& s, const ModelParams& model, double seconds) {
  const ProcTreeParams& params = model.threads;
  ProcTreeState& state = s.threads;
  const double load = s.load;
  ++state.step;
  std::erase_if(state.threads,
                [&](const ThreadState& t) { return t.end_step != 0 && t.end_step <= state.step; });

  std::vector<const ProcessSpec*> spawners;
  for (const ProcessSpec& p : params.processes) {
    if (!p.transient_prefix.empty()) spawners.push_back(&p);
  }
  if (!spawners.empty() && uniform(state.rng, 0, 1) < params.transient_per_s * seconds) {
    const ProcessSpec& p = *spawners[state.rng() % spawners.size()];
    ThreadTraits traits{p.transient_prefix + std::to_string(++state.started), 0.0,
                        uniform(state.rng, 0.05, 0.4), uniform(state.rng, 0, 1) < 0.5};
    ThreadState t{
        p.pid, state.next_tid++, std::move(traits), std::vector<double>(frequencies(params)), 0, 0};
    double lifetime = uniform(state.rng, params.transient_min_s, params.transient_max_s);
    t.end_step = state.step + std::max<std::uint64_t>(1, std::llround(lifetime / seconds));
    state.threads.push_back(std::move(t));
  }

  // Each cluster's frequency follows the load, as the governor's would.
  for (ThreadState& t : state.threads) {
    auto [begin, count] = cluster_span(params, t.traits.big);
    std::size_t f = begin + static_cast<std::size_t>(std::lround(load * (count - 1)));
    double share = std::clamp(t.traits.idle_share + load * t.traits.busy_share, 0.0, 1.0);
    double before = std::floor(t.ticks[f]);
    t.ticks[f] += share * seconds * kTicksPerSecond;
    if (std::floor(t.ticks[f]) != before) ++t.version;
  }
}

void add_proc_tree(Profile& profile) {
  const ProcTreeParams& params = profile.model.threads;
  for (const ThreadState& t : initial_proc_tree(params, 0).threads) {
    std::string dir = thread_dir(t.pid, t.tid);
    profile.nodes.push_back(fixed(dir + "/comm", t.traits.comm + "\n"));
    profile.nodes.push_back(fixed(dir + "/cmdline", find_process(params, t.pid)->cmdline));
    profile.nodes.push_back(fixed(dir + "/time_in_state", time_in_state(params, t)));
  }
}

LiveThreads::LiveThreads(const ProcTreeParams& params, const ProcTreeState& initial,
                         std::string state_dir)
    : params_(params), state_(std::move(state_dir)) {
  for (const ThreadState& t : initial.threads) written_.emplace(t.tid, Written{t.pid, t.version});
}

void LiveThreads::update(const ProcTreeState& tree) {
  for (const ThreadState& t : tree.threads) {
    auto [slot, inserted] = written_.try_emplace(t.tid, Written{t.pid, t.version});
    std::string task = state_ + "/proc/" + std::to_string(t.pid) + "/task/";
    if (inserted) {
      std::string building = task + ".new-" + std::to_string(t.tid);
      make_dirs(building);
      write_whole(building + "/comm", t.traits.comm + "\n");
      write_whole(building + "/cmdline", find_process(params_, t.pid)->cmdline);
      write_whole(building + "/time_in_state", time_in_state(params_, t));
      ::rename(building.c_str(), (task + std::to_string(t.tid)).c_str());
    } else if (slot->second.version != t.version) {
      // In place: a counter only grows, so its file never gets shorter, and a new inode at every
      // tick would cost the file system far more than the bytes. A node the host replaced (a
      // FIFO, say) no longer stands for the counters: it is left as it is, without waiting for
      // a reader to open it.
      std::string path = task + std::to_string(t.tid) + "/time_in_state";
      UniqueFd fd(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
      struct stat st {};
      if (fd && ::fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode)) {
        rewrite(fd.get(), time_in_state(params_, t));
      }
      slot->second.version = t.version;
    }
  }
  if (written_.size() == tree.threads.size()) return;
  std::unordered_set<int> live;
  for (const ThreadState& t : tree.threads) live.insert(t.tid);
  for (auto it = written_.begin(); it != written_.end();) {
    if (live.count(it->first) != 0) {
      ++it;
      continue;
    }
    // Out of the listing first, then gone: a reader never finds a half-removed thread.
    std::string task = state_ + "/proc/" + std::to_string(it->second.pid) + "/task/";
    std::string gone = task + ".gone-" + std::to_string(it->first);
    if (::rename((task + std::to_string(it->first)).c_str(), gone.c_str()) == 0) {
      remove_tree(gone);
    }
    it = written_.erase(it);
  }
}

}  // namespace emberline::sim
