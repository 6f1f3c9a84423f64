#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "emulator/PathPattern.h"
#include "emulator/detail/Text.h"

namespace kel::emulator::detail {

/// Routes of one router, copy-on-write: a lookup takes a snapshot under the mutex and works on it
/// without any lock, so handlers may change the routes while requests are in flight.
template <class Handler>
class RouteTable {
 public:
  struct Route {
    std::string method;  // upper case, or "*"
    PathPattern pattern;
    Handler handler;
  };
  using Routes = std::vector<Route>;

  struct Found {
    std::shared_ptr<const Routes> routes;  // keeps `route` alive
    const Route* route;
    PathPattern::Match match;
  };
  enum class Miss { notFound, methodNotAllowed };

  RouteTable() : routes_(std::make_shared<const Routes>()) {}

  void add(std::string_view method, std::string_view pattern, Handler handler) {
    Route route{upperCase(method), PathPattern(pattern), std::move(handler)};
    std::lock_guard lock(mutex_);
    auto routes = std::make_shared<Routes>(*routes_);
    bool replaced = false;
    for (auto& existing : *routes) {
      if (existing.method == route.method && existing.pattern.text() == route.pattern.text()) {
        existing = std::move(route);
        replaced = true;
        break;
      }
    }
    if (!replaced) routes->push_back(std::move(route));
    routes_ = std::move(routes);
  }

  bool remove(std::string_view method, std::string_view pattern) {
    const auto upper = upperCase(method);
    std::lock_guard lock(mutex_);
    auto routes = std::make_shared<Routes>(*routes_);
    auto removed = std::erase_if(*routes, [&](const Route& route) {
      return route.method == upper && route.pattern.text() == pattern;
    });
    if (removed == 0) return false;
    routes_ = std::move(routes);
    return true;
  }

  /// The most specific route for the method and path; `method` is upper case.
  std::variant<Found, Miss> find(std::string_view method,
                                 const std::vector<std::string>& segments) const {
    std::shared_ptr<const Routes> routes;
    {
      std::lock_guard lock(mutex_);
      routes = routes_;
    }
    const Route* best = nullptr;
    PathPattern::Match bestMatch;
    bool pathKnown = false;
    for (const auto& route : *routes) {
      auto match = route.pattern.match(segments);
      if (!match) continue;
      pathKnown = true;
      if (route.method != "*" && route.method != method) continue;
      if (best == nullptr || route.pattern.compareSpecificity(best->pattern) > 0) {
        best = &route;
        bestMatch = std::move(*match);
      }
    }
    if (best == nullptr) return pathKnown ? Miss::methodNotAllowed : Miss::notFound;
    return Found{std::move(routes), best, std::move(bestMatch)};
  }

 private:
  mutable std::mutex mutex_;  // guards routes_ (the pointer; published tables never change)
  std::shared_ptr<const Routes> routes_;
};

}  // namespace kel::emulator::detail
