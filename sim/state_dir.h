#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "profile.h"

namespace emberline::sim {

// Throws the error of the system call that just failed, with what was being done.
[[noreturn]] void fail(const std::string& what);

// A file descriptor that closes itself.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd();

  int get() const { return fd_; }
  int release();
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// The headset's top-level directories that a state directory holds, and how the sandbox shows
// each at its real path.
enum class Exposure {
  read_write,
  read_only,
  proc,  // entries mounted one by one over a tree that leads everything else to the real procfs
};
struct DeviceRoot {
  std::string_view name;
  Exposure exposure;
};
inline constexpr std::array<DeviceRoot, 4> kDeviceRoots{{
    {"sys", Exposure::read_write},
    {"proc", Exposure::proc},
    {"system", Exposure::read_only},
    {"data", Exposure::read_write},
}};

inline constexpr std::string_view kWritesLog = "writes.log";

// Where a headset path lives in the state directory.
std::string host_path(const std::string& state, std::string_view device_path);

// Writes the profile's files and directories under `state` (which must exist), with rendered nodes
// showing `initial`. Existing files are overwritten in place.
void lay_out(const Profile& profile, const std::string& state, const DeviceState& initial);

// Keeps the rendered nodes open and rewrites them in place, so that a descriptor the tool holds
// sees each new value after a rewind.
class LiveNodes {
 public:
  LiveNodes(const Profile& profile, const std::string& state);
  void render(const DeviceState& s);

 private:
  struct File {
    const Node* node;
    UniqueFd fd;
  };
  std::vector<File> files_;
};

// Replaces `file`'s content without changing its inode.
void rewrite(int fd, std::string_view content);

// Where fresh state directories go: $TMPDIR if set, else /dev/shm where it is a writable tmpfs,
// else /tmp.
std::string temporary_base();

// A fresh directory under temporary_base(), removed with everything in it on destruction.
class TemporaryDir {
 public:
  TemporaryDir();
  ~TemporaryDir();
  TemporaryDir(const TemporaryDir&) = delete;
  TemporaryDir& operator=(const TemporaryDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

void make_dirs(const std::string& path);
void remove_tree(const std::string& path);

}  // namespace emberline::sim
