#pragma once

/// @file
/// A client WebSocket to one URL, as the socket layer uses it.
///
/// Lifecycle of a socket (one connection at a time; a closed socket may connect again):
///
/// ```
///   closed --connect()--> opening --upgrade succeeds--> open --+
///     ^                      |                                 |  peer closes, network lost,
///     |                      +-- upgrade fails ----------------+  or disconnect(code)
///     +---------------------- socketDidDisconnect(code) <------+
/// ```
///
/// Every implementation guarantees:
///
/// <b>Threads and order</b>
/// - Delegate calls are serialised: no two run at the same time, and they come in the order in
///   which the socket observed the events.
/// - They arrive on a thread of the implementation's choosing: the real socket calls from its
///   network thread; the in-memory twin calls from the thread that drives it, which may be the
///   thread calling connect() or disconnect(). Callers must therefore not hold, while calling
///   connect() or disconnect(), a lock that their delegate takes.
/// - The implementation holds none of its own locks while it calls the delegate, so a delegate
///   may call any member of the socket from inside a callback. A callback caused by such a call
///   (for instance the socketDidDisconnect that follows a disconnect() made inside
///   socketDidConnect) is made after the current callback has returned, never nested in it.
/// - The socket holds its delegate weakly (the delegate usually owns the socket); a call that is
///   due when the delegate is gone is dropped. setDelegate() affects calls not yet begun.
/// - Every member function is safe to call from any thread.
///
/// <b>Connecting</b>
/// - connect() starts a connection with the current upgrade request() and returns at once. Its
///   outcome is reported: socketDidConnect when the upgrade succeeds, otherwise
///   socketDidDisconnect (abnormalClosure, or tlsHandshakeFailure), possibly preceded by
///   socketDidReceiveError with the cause. connect() while a connection is opening, open or
///   closing does nothing. No time-out of its own is promised: callers that wait bound the wait
///   themselves.
/// - isConnected() is true from just before socketDidConnect is made until just before the
///   matching socketDidDisconnect is made, and false once disconnect() has been called.
///
/// <b>Closing</b>
/// - A connection that ends without disconnect() (the peer closes, the network is lost, a read or
///   write fails) reports exactly one socketDidDisconnect, with the peer's code, or with
///   noStatusReceived when its close frame had none, or abnormalClosure when the connection ended
///   without a close frame.
/// - After disconnect(code), exactly one socketDidDisconnect(code) follows, carrying the code given
///   (not the peer's answer), also when the network fails during the closing handshake, and also
///   when no connection was open (then at once). The close frame carries the code when
///   canBeSent(code), otherwise normalClosure. Once disconnect() has been called, that connection
///   makes no other delegate call; a second disconnect() before the report adds nothing.
///
/// <b>Sending</b>
/// - send() and sendPong() write in the order of the calls. On a socket that is not open they do
///   nothing: frames are never queued for a later connection. A failed write is reported with
///   socketDidReceiveError and ends the connection.

#include <memory>
#include <string>

#include <boost/url/url.hpp>

#include "ServerClient/platform/SocketCloseCode.h"
#include "ServerClient/platform/UpgradeRequest.h"
#include "ServerClient/platform/WebSocketConnectionDelegate.h"

namespace kel::platform {

/// A client WebSocket to one URL, as the socket layer uses it: the interface that
/// WebSocketTaskConnectionWrapper (the real one) and InMemorySocket (for tests) implement.
///
/// The outcome of every call arrives through the WebSocketConnectionDelegate, serialised, on a
/// thread of the implementation's choosing; every member may be called from any thread,
/// including from inside a delegate call. Socket.h states the full contract: threads and order,
/// connecting, closing and sending.
class Socket {
 public:
  virtual ~Socket() = default;

  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  /// The WebSocket URL; fixed for the socket's lifetime.
  virtual const boost::urls::url& url() const noexcept = 0;
  /// Whether a connection is open (see the top of this header).
  virtual bool isConnected() const = 0;

  /// A copy of the upgrade request that the next connect() uses.
  virtual UpgradeRequest request() const = 0;
  /// Replaces the upgrade request for the next connect(); an open connection is not affected.
  virtual void setRequest(UpgradeRequest request) = 0;

  /// Who hears about the connection; held weakly.
  virtual void setDelegate(std::weak_ptr<WebSocketConnectionDelegate> delegate) = 0;

  /// Starts a connection; the outcome arrives through the delegate. Does nothing while a
  /// connection is opening, open or closing.
  virtual void connect() = 0;
  /// Closes the connection; exactly one socketDidDisconnect(closeCode) follows.
  virtual void disconnect(SocketCloseCode closeCode) = 0;
  /// Writes a text frame. `text` must be valid UTF-8. Dropped unless a connection is open.
  virtual void send(std::string text) = 0;
  /// Tells the server that the client is alive: a WebSocket pong frame. Dropped unless a
  /// connection is open.
  virtual void sendPong() = 0;

 protected:
  Socket() = default;
};

}  // namespace kel::platform
