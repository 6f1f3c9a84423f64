#include "emulator/ResourceRouter.h"

#include <exception>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <variant>

#include "emulator/detail/Responder.h"
#include "emulator/detail/Text.h"

namespace kel::emulator {

std::optional<std::string> ResourceRequest::param(std::string_view name) const {
  auto it = params.find(name);
  if (it == params.end()) return std::nullopt;
  return it->second;
}

Reply Reply::ok(nlohmann::json body) {
  return Reply{200, std::move(body), std::nullopt};
}

Reply Reply::withStatus(int status, nlohmann::json body) {
  return Reply{status, std::move(body), std::nullopt};
}

Reply Reply::errorCode(std::int64_t code, nlohmann::json body) {
  return Reply{200, std::move(body), code};
}

Reply Reply::message(int status, std::string_view message) {
  return Reply{status, nlohmann::json{{"message", message}}, std::nullopt};
}

Responder::Responder(std::shared_ptr<detail::ResponderState> state) noexcept
    : state_(std::move(state)) {}

namespace {

class CallbackSink final : public detail::ReplySink {
 public:
  explicit CallbackSink(std::function<void(Reply)> onReply) : onReply_(std::move(onReply)) {}
  void deliver(std::int64_t, Reply reply, std::chrono::milliseconds) override {
    if (onReply_) onReply_(std::move(reply));
  }

 private:
  std::function<void(Reply)> onReply_;
};

}  // namespace

Responder Responder::capturing(std::int64_t requestId, std::function<void(Reply)> onReply) {
  auto state = std::make_shared<detail::ResponderState>();
  state->requestId = requestId;
  state->ownedSink = std::make_shared<CallbackSink>(std::move(onReply));
  state->sink = state->ownedSink;
  state->lifetime = std::make_shared<detail::Lifetime>();
  return Responder(std::move(state));
}

bool Responder::respond(Reply reply) const {
  if (!state_ || state_->answered.exchange(true, std::memory_order_acq_rel)) return false;
  if (state_->withhold) return true;
  std::shared_lock lock(state_->lifetime->mutex);
  if (!state_->lifetime->alive) return true;
  // The strong reference ends inside the lock: the connection must never be destroyed after the
  // emulator's io_context is gone.
  if (auto sink = state_->sink.lock()) {
    sink->deliver(state_->requestId, std::move(reply), state_->delay);
  }
  return true;
}

bool Responder::answered() const noexcept {
  return state_ && state_->answered.load(std::memory_order_acquire);
}

std::int64_t Responder::requestId() const noexcept {
  return state_ ? state_->requestId : 0;
}

SocketId Responder::socket() const noexcept {
  return state_ ? state_->socket : 0;
}

AsyncResourceHandler echoHandler() {
  return [](ResourceRequest request, Responder responder) {
    responder.respond(Reply::ok(std::move(request.body)));
  };
}

void ResourceRouter::route(std::string_view method, std::string_view pattern,
                           ResourceHandler handler) {
  if (!handler) throw std::invalid_argument("a route needs a handler");
  routes_.add(method, pattern,
              [handler = std::move(handler)](ResourceRequest request, Responder responder) {
                responder.respond(handler(request));
              });
}

void ResourceRouter::routeAsync(std::string_view method, std::string_view pattern,
                                AsyncResourceHandler handler) {
  if (!handler) throw std::invalid_argument("a route needs a handler");
  routes_.add(method, pattern, std::move(handler));
}

bool ResourceRouter::remove(std::string_view method, std::string_view pattern) {
  return routes_.remove(method, pattern);
}

void ResourceRouter::dispatch(ResourceRequest request, Responder responder) const {
  // A relative path ("capabilities") is resolved against the root, as a server resolves a
  // relative reference.
  auto target = parseTarget(
      !request.path.empty() && !request.path.starts_with('/') ? "/" + request.path : request.path);
  if (!target) {
    responder.respond(Reply::message(400, "not a valid path: " + request.path));
    return;
  }
  request.target = std::move(*target);
  request.method = detail::upperCase(request.method);

  auto found = routes_.find(request.method, request.target.segments);
  if (auto* miss = std::get_if<detail::RouteTable<AsyncResourceHandler>::Miss>(&found)) {
    if (*miss == detail::RouteTable<AsyncResourceHandler>::Miss::methodNotAllowed) {
      responder.respond(
          Reply::message(405, request.method + " is not allowed on " + request.target.path));
    } else {
      responder.respond(Reply::message(404, "no resource at " + request.target.path));
    }
    return;
  }
  auto& route = std::get<detail::RouteTable<AsyncResourceHandler>::Found>(found);
  request.params = std::move(route.match.params);
  request.rest = std::move(route.match.rest);
  try {
    route.route->handler(std::move(request), responder);
  } catch (const std::exception& e) {
    responder.respond(Reply::message(500, std::string("handler failed: ") + e.what()));
  } catch (...) {
    responder.respond(Reply::message(500, "handler failed"));
  }
}

}  // namespace kel::emulator
