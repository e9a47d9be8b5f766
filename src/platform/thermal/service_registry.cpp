#include "platform/thermal/service_registry.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
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
    std::lock_guard lock(mutex_);
    if (name == "default" && !managed_ && !nodes_.contains(name)) start_default();
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
    if (node) dying = end_process(*node);
  }

  void serve_default(std::string root, std::chrono::milliseconds poll_period) {
    std::lock_guard lock(mutex_);
    managed_ = false;
    default_root_ = std::move(root);
    default_period_ = poll_period;
  }

  void await() {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return jobs_.empty() && running_ == 0; });
  }

 private:
  void install(const std::string& name, sp<IThermal> service) {
    auto node = std::make_shared<Node>();
    node->service = std::move(service);
    nodes_[name] = std::move(node);
  }

  // With mutex_ held, so that the service's exit, which needs the lock, finds it installed.
  void start_default() {
    if (!implementation::DefaultThermal::available(default_root_)) return;
    auto node = std::make_shared<Node>();
    // The exit comes on the service's poll thread, which its destructor joins: the death is
    // handled on the registry's thread instead.
    auto on_exit = [this, weak = std::weak_ptr<Node>(node)] {
      std::lock_guard lock(mutex_);
      post([this, weak] { exited(weak.lock()); });
    };
    node->service =
        std::make_shared<implementation::DefaultThermal>(default_root_, default_period_, on_exit);
    nodes_["default"] = std::move(node);
  }

  // The default service's process ended by itself, unless a test's took its place already.
  void exited(const std::shared_ptr<Node>& node) {
    sp<IThermal> dying;  // released outside the lock: its destructor joins the poll thread
    std::lock_guard lock(mutex_);
    auto found = nodes_.find("default");
    if (!node || found == nodes_.end() || found->second != node) return;
    nodes_.erase(found);
    dying = end_process(*node);
  }

  // Calls through handles to `node` fail from now on, and its linked recipients are told on the
  // registry's thread. With mutex_ held; returns the service, to be released outside it.
  sp<IThermal> end_process(Node& node) {
    sp<IThermal> dying;
    std::vector<std::pair<wp<hidl_death_recipient>, std::uint64_t>> links;
    {
      std::lock_guard node_lock(node.mutex);
      dying = std::move(node.service);
      links = std::move(node.links);
      node.links.clear();
    }
    for (auto& link : links) {
      if (auto strong = link.first.lock()) {
        post([strong, cookie = link.second] { strong->serviceDied(cookie, wp<IBase>()); });
      }
    }
    return dying;
  }

  // Runs `job` on the registry's thread. With mutex_ held.
  void post(std::function<void()> job) {
    if (stopping_) return;  // the process is ending
    jobs_.push_back(std::move(job));
    if (!thread_.joinable()) thread_ = std::thread([this] { deliver(); });
    wake_.notify_all();
  }

  void deliver() {
    pthread_setname_np(pthread_self(), "hwbinder");
    std::unique_lock lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
      if (jobs_.empty()) return;
      auto job = std::move(jobs_.front());
      jobs_.pop_front();
      ++running_;
      lock.unlock();
      // A recipient may call getService, which takes the lock again.
      job();
      job = nullptr;
      lock.lock();
      --running_;
      if (jobs_.empty() && running_ == 0) idle_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::map<std::string, std::shared_ptr<Node>> nodes_;
  // Once a test has placed or killed a service, the default one starts by itself only after
  // serve_default.
  bool managed_ = false;
  std::string default_root_ = implementation::DefaultThermal::kThermalClass;
  std::chrono::milliseconds default_period_ = std::chrono::seconds(1);
  bool stopping_ = false;
  std::deque<std::function<void()>> jobs_;
  int running_ = 0;
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

void serve_default(std::string root, std::chrono::milliseconds poll_period) {
  Registry::instance().serve_default(std::move(root), poll_period);
}

void await_notifications() {
  Registry::instance().await();
}

}  // namespace registry
}  // namespace android::hardware::thermal::V2_0
