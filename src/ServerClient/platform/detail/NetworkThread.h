#pragma once

#include <cstdint>
#include <memory>

#include <boost/asio/io_context.hpp>

namespace kel::platform::detail {

/// The io_context of a network thread. At exit, once its thread is joined, the registry abandons
/// what it still holds: the handlers of operations still pending (the read of a connection left
/// open) are destroyed without being called, as the context's destructor would. They are often
/// all that keeps the connection, and through it the context itself, alive.
class NetworkContext : public boost::asio::io_context {
 public:
  using boost::asio::io_context::io_context;

  /// Destroys every pending handler; the context must not run again. Only its destructor, later,
  /// releases the services.
  void abandon() { shutdown(); }
};

/// The network thread of an adapter (WebSocket, HTTP): it runs one io_context until that runs
/// out of work or is stopped, logging what a handler throws and going on.
///
/// Every such thread belongs to one process-wide registry rather than to its adapter, because an
/// adapter is often destroyed on its own thread, from one of its callbacks (the last reference to
/// a session dropped there), and a thread cannot join itself. The registry joins those threads as
/// soon as another network thread starts or ends, and at exit it stops and joins every thread
/// still running before the shared queue pool, the logger and OpenSSL go away: a thread may be in
/// the middle of tearing down a session's objects, which use all three.
class NetworkThread {
 public:
  /// Starts the thread, named `name` (at most 15 characters show). `owner` keeps `context` alive
  /// for as long as the thread runs.
  NetworkThread(const char* name, NetworkContext& context, std::shared_ptr<void> owner);
  /// Joins the thread, which must be about to end (its context stopped or out of work); on the
  /// thread itself, leaves it to the registry.
  ~NetworkThread();

  NetworkThread(const NetworkThread&) = delete;
  NetworkThread& operator=(const NetworkThread&) = delete;

 private:
  std::uint64_t id_;
};

}  // namespace kel::platform::detail
