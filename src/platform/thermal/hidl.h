#pragma once

// Stand-in for the parts of the HIDL runtime that a client of a hardware service touches: strong
// and weak pointers, the transport's strings and vectors, call results and death notification.

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace android {

// Reference counting is the standard library's here; clients only copy, compare and test them.
template <typename T>
using sp = std::shared_ptr<T>;
template <typename T>
using wp = std::weak_ptr<T>;

namespace hardware {

using hidl_string = std::string;
template <typename T>
using hidl_vec = std::vector<T>;

// The transport's verdict on a call: whether it reached the service and came back.
class Status {
 public:
  enum Exception : std::int32_t { EX_NONE = 0, EX_TRANSACTION_FAILED = -129 };

  Status() = default;
  static Status ok() { return Status(); }
  static Status fromExceptionCode(std::int32_t code, std::string message) {
    Status s;
    s.exception_ = code;
    s.message_ = std::move(message);
    return s;
  }

  bool isOk() const { return exception_ == EX_NONE; }
  std::int32_t exceptionCode() const { return exception_; }
  std::string description() const {
    if (isOk()) return "No error";
    return "Status(" + std::to_string(exception_) + ", EX_TRANSACTION_FAILED): '" + message_ + "'";
  }

 private:
  std::int32_t exception_ = EX_NONE;
  std::string message_;
};

namespace details {
class return_status {
 public:
  return_status() = default;
  return_status(Status status) : status_(std::move(status)) {}  // NOLINT: implicit as in HIDL
  bool isOk() const { return status_.isOk(); }
  std::string description() const { return status_.description(); }
  const Status& status() const { return status_; }

 private:
  Status status_;
};
}  // namespace details

template <typename T>
class Return : public details::return_status {
 public:
  Return(T value) : value_(std::move(value)) {}  // NOLINT: implicit as in HIDL
  Return(Status status) : details::return_status(std::move(status)), value_() {}  // NOLINT
  operator T() const { return value_; }                                           // NOLINT
  T withDefault(T fallback) const { return isOk() ? value_ : fallback; }

 private:
  T value_;
};

template <>
class Return<void> : public details::return_status {
 public:
  Return() = default;
  Return(Status status) : details::return_status(std::move(status)) {}  // NOLINT
};

inline Return<void> Void() {
  return Return<void>();
}

}  // namespace hardware

namespace hidl::base::V1_0 {
class IBase;
}

namespace hardware {

// Told when the process of a service it was linked to goes away.
class hidl_death_recipient {
 public:
  virtual ~hidl_death_recipient() = default;
  virtual void serviceDied(std::uint64_t cookie, const wp<hidl::base::V1_0::IBase>& who) = 0;
};

}  // namespace hardware

namespace hidl::base::V1_0 {

class IBase {
 public:
  virtual ~IBase() = default;
  // Only a remote handle can be linked; the service object itself answers false.
  virtual hardware::Return<bool> linkToDeath(const sp<hardware::hidl_death_recipient>& recipient,
                                             std::uint64_t cookie) {
    (void)recipient;
    (void)cookie;
    return false;
  }
  virtual hardware::Return<bool> unlinkToDeath(
      const sp<hardware::hidl_death_recipient>& recipient) {
    (void)recipient;
    return false;
  }
};

}  // namespace hidl::base::V1_0
}  // namespace android
