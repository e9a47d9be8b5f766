// The headset's logcat, as far as a tool reading the log uses it.

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>

#include "device_log.h"

namespace emberline::sim {

namespace {

constexpr std::string_view kPriorities = "VDIWEFS";
constexpr std::size_t kStampLength = 23;  // "YYYY-MM-DD HH:MM:SS.mmm"

bool is_stamp(std::string_view text) {
  constexpr std::string_view shape = "dddd-dd-dd dd:dd:dd.ddd";
  if (text.size() != shape.size()) return false;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    if (shape[i] == 'd' ? text[i] < '0' || text[i] > '9' : text[i] != shape[i]) return false;
  }
  return true;
}

struct Entry {
  std::string_view stamp;
  char priority;
  std::string_view tag;
};

// "STAMP P/TAG(  PID): message"; the tag is padded with blanks to eight characters.
std::optional<Entry> parse_entry(std::string_view line) {
  if (line.size() < kStampLength + 4 || line[kStampLength] != ' ' ||
      line[kStampLength + 2] != '/' || !is_stamp(line.substr(0, kStampLength))) {
    return std::nullopt;
  }
  std::string_view tag = line.substr(kStampLength + 3);
  tag = tag.substr(0, tag.find('('));
  tag = tag.substr(0, tag.find_last_not_of(' ') + 1);
  return Entry{line.substr(0, kStampLength), line[kStampLength + 1], tag};
}

bool shown(const LogcatQuery& query, const Entry& entry) {
  const std::size_t rank = kPriorities.find(entry.priority);
  if (rank == std::string_view::npos) return false;
  // The most specific filter decides: the tag's own, else "*", else everything shows.
  std::optional<char> lowest;
  for (const auto& [tag, priority] : query.filters) {
    if (tag == entry.tag) lowest = priority;
  }
  if (!lowest) {
    for (const auto& [tag, priority] : query.filters) {
      if (tag == "*") lowest = priority;
    }
  }
  return rank >= kPriorities.find(lowest.value_or('V'));
}

}  // namespace

std::optional<LogcatQuery> parse_logcat_args(const std::vector<std::string>& args,
                                             std::string& error) {
  LogcatQuery query;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    const bool has_value = i + 1 < args.size();
    if (arg == "-s") {
      query.filters.insert(query.filters.begin(), {"*", 'S'});
    } else if (arg == "-d") {
      // Dumping is all this logcat does.
    } else if (arg == "-v" && has_value) {
      std::stringstream formats(args[++i]);
      for (std::string format; std::getline(formats, format, ',');) {
        if (format == "year") {
          query.year = true;
        } else if (format != "time") {
          error = "unsupported format '" + format + "'";
          return std::nullopt;
        }
      }
    } else if (arg == "-t" && has_value) {
      query.since = args[++i];
      if (!is_stamp(*query.since)) {
        error = "bad time '" + *query.since + "', expected 'YYYY-MM-DD HH:MM:SS.mmm'";
        return std::nullopt;
      }
    } else if (const std::size_t colon = arg.rfind(':');
               arg[0] != '-' && colon != std::string::npos && colon + 2 == arg.size() &&
               kPriorities.find(arg[colon + 1]) != std::string_view::npos) {
      query.filters.emplace_back(arg.substr(0, colon), arg[colon + 1]);
    } else {
      error = "unknown argument '" + arg + "'";
      return std::nullopt;
    }
  }
  return query;
}

std::string select_entries(const LogcatQuery& query, std::string_view buffer) {
  std::string out;
  // A line still being written has no line end yet; it shows in the next run.
  for (std::size_t begin = 0, end; (end = buffer.find('\n', begin)) != std::string_view::npos;
       begin = end + 1) {
    std::string_view line = buffer.substr(begin, end + 1 - begin);
    std::optional<Entry> entry = parse_entry(line);
    if (!entry || !shown(query, *entry)) continue;
    // Stamps of one width compare as text; the entry at the very time given is included.
    if (query.since && entry->stamp < *query.since) continue;
    if (out.empty()) out = "--------- beginning of main\n";
    out += query.year ? line : line.substr(5);
  }
  return out;
}

int logcat_main(int argc, char** argv) {
  std::string error;
  std::optional<LogcatQuery> query =
      parse_logcat_args(std::vector<std::string>(argv + 1, argv + argc), error);
  if (!query) {
    std::cerr << "logcat: " << error << std::endl;
    return 1;
  }
  std::ifstream file(std::string(kSandboxLogDir) + "/" + std::string(kLogBuffer), std::ios::binary);
  std::ostringstream buffer;
  buffer << file.rdbuf();
  const std::string out = select_entries(*query, buffer.str());
  for (std::size_t done = 0; done < out.size();) {
    const ssize_t n = ::write(STDOUT_FILENO, out.data() + done, out.size() - done);
    if (n <= 0) return 1;
    done += static_cast<std::size_t>(n);
  }
  return 0;
}

}  // namespace emberline::sim
