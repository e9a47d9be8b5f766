#include "platform/thermal/service_registry.h"

#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "platform/thermal/default_thermal.h"

namespace android::hardware::thermal::V2_0 {

namespace {

using hidl::base::V1_0::IBase;

// One running instance as the transport sees it: the service while its process lives, and the
// recipients to tell when it dies.
struct Node {
  std::mutex mutex;
  sp<IThermal> service;
  std::vector<std::pair<wp<hidl_death_recipient>, std::uint64_t>> links;
};

Status dead_object() {
  return Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED, "DEAD_OBJECT");
}

// The client's handle: every call goes through the node, so that it fails once the process died.
class Proxy : public IThermal {
 public:
  explicit Proxy(std::shared_ptr<Node> node) : node_(std::move(node)) {}

  Return<void> getCurrentTemperatures(bool filterType, TemperatureType type,
                                      getCurrentTemperatures_cb _hidl_cb) override {
    auto service = target();
    if (!service) return dead_object();
    return service->getCurrentTemperatures(filterType, type, std::move(_hidl_cb));
  }

  Return<void> registerThermalChangedCallback(const sp<IThermalChangedCallback>& callback,
                                              bool filterType, TemperatureType type,
                                              registerThermalChangedCallback_cb _hidl_cb) override {
    auto service = target();
    if (!service) return dead_object();
    return service->registerThermalChangedCallback(callback, filterType, type, std::move(_hidl_cb));
  }

  Return<void> unregisterThermalChangedCallback(
      const sp<IThermalChangedCallback>& callback,
      unregisterThermalChangedCallback_cb _hidl_cb) override {
    auto service = target();
    if (!service) return dead_object();
    return service->unregisterThermalChangedCallback(callback, std::move(_hidl_cb));
  }

  Return<bool> linkToDeath(const sp<hidl_death_recipient>& recipient,
                           std::uint64_t cookie) override {
    std::lock_guard lock(node_->mutex);
    if (!node_->service) return dead_object();
    node_->links.emplace_back(recipient, cookie);
    return true;
  }

  Return<bool> unlinkToDeath(const sp<hidl_death_recipient>& recipient) override {
    std::lock_guard lock(node_->mutex);
    auto removed = std::erase_if(node_->links, [&](const auto& link) {
      auto linked = link.first.lock();
      return !linked || linked == recipient;
    });
    return removed != 0;
  }

 private:
  // A strong reference for the length of one call, so that a kill during it lets the call end.
  sp<IThermal> target() {
    std::lock_guard lock(node_->mutex);
    return node_->service;
  }

  std::shared_ptr<Node> node_;
};

class Registry {
 public:
  static Registry& instance() {
    static Registry registry;
    return registry;
  }

  ~Registry() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
  }

  sp<IThermal> get(const std::string& name) {
    sp<IThermal> started;  // released outside the lock if another service won the race
    std::unique_lock lock(mutex_);
    if (name == "default" && !managed_ && !default_tried_) {
      default_tried_ = true;
      lock.unlock();
      // Made outside the lock: the service reads its zones once as it starts.
      if (implementation::DefaultThermal::available(
              implementation::DefaultThermal::kThermalClass)) {
        started = std::make_shared<implementation::DefaultThermal>();
      }
      lock.lock();
      if (started && !managed_ && !nodes_.contains(name)) install(name, std::move(started));
    }
    auto found = nodes_.find(name);
    if (found == nodes_.end()) return nullptr;
    return std::make_shared<Proxy>(found->second);
  }

  void add(const std::string& name, sp<IThermal> service) {
    std::shared_ptr<Node> replaced;  // released outside the lock
    std::lock_guard lock(mutex_);
    managed_ = true;
    if (auto found = nodes_.find(name); found != nodes_.end()) replaced = found->second;
    install(name, std::move(service));
  }

  // Kills the running instance `name`, if any, and starts `successor` in its place if given.
  void kill(const std::string& name, sp<IThermal> successor) {
    sp<IThermal> dying;  // released last, outside every lock: its destructor may join a thread
    std::lock_guard lock(mutex_);
    managed_ = true;
    auto found = nodes_.find(name);
    std::shared_ptr<Node> node;
    if (found != nodes_.end()) {
      node = std::move(found->second);
      nodes_.erase(found);
    }
    if (successor) install(name, std::move(successor));
    if (!node) return;
    std::vector<std::pair<wp<hidl_death_recipient>, std::uint64_t>> links;
    {
      std::lock_guard node_lock(node->mutex);
      dying = std::move(node->service);
      links = std::move(node->links);
      node->links.clear();
    }
    for (auto& [recipient, cookie] : links) {
      if (auto strong = recipient.lock()) pending_.emplace_back(std::move(strong), cookie);
    }
    if (!thread_.joinable()) thread_ = std::thread([this] { deliver(); });
    wake_.notify_all();
  }

  void await() {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return pending_.empty() && delivering_ == 0; });
  }

 private:
  void install(const std::string& name, sp<IThermal> service) {
    auto node = std::make_shared<Node>();
    node->service = std::move(service);
    nodes_[name] = std::move(node);
  }

  void deliver() {
    pthread_setname_np(pthread_self(), "hwbinder");
    std::unique_lock lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return stopping_ || !pending_.empty(); });
      if (pending_.empty()) return;
      auto [recipient, cookie] = std::move(pending_.front());
      pending_.pop_front();
      ++delivering_;
      lock.unlock();
      // The recipient may call getService, which takes the lock again.
      recipient->serviceDied(cookie, wp<IBase>());
      recipient.reset();
      lock.lock();
      --delivering_;
      if (pending_.empty() && delivering_ == 0) idle_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::map<std::string, std::shared_ptr<Node>> nodes_;
  // Once a test has placed or killed a service, the default one never starts by itself.
  bool managed_ = false;
  bool default_tried_ = false;
  bool stopping_ = false;
  std::deque<std::pair<sp<hidl_death_recipient>, std::uint64_t>> pending_;
  int delivering_ = 0;
  std::thread thread_;
};

}  // namespace

sp<IThermal> IThermal::getService(const std::string& name, bool getStub) {
  (void)getStub;
  return Registry::instance().get(name);
}

namespace registry {

void register_service(sp<IThermal> service, const std::string& name) {
  Registry::instance().add(name, std::move(service));
}

void kill_service(const std::string& name) {
  Registry::instance().kill(name, nullptr);
}

void replace_service(sp<IThermal> service, const std::string& name) {
  Registry::instance().kill(name, std::move(service));
}

void await_notifications() {
  Registry::instance().await();
}

}  // namespace registry
}  // namespace android::hardware::thermal::V2_0
