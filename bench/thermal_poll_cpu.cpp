// CPU time of the default thermal service's poll thread over a while, in a headset whose model
// runs, with one callback registered as the tool registers it:
//   emberline-sim run -- build/normal/bench/emberline_thermal_poll_cpu 60

#include <dirent.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>

#include "platform/thermal/default_thermal.h"

namespace hal = android::hardware::thermal::V2_0;

namespace {

class Counter : public hal::IThermalChangedCallback {
 public:
  android::hardware::Return<void> notifyThrottling(const hal::Temperature&) override {
    ++count;
    return android::hardware::Void();
  }
  std::atomic<long> count{0};
};

// Nanoseconds on the CPU of this process's thread named `name`, from the scheduler's own count.
long long thread_cpu_ns(const std::string& name) {
  DIR* tasks = opendir("/proc/self/task");
  long long ns = -1;
  while (const dirent* e = readdir(tasks)) {
    std::string dir = std::string("/proc/self/task/") + e->d_name;
    std::string comm;
    std::getline(std::ifstream(dir + "/comm") >> std::ws, comm);
    if (comm == name) std::ifstream(dir + "/schedstat") >> ns;
  }
  closedir(tasks);
  return ns;
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 60;
  hal::implementation::DefaultThermal service;
  auto counter = std::make_shared<Counter>();
  service.registerThermalChangedCallback(counter, false, hal::TemperatureType::CPU,
                                         [](const hal::ThermalStatus&) {});
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  long long ns = thread_cpu_ns("thermal-poll");
  std::cout << "poll thread: " << ns / 1e6 << " ms CPU in " << seconds << " s ("
            << 100.0 * ns / (seconds * 1e9) << " %), " << counter->count << " notifications\n";
  return ns < 0 ? 1 : 0;
}
