#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "profile.h"
#include "state_dir.h"

namespace emberline::sim {

// One write the tool made into a recorded node.
struct Write {
  double time_s = 0;  // seconds since the run began, when the sim saw the write
  std::string path;   // the node's path on the headset
  std::uint64_t offset = 0;
  std::string bytes;

  bool operator==(const Write&) const = default;
};

// writes.log holds one line per write, in the order the sim saw them:
//
//   TIME PATH OFFSET HEX
//
//   TIME    seconds since the run began, with six decimals
//   PATH    the node's path on the headset
//   OFFSET  where the write began, in bytes, decimal
//   HEX     the bytes written, two lowercase hex digits per byte
//
// e.g. "1.004211 /sys/class/qcom-battery/input_suspend 0 31" for a "1" written at offset 0.
std::string format_write(const Write& w);
std::optional<Write> parse_write(std::string_view line);

// Notices the tool's writes into the profile's recorded nodes, logs them to writes.log and keeps
// what the charging nodes were last told.
//
// A recorded node is emptied as soon as its write has been read, so a later write at offset k
// shows up as k zero bytes before the data, which is how the offset is known. A second write
// landing between that read and the emptying is lost; the tool writes a node at most once a
// second, so the window of a few microseconds does not matter in practice.
class WriteRecorder {
 public:
  WriteRecorder(const Profile& profile, const std::string& state);

  // Readable when a node may hold a new write.
  int fd() const { return inotify_.get(); }

  // Logs and returns the writes that inotify has announced since the last call.
  std::vector<Write> collect(double now_s);
  // Logs and returns whatever any node still holds, with or without an event; for the end of a run.
  std::vector<Write> drain(double now_s);

  // The charger's input is suspended while the last number written to any charging node is not 0.
  bool charging_suspended() const;

 private:
  struct Target {
    const Node* node;
    UniqueFd fd;
    int watch = -1;
    bool suspends = false;
    std::string shown = {};  // a latched node's content as last seen
  };
  std::optional<Write> take(Target& t, double now_s);
  void log(const std::vector<Write>& writes);

  UniqueFd inotify_;
  UniqueFd log_;
  std::vector<Target> targets_;
};

}  // namespace emberline::sim
