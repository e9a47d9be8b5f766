#include "state_dir.h"

#include <fcntl.h>
#include <ftw.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace emberline::sim {

namespace {

std::string parent_of(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

UniqueFd open_node(const std::string& path, int flags) {
  int fd = ::open(path.c_str(), flags | O_CLOEXEC, 0644);
  if (fd < 0) fail("cannot open " + path);
  return UniqueFd(fd);
}

}  // namespace

void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = other.release();
  }
  return *this;
}

UniqueFd::~UniqueFd() {
  if (fd_ >= 0) ::close(fd_);
}

int UniqueFd::release() {
  int fd = fd_;
  fd_ = -1;
  return fd;
}

std::string host_path(const std::string& state, std::string_view device_path) {
  return state + std::string(device_path);
}

void make_dirs(const std::string& path) {
  if (path.empty() || ::mkdir(path.c_str(), 0755) == 0) return;
  if (errno == EEXIST) return;
  if (errno != ENOENT) fail("cannot create " + path);
  make_dirs(parent_of(path));
  if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) fail("cannot create " + path);
}

void rewrite(int fd, std::string_view content) {
  // Write first, then cut: a reader between the two sees the new number followed by a line end
  // and stale bytes, never an empty file.
  if (::pwrite(fd, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size()) ||
      ::ftruncate(fd, static_cast<off_t>(content.size())) != 0) {
    fail("cannot rewrite a node");
  }
}

void lay_out(const Profile& profile, const std::string& state, const DeviceState& initial) {
  for (const DeviceRoot& root : kDeviceRoots) make_dirs(state + "/" + std::string(root.name));
  for (const std::string& dir : profile.dirs) make_dirs(host_path(state, dir));
  for (const Node& node : profile.nodes) {
    std::string path = host_path(state, node.path);
    make_dirs(parent_of(path));
    UniqueFd fd = open_node(path, O_WRONLY | O_CREAT);
    rewrite(fd.get(), node.render ? node.render(initial) : node.content);
  }
  UniqueFd log = open_node(state + "/" + std::string(kWritesLog), O_WRONLY | O_CREAT | O_TRUNC);
}

LiveNodes::LiveNodes(const Profile& profile, const std::string& state) {
  for (const Node& node : profile.nodes) {
    if (node.render) files_.push_back({&node, open_node(host_path(state, node.path), O_WRONLY)});
  }
}

void LiveNodes::render(const DeviceState& s) {
  for (File& f : files_) rewrite(f.fd.get(), f.node->render(s));
}

std::string temporary_base() {
  const char* base = std::getenv("TMPDIR");
  if (base != nullptr && *base != '\0') return base;
  // A headset's files laid out in memory start in a fraction of the time they take on a disk,
  // which every end-to-end test pays once.
  struct statfs fs;
  if (::statfs("/dev/shm", &fs) == 0 && fs.f_type == TMPFS_MAGIC &&
      ::access("/dev/shm", W_OK | X_OK) == 0) {
    return "/dev/shm";
  }
  return "/tmp";
}

TemporaryDir::TemporaryDir() {
  std::string pattern = temporary_base() + "/emberline-sim.XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) fail("cannot create a state directory in " + pattern);
  path_ = pattern;
}

TemporaryDir::~TemporaryDir() {
  remove_tree(path_);
}

void remove_tree(const std::string& path) {
  // Depth first, never following a link out of the tree, and on past what cannot be removed.
  ::nftw(
      path.c_str(),
      [](const char* p, const struct stat*, int, struct FTW*) {
        ::remove(p);
        return 0;
      },
      16, FTW_DEPTH | FTW_PHYS);
}

}  // namespace emberline::sim
