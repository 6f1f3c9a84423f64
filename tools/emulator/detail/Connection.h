#pragma once

// Connections of the emulator. Each TCP connection lives on one strand; everything that touches
// it from elsewhere is posted there. A connection starts as HTTP (after the TLS handshake, with
// TLS) and, on a WebSocket upgrade, hands its stream to a WebSocket connection:
//
//   HTTP:      handshake (TLS) --> read request --+--> answer --> read request ... --> closed
//                                                 +--> upgrade --> WebSocket connection
//   WebSocket: accept --> open --+-- client's close frame ---------------> closed (client)
//                                +-- close(code): queued after the frames --> closed (server)
//                                +-- drop(): reset/FIN at once, queue discarded --> closed
//                                (dropped)
//                                +-- no valid AUTH within authTimeout: close(4408) ---> closed
//                                (server)
//                                +-- read or write fails -------------------> closed (network)

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>

#include "emulator/Emulator.h"

#include "emulator/Frames.h"
#include "emulator/Observation.h"
#include "emulator/ResourceRouter.h"
#include "emulator/detail/Responder.h"

namespace kel::emulator::detail {

using Strand = boost::asio::strand<boost::asio::io_context::executor_type>;

class Server;

/// Any TCP connection, so that stopping can reach them all.
class Connection {
 public:
  Connection(Server& server, Strand strand);
  virtual ~Connection();

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Strand only, or once the network threads are gone: ends the connection politely (a
  /// WebSocket gets close frame 1001).
  virtual void shutdown() = 0;
  /// Same threads: resets the TCP connection at once.
  virtual void abort() = 0;

  const Strand& strand() const noexcept { return strand_; }
  std::uint64_t key() const noexcept { return key_; }

 protected:
  Server& server_;
  Strand strand_;

 private:
  friend class Server;  // sets key_ when it starts tracking the connection
  std::uint64_t key_;
};

/// Serves an accepted TCP connection: TLS handshake when the server has TLS, then HTTP.
void serveConnection(Server& server, Strand strand, boost::asio::ip::tcp::socket socket);

/// What waits in a WebSocket's write queue.
struct Outgoing {
  enum class Type { text, binary, close };
  Type type = Type::text;
  std::shared_ptr<const std::string> data;
  std::uint16_t code = 0;
  std::string reason;
};

/// The protocol half of a WebSocket connection (frames, authentication, requests, write queue);
/// the stream half is WebSocketSession<Stream> in Connection.cpp.
class WebSocketConnection : public Connection,
                            public ReplySink,
                            public std::enable_shared_from_this<WebSocketConnection> {
 public:
  WebSocketConnection(Server& server, Strand strand, SocketId id);

  SocketId id() const noexcept { return id_; }

  // Any thread.
  void send(std::shared_ptr<const std::string> data, bool binary);
  void close(std::uint16_t code, std::string reason);
  void drop(DropMode mode = DropMode::reset);
  /// Reads nothing more once the read under way completes.
  void deafen();
  void deliver(std::int64_t requestId, Reply reply, std::chrono::milliseconds delay) override;

  void shutdown() override;
  void abort() override;

 protected:
  // Strand only, called by the stream half.
  void onText(std::string_view frame);
  void onBinary(std::string_view frame);
  void onPong();
  void onPing();
  /// Starts the time allowed for authentication.
  void startAuthTimer();
  void onWritten(bool ok, std::string_view error);
  /// `clean`: the closing handshake completed.
  void onFinished(ClosedBy closedBy, std::optional<std::uint16_t> code, std::string reason,
                  bool clean = false);
  bool isFinished() const noexcept { return finished_; }
  bool isDeaf() const noexcept { return deaf_; }

  virtual void startWrite(const Outgoing& frame) = 0;
  virtual void startClose(std::uint16_t code, const std::string& reason) = 0;
  virtual void resetStream(DropMode mode) = 0;

  const SocketId id_;
  const std::string kapiId_;

 private:
  template <class F>
  void onStrand(F&& work);

  void enqueue(Outgoing frame);
  void pump();
  void handleAuth(std::string_view frame);
  void handleRequest(RequestFrame request);
  void sendResponse(std::int64_t requestId, const Reply& reply);
  void dropNow(DropMode mode);

  // All on the strand.
  std::deque<Outgoing> queue_;
  bool writing_ = false;
  bool closing_ = false;   // a close frame is queued or on its way; nothing more goes out
  bool finished_ = false;  // the connection has ended and been reported
  bool authenticated_ = false;
  bool deaf_ = false;
  std::optional<boost::asio::steady_timer> authTimer_;
  std::string sessionToken_;
  std::string userId_;
  std::string sessionId_;
};

}  // namespace kel::emulator::detail
