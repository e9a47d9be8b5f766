#include "platform/zavra_os/zavra_os.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/os/node.h"
#include "platform/os/os.h"
#include "platform/os/read.h"

namespace Zavra::OS {

std::string findProperty(std::string_view build_prop, std::string_view key) {
  std::string found;
  emberline::os::for_each_line(build_prop, [&](std::string_view line) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    const std::size_t equals = line.find('=');
    if (equals != std::string_view::npos && line.substr(0, equals) == key) {
      found = std::string(line.substr(equals + 1));
    }
  });
  return found;
}

const std::string& deviceName() {
  static const std::string name = emberline::os::property("ro.product.device");
  return name;
}

Generation generationOf(std::string_view device_name) {
  if (device_name == "fennick") return Generation::kFennick;
  if (device_name == "maplet") return Generation::kMaplet;
  if (device_name == "dorrin") return Generation::kDorrin;
  if (device_name == "brantley") return Generation::kBrantley;
  return Generation::kOther;
}

bool deviceIsFennick() {
  return generationOf(deviceName()) == Generation::kFennick;
}
bool deviceIsMaplet() {
  return generationOf(deviceName()) == Generation::kMaplet;
}
bool deviceIsDorrin() {
  return generationOf(deviceName()) == Generation::kDorrin;
}
bool deviceIsBrantley() {
  return generationOf(deviceName()) == Generation::kBrantley;
}

namespace File {

std::optional<std::string> ReadText(const std::string& path, unsigned long limit) {
  std::string text;
  if (emberline::os::read_node(path, text, limit) != emberline::os::NodeRead::kWhole) {
    return std::nullopt;
  }
  return text;
}

int WriteText(const std::string& path, const std::string& text, bool append) {
  int fd = emberline::os::open_node(path, O_WRONLY | (append ? O_APPEND : O_TRUNC));
  if (fd < 0) return errno;
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t wrote = ::write(fd, text.data() + done, text.size() - done);
    if (wrote < 0) {
      if (errno == EINTR) continue;
      int error = errno;
      ::close(fd);
      return error;
    }
    done += static_cast<std::size_t>(wrote);
  }
  if (::close(fd) != 0) return errno;
  return 0;
}

}  // namespace File
}  // namespace Zavra::OS
