#pragma once

// Kernel nodes are opened without blocking. A node that never answers (a driver that waits for
// data it never gets, or a FIFO standing where a node should be) then reads as failed or empty,
// instead of holding the measurement loop, and the stop that the loop waits for, for good. sysfs,
// procfs and regular files ignore the flag, so a node that answers reads as it always did.

#include <fcntl.h>

#include <cstdio>
#include <istream>
#include <streambuf>
#include <string>

namespace emberline::os {

// open(2) of `path` with `flags` and O_NONBLOCK | O_CLOEXEC added: a descriptor, or -1 with errno.
int open_node(const char* path, int flags = O_RDONLY);
inline int open_node(const std::string& path, int flags = O_RDONLY) {
  return open_node(path.c_str(), flags);
}

// A stdio stream for reading over open_node; null when the node cannot be opened.
std::FILE* open_node_file(const char* path);
inline std::FILE* open_node_file(const std::string& path) {
  return open_node_file(path.c_str());
}

// Back to offset 0 with nothing buffered. The kernel formats a fresh value only for a read from
// offset 0, and a plain rewind keeps the buffer when offset 0 still lies in it, which gives the
// first reading again and again.
void rewind_node(std::FILE* file);

// What std::filebuf does for reading, over a descriptor of open_node. Seeking goes to a position
// of the file and drops what was buffered, so that a node re-read from 0 shows a fresh value.
class NodeBuf : public std::streambuf {
 public:
  NodeBuf() = default;
  ~NodeBuf() override { close(); }
  NodeBuf(const NodeBuf&) = delete;
  NodeBuf& operator=(const NodeBuf&) = delete;

  bool open(const std::string& path);
  bool is_open() const { return fd_ >= 0; }
  bool close();

 protected:
  int_type underflow() override;
  pos_type seekoff(off_type offset, std::ios_base::seekdir dir,
                   std::ios_base::openmode which) override;
  pos_type seekpos(pos_type position, std::ios_base::openmode which) override;

 private:
  int fd_ = -1;
  char buffer_[4096];  // a per-thread time_in_state fits, so one read takes it whole
};

// The reading side of std::ifstream (open, is_open, close, and the stream itself) over NodeBuf.
class NodeStream : public std::istream {
 public:
  NodeStream() : std::istream(&buf_) {}
  explicit NodeStream(const std::string& path) : NodeStream() { open(path); }

  // As std::ifstream: the state is cleared when the node opens, and failbit set when it does not.
  void open(const std::string& path);
  bool is_open() const { return buf_.is_open(); }
  void close();

 private:
  NodeBuf buf_;
};

// Calls `each` with every line of `in`, without its line end.
template <typename Each>
void for_each_line(std::istream& in, Each&& each) {
  for (std::string line; std::getline(in, line);) each(line);
}

// Opens `path` anew in `stream`, which drops the node it held, and calls `each` with every line
// of it: a node whose content the driver rewrites between reads. A node that does not open gives
// no line.
template <typename Each>
void reread_lines(NodeStream& stream, const std::string& path, Each&& each) {
  stream.close();
  stream.clear();
  stream.open(path);
  for_each_line(stream, each);
}

}  // namespace emberline::os
