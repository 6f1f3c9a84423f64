#include "support/FakeSocketClient.h"

#include <gtest/gtest.h>

#include <utility>

#include "ServerClient/Common/SDKError.h"
#include "ServerClient/rx/Disposable.h"
#include "ServerClient/rx/Observable.h"

namespace kel::testing {

nlohmann::json FakeSocketClient::lastRequest() const {
  auto all = requests();
  if (!all.empty()) return all.back();
  ADD_FAILURE() << "no request was sent";
  return nullptr;
}

bool FakeSocketClient::answer(std::int64_t id, const Reply& reply) {
  rx::Observer<Resource> observer;
  {
    std::lock_guard lock(mutex_);
    const auto it = pending_.find(id);
    if (it == pending_.end()) return false;
    observer = std::move(it->second);
    pending_.erase(it);
  }
  deliver(observer, id, reply);
  return true;
}

void FakeSocketClient::deliver(const rx::Observer<Resource>& observer, std::int64_t id,
                               const Reply& reply) {
  if (reply.error) return observer.onError(reply.error);
  // As the real client reads a response: a scalar body yields empty data.
  if (reply.body) observer.onNext(Resource::fromResponse(id, {{"body", *reply.body}}));
  observer.onCompleted();
}

void FakeSocketClient::stop(platform::SocketCloseCode) {
  std::map<std::int64_t, rx::Observer<Resource>> pending;
  {
    std::lock_guard lock(mutex_);
    pending.swap(pending_);
  }
  for (const auto& [id, observer] : pending) observer.onCompleted();
}

rx::Observable<Resource> FakeSocketClient::send(AnyRequest request) {
  std::weak_ptr<FakeSocketClient> weak = weak_from_this();
  auto responses =
      rx::Observable<Resource>::create([weak, request](rx::Observer<Resource> observer) {
        auto self = weak.lock();
        if (!self) {
          observer.onCompleted();
          return rx::Disposable();
        }
        const auto id = request.requestID();
        std::optional<Reply> reply;
        {
          std::lock_guard lock(self->mutex_);
          self->requests_.push_back(request.toDictionary());
          if (self->replies_.empty()) {
            self->pending_[id] = observer;
          } else {
            reply = std::move(self->replies_.front());
            self->replies_.pop_front();
          }
        }
        if (reply) {
          deliver(observer, id, *reply);
          return rx::Disposable();
        }
        return rx::Disposable::create([weak, id] {
          if (auto owner = weak.lock()) {
            std::lock_guard lock(owner->mutex_);
            owner->pending_.erase(id);
          }
        });
      });
  std::lock_guard lock(mutex_);
  if (!timeoutScheduler_) return responses;
  return responses.timeout(
      request.timeout(),
      rx::Observable<Resource>::error(makeError(ConnectionError(ConnectionErrorType::timeout, -1))),
      timeoutScheduler_);
}

}  // namespace kel::testing
