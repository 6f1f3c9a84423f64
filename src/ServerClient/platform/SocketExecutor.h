#pragma once

#include <boost/asio/any_io_executor.hpp>

namespace kel::platform {

/// Implemented beside Socket by a socket that writes its frames and makes its delegate calls on
/// one thread of its own. Work posted to that thread's executor runs in order, one item at a
/// time, and a send() made there hands nothing over to another thread. The executor stays usable
/// for as long as the socket exists.
class SocketExecutor {
 public:
  virtual ~SocketExecutor() = default;
  /// The executor of the thread that makes the delegate calls. An implementation without such a
  /// thread may return an empty executor (check it before use).
  virtual boost::asio::any_io_executor executor() = 0;

 protected:
  /// For implementations.
  SocketExecutor() = default;
  /// For implementations.
  SocketExecutor(const SocketExecutor&) = default;
  /// For implementations.
  SocketExecutor& operator=(const SocketExecutor&) = default;
};

}  // namespace kel::platform
