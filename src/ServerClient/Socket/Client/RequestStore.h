#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ServerClient/Socket/Model/Resource.h"
#include "ServerClient/rx/Observer.h"

namespace kel {

/// The pending requests of one socket: the observer of each request's Resource stream, under
/// the request's key.
///
/// Every operation runs as one critical section of the store's serial queue "RequestStore". That
/// queue never runs anything but these short, synchronous sections, so it is a mutex rather than
/// a strand: waiting synchronously for a strand from work on the shared two-thread pool (the
/// socket queue registers, the facade's queue stops) can leave no thread to run the strand, and
/// would cost two thread switches on every registration and response.
///
/// Observers are never called while the queue is held: a response is delivered after its
/// observer was taken out, and completeObservers() takes them all out first. So an observer may
/// send a new request, or dispose, from inside its callbacks.
///
/// A key is pending at most once: a registration under a key already present is refused, for the
/// later request would otherwise take the earlier one's response. Each registration gets a
/// number, so that the owner of a registration that ended cannot remove a later one under the
/// same key.
template <class Key>
class RequestStore {
 public:
  /// Receives the request's Resource, then completion, or its failure.
  using Observer = rx::Observer<Resource>;
  /// The number of one registration, unique for the store's life.
  using Registration = std::uint64_t;

  /// An empty store; `label` names its queue in logs.
  explicit RequestStore(std::string label = "RequestStore") : label_(std::move(label)) {}
  RequestStore(const RequestStore&) = delete;
  RequestStore& operator=(const RequestStore&) = delete;

  /// The queue's name.
  const std::string& label() const noexcept { return label_; }

  /// Registers `observer` under `key` and returns the registration's number; nothing when `key`
  /// is pending already (and `observer` is left as it was).
  std::optional<Registration> registerRequest(const Key& key, Observer& observer) {
    std::lock_guard lock(queue_);
    auto [entry, inserted] = requestStore_.try_emplace(key);
    if (!inserted) return std::nullopt;
    entry->second = Entry{std::move(observer), ++registrations_};
    return entry->second.registration;
  }
  /// The same for a temporary observer.
  std::optional<Registration> registerRequest(const Key& key, Observer&& observer) {
    return registerRequest(key, observer);
  }

  /// Takes out the observer registered under `key`, if any.
  std::optional<Observer> removeRequest(const Key& key) {
    std::lock_guard lock(queue_);
    auto node = requestStore_.extract(key);
    if (node.empty()) return std::nullopt;
    return std::move(node.mapped().observer);
  }

  /// Takes out the observer under `key` only if it is still the one of `registration`.
  std::optional<Observer> removeRequest(const Key& key, Registration registration) {
    std::lock_guard lock(queue_);
    auto found = requestStore_.find(key);
    if (found == requestStore_.end() || found->second.registration != registration) {
      return std::nullopt;
    }
    auto observer = std::move(found->second.observer);
    requestStore_.erase(found);
    return observer;
  }

  /// Empties the store and completes every observer that was in it, without an element.
  void completeObservers() {
    Map pending;
    {
      std::lock_guard lock(queue_);
      pending.swap(requestStore_);
    }
    for (auto& [key, entry] : pending) entry.observer.onCompleted();
  }

  /// Whether a request is pending under `key`.
  bool contains(const Key& key) const {
    std::lock_guard lock(queue_);
    return requestStore_.contains(key);
  }

  /// Whether `registration` is still the one under `key`.
  bool contains(const Key& key, Registration registration) const {
    std::lock_guard lock(queue_);
    auto found = requestStore_.find(key);
    return found != requestStore_.end() && found->second.registration == registration;
  }

  /// The keys of the pending requests, in no particular order.
  std::vector<Key> all() const {
    std::lock_guard lock(queue_);
    std::vector<Key> keys;
    keys.reserve(requestStore_.size());
    for (const auto& entry : requestStore_) keys.push_back(entry.first);
    return keys;
  }

  /// How many requests are pending.
  std::size_t count() const {
    std::lock_guard lock(queue_);
    return requestStore_.size();
  }

 private:
  struct Entry {
    Observer observer;
    Registration registration = 0;
  };
  using Map = std::unordered_map<Key, Entry>;

  const std::string label_;
  mutable std::mutex queue_;  // the "RequestStore" queue: guards requestStore_, registrations_
  Map requestStore_;
  Registration registrations_ = 0;
};

}  // namespace kel
