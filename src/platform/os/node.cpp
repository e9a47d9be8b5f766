#include "platform/os/node.h"

#include <stdio_ext.h>
#include <unistd.h>

#include <cerrno>

namespace emberline::os {

int open_node(const char* path, int flags) {
  return ::open(path, flags | O_NONBLOCK | O_CLOEXEC);
}

std::FILE* open_node_file(const char* path) {
  const int fd = open_node(path);
  if (fd < 0) return nullptr;
  std::FILE* file = ::fdopen(fd, "r");
  if (file == nullptr) ::close(fd);
  return file;
}

void rewind_node(std::FILE* file) {
  // Each C library keeps its buffer across a seek that lands inside it, each by its own test:
  // dropping the buffer defeats bionic's, and a flush, which makes glibc forget where the buffer
  // stands in the file, defeats glibc's. Then the seek really goes to the file.
  __fpurge(file);
  std::fflush(file);
  std::rewind(file);
}

bool NodeBuf::open(const std::string& path) {
  if (is_open()) return false;
  fd_ = open_node(path);
  setg(buffer_, buffer_, buffer_);
  return is_open();
}

bool NodeBuf::close() {
  if (!is_open()) return false;
  const int fd = fd_;
  fd_ = -1;
  setg(buffer_, buffer_, buffer_);
  return ::close(fd) == 0;
}

NodeBuf::int_type NodeBuf::underflow() {
  if (!is_open()) return traits_type::eof();
  ssize_t got;
  do {
    got = ::read(fd_, buffer_, sizeof buffer_);
  } while (got < 0 && errno == EINTR);
  if (got <= 0) return traits_type::eof();
  setg(buffer_, buffer_, buffer_ + got);
  return traits_type::to_int_type(buffer_[0]);
}

NodeBuf::pos_type NodeBuf::seekoff(off_type offset, std::ios_base::seekdir dir,
                                   std::ios_base::openmode which) {
  if (!is_open() || !(which & std::ios_base::in)) return pos_type(off_type(-1));
  // The descriptor stands at the end of what was buffered; a position relative to the reader
  // is taken back by what it has not read yet.
  int whence = dir == std::ios_base::beg   ? SEEK_SET
               : dir == std::ios_base::end ? SEEK_END
                                           : SEEK_CUR;
  if (dir == std::ios_base::cur) offset -= egptr() - gptr();
  const off_t at = ::lseek(fd_, offset, whence);
  if (at < 0) return pos_type(off_type(-1));
  setg(buffer_, buffer_, buffer_);
  return pos_type(at);
}

NodeBuf::pos_type NodeBuf::seekpos(pos_type position, std::ios_base::openmode which) {
  return seekoff(off_type(position), std::ios_base::beg, which);
}

void NodeStream::open(const std::string& path) {
  if (buf_.open(path)) {
    clear();
  } else {
    setstate(failbit);
  }
}

void NodeStream::close() {
  if (!buf_.close()) setstate(failbit);
}

}  // namespace emberline::os
