#pragma once

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <variant>

#include <boost/url/url.hpp>

#include "ServerClient/Client/CapabilityValidator.h"
#include "ServerClient/Client/ServiceDomain.h"
#include "ServerClient/Client/SocketService.h"
#include "ServerClient/Common/SDKError.h"

namespace kel {

/// Creates the service of each domain on first demand and hands out that same instance
/// afterwards. Creation is pluggable: each domain has a factory, the known ones registered at
/// construction (see defaultFactories), others added with registerFactory.
///
/// createService(domain, dependencies), in this order:
///   1. fileSharing, or dependencies other than socket: GenericError(underlying(), "Invalid
///      domain or dependencies: <domain> <dependencies>"), even when the domain is cached;
///   2. presence and conferenceLog only: without the capability, GenericError(notAllowed(
///      "presence" / "+call-history"), ""); asked at every demand, so a cached service becomes
///      unreachable as soon as the capability is gone;
///   3. a cached service is returned as is (the slot passed now is ignored);
///   4. otherwise the domain's factory builds the service with the slot and it is cached; a
///      domain without a factory, or a factory that yields null, fails with
///      GenericError(underlying(), "Service not found").
/// A failed demand leaves the cache as it was. Cached services live as long as the provider.
///
/// Thread safety: every member may be called from any thread (one mutex guards the factories
/// and the cache; factories run under it and must not call back into the provider).
class ServiceProvider {
 public:
  /// The domains services are asked for by.
  using Domain = ServiceDomain;
  /// Builds a domain's service on the socket client slot; may return null (then "Service not
  /// found").
  using Factory = std::function<std::shared_ptr<SocketService>(SocketClientSlot)>;

  /// What a service is built from. Only `socket` is accepted; the others are refused.
  class Dependencies {
   public:
    /// A plain HTTP base URL; no service is built from it.
    struct Rest {
      boost::urls::url serverUrl;  ///< the base URL
    };
    /// The socket client slot: what every service is built from.
    struct Socket {
      SocketClientSlot client;  ///< the facade's slot
    };
    /// A file transfer channel; no service is built from it.
    struct File {};

    /// A REST base URL (refused by createService).
    static Dependencies rest(boost::urls::url serverUrl) { return Dependencies(Rest{serverUrl}); }
    /// The socket client slot that the services send through.
    static Dependencies socket(SocketClientSlot client) { return Dependencies(Socket{client}); }
    /// A file channel (refused by createService).
    static Dependencies file() { return Dependencies(File{}); }

    /// The case held.
    const std::variant<Rest, Socket, File>& value() const noexcept { return value_; }
    /// The slot of `socket`; null for the other cases.
    const SocketClientSlot* socketClient() const noexcept {
      const auto* socket = std::get_if<Socket>(&value_);
      return socket ? &socket->client : nullptr;
    }

    /// "rest(serverUrl: https://...)", "socket(client: BehaviorRelay(value: SocketClient))" (or
    /// "value: nil" for an empty slot), "file".
    std::string description() const;

   private:
    explicit Dependencies(std::variant<Rest, Socket, File> value) : value_(std::move(value)) {}
    std::variant<Rest, Socket, File> value_;
  };

  /// The factories of the domains whose services this library builds itself.
  static std::map<Domain, Factory> defaultFactories();

  /// An empty cache with the default factories. `validator` is shared with the facade, which
  /// replaces its capabilities after each sign-in.
  explicit ServiceProvider(std::shared_ptr<const CapabilityValidator> validator);

  ServiceProvider(const ServiceProvider&) = delete;
  ServiceProvider& operator=(const ServiceProvider&) = delete;

  /// The validator asked at every demand of a capability-bound domain; never null.
  const std::shared_ptr<const CapabilityValidator>& validator() const noexcept {
    return validator_;
  }

  /// Sets (or replaces) how `domain`'s service is built. A service already cached stays.
  void registerFactory(Domain domain, Factory factory);

  /// The service of `domain` (see the class comment for the rules and errors). Throws
  /// GenericError.
  std::shared_ptr<SocketService> createService(Domain domain, const Dependencies& dependencies);

  /// createService converted to the domain's interface; throws GenericError(underlying(),
  /// "Service not found") when the service is not a T.
  template <class T>
  std::shared_ptr<T> service(Domain domain, const Dependencies& dependencies) {
    auto typed = std::dynamic_pointer_cast<T>(createService(domain, dependencies));
    if (!typed) throw serviceNotFound();
    return typed;
  }

  /// The cached service of `domain`, or null; never creates one.
  std::shared_ptr<SocketService> cachedService(Domain domain) const;

  /// GenericError(underlying(), "Service not found"): no factory, a null service, or a service
  /// of another type than asked for.
  static GenericError serviceNotFound();

 private:
  const std::shared_ptr<const CapabilityValidator> validator_;
  mutable std::mutex mutex_;  // guards factories_ and services_
  std::map<Domain, Factory> factories_;
  std::array<std::shared_ptr<SocketService>, kAllServiceDomains.size()> services_;
};

}  // namespace kel
