#include "ServerClient/platform/detail/NetworkThread.h"

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#if defined(__linux__)
#include <pthread.h>
#endif

#include "ServerClient/Log/ServerLog.h"
#include "ServerClient/rx/DispatchQueue.h"

namespace kel::platform::detail {

namespace {

// Set once the registry is gone: an adapter destroyed later still in exit (a static of the
// application's) finds its thread already joined.
std::atomic<bool> registryGone{false};

class Registry {
 public:
  static Registry& shared() {
    static Registry registry;
    return registry;
  }

  // The pool is made first so that it is destroyed after the registry has joined every thread.
  Registry() { static_cast<void>(rx::sharedThreadPool()); }

  ~Registry() {
    std::map<std::uint64_t, Entry> running;
    {
      std::lock_guard lock(mutex_);
      running.swap(threads_);
    }
    for (auto& [id, entry] : running) entry.stop();
    for (auto& [id, entry] : running) {
      if (entry.thread.joinable() && entry.thread.get_id() != std::this_thread::get_id()) {
        entry.thread.join();
        entry.abandon();
      }
    }
    registryGone = true;
  }

  std::uint64_t start(const char* name, NetworkContext& context, std::shared_ptr<void> owner) {
    joinOrphans();
    std::lock_guard lock(mutex_);
    const auto id = ++lastId_;
    auto& entry = threads_[id];
    entry.stop = [&context, owner] { context.stop(); };
    entry.abandon = [&context, owner] { context.abandon(); };
    entry.thread = std::thread([name = std::string(name), &context, owner = std::move(owner)] {
#if defined(__linux__)
      pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
#endif
      for (;;) {
        try {
          context.run();
          return;
        } catch (const std::exception& e) {
          KEL_LOG_ERROR("run()", name + ": " + e.what());
        }
      }
    });
    return id;
  }

  void finish(std::uint64_t id) {
    std::thread thread;
    {
      std::lock_guard lock(mutex_);
      auto it = threads_.find(id);
      if (it == threads_.end()) return;  // taken by exit, which joins it
      if (it->second.thread.get_id() == std::this_thread::get_id()) {
        it->second.orphaned = true;
        return;
      }
      thread = std::move(it->second.thread);
      threads_.erase(it);
    }
    thread.join();
    joinOrphans();
  }

 private:
  struct Entry {
    std::thread thread;
    std::function<void()> stop;
    std::function<void()> abandon;  // once the thread is joined
    bool orphaned = false;
  };

  /// Joins the threads whose adapters were destroyed on them; each ends right after the callback
  /// that did it returns.
  void joinOrphans() {
    std::vector<std::thread> orphans;
    {
      std::lock_guard lock(mutex_);
      for (auto it = threads_.begin(); it != threads_.end();) {
        if (it->second.orphaned && it->second.thread.get_id() != std::this_thread::get_id()) {
          orphans.push_back(std::move(it->second.thread));
          it = threads_.erase(it);
        } else {
          ++it;
        }
      }
    }
    for (auto& orphan : orphans) orphan.join();
  }

  std::mutex mutex_;  // guards threads_ and lastId_
  std::map<std::uint64_t, Entry> threads_;
  std::uint64_t lastId_ = 0;
};

}  // namespace

NetworkThread::NetworkThread(const char* name, NetworkContext& context, std::shared_ptr<void> owner)
    : id_(Registry::shared().start(name, context, std::move(owner))) {}

NetworkThread::~NetworkThread() {
  if (!registryGone) Registry::shared().finish(id_);
}

}  // namespace kel::platform::detail
