// Writes DSP task records into a telemetry FIFO as fast as its reader takes them, and prints how
// many records per second went through.
//   dsp_fifo_flood FIFO SECONDS       into a FIFO someone else reads (the tool, in the sim)
//   dsp_fifo_flood --discard SECONDS  into a FIFO of its own whose reader only discards

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "dsp_agent.h"

namespace sim = emberline::sim;

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s FIFO|--discard SECONDS\n", argv[0]);
    return 2;
  }
  const bool discard = std::string(argv[1]) == "--discard";
  const std::string fifo = discard ? "/tmp/dsp_fifo_flood." + std::to_string(getpid()) : argv[1];
  const double seconds = std::atof(argv[2]);

  // Records of the busy workload, whole blocks of them, sent round and round.
  sim::DspWorkload workload(1);
  std::vector<sim::DspRecord> records;
  for (std::uint64_t us = 0; records.size() < 64 * sim::kDspRecordsPerBlock; us += 10'000) {
    workload.run_until(us, 1.0, records);
  }
  records.resize(64 * sim::kDspRecordsPerBlock);

  std::thread reader;
  if (discard) {
    if (::mkfifo(fifo.c_str(), 0600) != 0) return 1;
    reader = std::thread([&fifo] {
      const int fd = ::open(fifo.c_str(), O_RDONLY);
      char block[sim::kDspRecordsPerBlock * sizeof(sim::DspRecord)];
      while (::read(fd, block, sizeof block) > 0) {
      }
      ::close(fd);
    });
  }
  int fd = -1;
  while ((fd = ::open(fifo.c_str(), O_WRONLY)) < 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  const auto start = std::chrono::steady_clock::now();
  std::uint64_t written = 0;
  double elapsed = 0;
  while (elapsed < seconds) {
    if (!sim::write_dsp_blocks(fd, records)) break;
    written += records.size();
    elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
  ::close(fd);
  if (discard) {
    reader.join();
    ::unlink(fifo.c_str());
  }
  std::printf("%.0f records/s (%llu records in %.2f s)\n", static_cast<double>(written) / elapsed,
              static_cast<unsigned long long>(written), elapsed);
  return 0;
}
