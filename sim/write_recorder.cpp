#include "write_recorder.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <system_error>

namespace emberline::sim {

namespace {

constexpr char kHex[] = "0123456789abcdef";

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// Reads a number the way the kernel's kstrtoint does for a node: blanks and a line end around it
// are fine, anything else is not a number.
std::optional<long> parse_number(std::string_view text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ' || text.back() == '\0')) {
    text.remove_suffix(1);
  }
  long value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return value;
}

}  // namespace

std::string format_write(const Write& w) {
  char head[64];
  std::snprintf(head, sizeof head, "%.6f", w.time_s);
  std::string line = head;
  line += " " + w.path + " " + std::to_string(w.offset) + " ";
  for (unsigned char c : w.bytes) {
    line += kHex[c >> 4];
    line += kHex[c & 0xf];
  }
  return line;
}

std::optional<Write> parse_write(std::string_view line) {
  Write w;
  auto field = [&line]() {
    size_t end = line.find(' ');
    std::string_view f = line.substr(0, end);
    line.remove_prefix(end == std::string_view::npos ? line.size() : end + 1);
    return f;
  };
  std::string_view time = field(), path = field(), offset = field(), hex = field();
  if (path.empty() || !line.empty() || hex.size() % 2 != 0) return std::nullopt;
  auto [t_end, t_ec] = std::from_chars(time.data(), time.data() + time.size(), w.time_s);
  auto [o_end, o_ec] = std::from_chars(offset.data(), offset.data() + offset.size(), w.offset);
  if (t_ec != std::errc() || o_ec != std::errc() || t_end != time.data() + time.size() ||
      o_end != offset.data() + offset.size()) {
    return std::nullopt;
  }
  w.path = path;
  for (size_t i = 0; i < hex.size(); i += 2) {
    int high = hex_digit(hex[i]), low = hex_digit(hex[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    w.bytes += static_cast<char>(high << 4 | low);
  }
  return w;
}

WriteRecorder::WriteRecorder(const Profile& profile, const std::string& state)
    : inotify_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (!inotify_) fail("cannot watch the recorded nodes");
  std::string log_path = state + "/" + std::string(kWritesLog);
  log_ = UniqueFd(::open(log_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
  if (!log_) fail("cannot open " + log_path);

  for (const Node& node : profile.nodes) {
    if (node.recording == Recording::none) continue;
    std::string path = host_path(state, node.path);
    Target t{&node, UniqueFd(::open(path.c_str(), O_RDWR | O_CLOEXEC))};
    t.shown = node.content;
    if (!t.fd) fail("cannot open " + path);
    t.watch = ::inotify_add_watch(inotify_.get(), path.c_str(), IN_MODIFY);
    if (t.watch < 0) fail("cannot watch " + path);
    targets_.push_back(std::move(t));
  }
}

std::optional<Write> WriteRecorder::take(Target& t, double now_s) {
  std::string data;
  char buf[4096];
  for (ssize_t n;
       (n = ::pread(t.fd.get(), buf, sizeof buf, static_cast<off_t>(data.size()))) > 0;) {
    data.append(buf, static_cast<size_t>(n));
  }
  if (t.node->recording == Recording::latch) {
    // A latched node is never emptied, so a write shows as a change of content. The tool's own
    // truncation before a write is an event of its own and finds the node empty; forgetting the
    // content then lets a rewrite of the same value count.
    if (data.empty()) t.shown.clear();
    if (data.empty() || data == t.shown) return std::nullopt;
    t.shown = data;
    return Write{now_s, t.node->path, 0, data};
  }
  // Our own truncation is an event too, and finds the node empty.
  if (data.empty()) return std::nullopt;
  if (::ftruncate(t.fd.get(), 0) != 0) fail("cannot empty " + t.node->path);

  size_t offset = data.find_first_not_of('\0');
  if (offset == std::string::npos) offset = 0;
  Write w{now_s, t.node->path, offset, data.substr(offset)};
  if (t.node->recording == Recording::charge_suspend) {
    if (auto value = parse_number(w.bytes)) t.suspends = *value != 0;
  }
  return w;
}

void WriteRecorder::log(const std::vector<Write>& writes) {
  std::string text;
  for (const Write& w : writes) text += format_write(w) + "\n";
  if (!text.empty() && ::write(log_.get(), text.data(), text.size()) < 0) fail("cannot log writes");
}

std::vector<Write> WriteRecorder::collect(double now_s) {
  std::vector<bool> touched(targets_.size());
  bool overflow = false;
  alignas(inotify_event) char buf[4096];
  for (ssize_t n; (n = ::read(inotify_.get(), buf, sizeof buf)) > 0;) {
    for (char* p = buf; p < buf + n;) {
      auto* event = reinterpret_cast<inotify_event*>(p);
      overflow |= (event->mask & IN_Q_OVERFLOW) != 0;
      for (size_t i = 0; i < targets_.size(); ++i) {
        if (targets_[i].watch == event->wd) touched[i] = true;
      }
      p += sizeof(inotify_event) + event->len;
    }
  }
  std::vector<Write> writes;
  for (size_t i = 0; i < targets_.size(); ++i) {
    if (!touched[i] && !overflow) continue;
    if (auto w = take(targets_[i], now_s)) writes.push_back(std::move(*w));
  }
  log(writes);
  return writes;
}

std::vector<Write> WriteRecorder::drain(double now_s) {
  std::vector<Write> writes = collect(now_s);
  std::vector<Write> rest;
  for (Target& t : targets_) {
    if (auto w = take(t, now_s)) rest.push_back(std::move(*w));
  }
  log(rest);
  writes.insert(writes.end(), rest.begin(), rest.end());
  return writes;
}

bool WriteRecorder::charging_suspended() const {
  for (const Target& t : targets_) {
    if (t.suspends) return true;
  }
  return false;
}

}  // namespace emberline::sim
