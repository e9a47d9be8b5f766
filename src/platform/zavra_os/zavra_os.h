#pragma once

// Stand-in for the device maker's closed Zavra::OS library: only what the tool calls.

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace Zavra::OS {

bool deviceIsFennick();
bool deviceIsMaplet();
bool deviceIsDorrin();
bool deviceIsBrantley();

// The device name as the queries above see it, read once from ro.product.device.
const std::string& deviceName();

// The generation a device name stands for; the queries above answer by it.
enum class Generation { kOther, kFennick, kMaplet, kDorrin, kBrantley };
Generation generationOf(std::string_view device_name);

// Parses build.prop text; the last definition of `key` wins. Empty when absent.
std::string findProperty(std::string_view build_prop, std::string_view key);

namespace File {
std::optional<std::string> ReadText(const std::string& path, unsigned long limit);
int WriteText(const std::string& path, const std::string& text, bool append);
}  // namespace File

template <typename T, typename Mutex>
class ValueMutexBase {
 public:
  template <typename... Args>
  explicit ValueMutexBase(Args&&... args) : value_(std::forward<Args>(args)...) {}

  class Locked {
   public:
    Locked(T& value, Mutex& mutex) : value_(value), mutex_(mutex) { mutex_.lock(); }
    ~Locked() { mutex_.unlock(); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;
    T& operator*() { return value_; }
    T* operator->() { return &value_; }

   private:
    T& value_;
    Mutex& mutex_;
  };

  Locked Lock() { return Locked(value_, mutex_); }

 private:
  T value_;
  Mutex mutex_;
};

}  // namespace Zavra::OS
