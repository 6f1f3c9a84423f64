#pragma once

// A deliberately plain WebSocket and HTTP client for driving the emulator in tests: every call
// blocks with a bound, on the test's own thread, and reports what happened on the wire (frames,
// close codes, resets) instead of interpreting it.

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/system/error_code.hpp>
#include <nlohmann/json.hpp>

namespace kel::emulator::test {

using namespace std::chrono_literals;

inline constexpr std::chrono::milliseconds kWait = 10s;

struct ClientOptions {
  /// Sent as Sec-WebSocket-Protocol when not empty.
  std::string subprotocol = "websocket";
  /// Sent as the Cookie header when not empty.
  std::string cookie{};
  /// TLS: trust this CA (PEM) and verify the server's name against `serverName`.
  std::optional<std::string> caPem{};
  std::string serverName = "localhost";
};

struct Frame {
  std::string data;
  bool binary = false;
};

/// The outcome of one read: a frame, or how the connection ended.
struct ReadResult {
  std::optional<Frame> frame;
  /// The close frame's code when the server closed the WebSocket.
  std::optional<std::uint16_t> closeCode;
  boost::system::error_code error;
  bool timedOut = false;
};

class TestWebSocketClient {
 public:
  /// Connects to `url` (ws:// or wss://) and completes the upgrade; throws std::runtime_error
  /// with the reason when either fails within kWait.
  static std::unique_ptr<TestWebSocketClient> connect(std::string_view url,
                                                      ClientOptions options = {});
  /// Like connect(), but reports the failure instead of throwing.
  static boost::system::error_code tryConnect(std::string_view url, ClientOptions options = {});

  ~TestWebSocketClient();

  /// The sub-protocol the server accepted (empty when none).
  const std::string& acceptedSubprotocol() const;

  void sendText(std::string_view text);
  void sendBinary(std::string_view bytes);
  /// A WebSocket pong control frame, as a client answers the server's liveness checks.
  void sendPong();
  /// Closing handshake with `code`; waits for the server's answer.
  void close(std::uint16_t code);

  ReadResult read(std::chrono::milliseconds timeout = kWait);
  /// The next frame that is not a ping ("0"); throws std::runtime_error when the connection ends
  /// or nothing comes within the time-out.
  Frame nextFrame(std::chrono::milliseconds timeout = kWait);
  /// Sends "AUTH " + token and returns the server's answer frame.
  Frame authenticate(std::string_view token);
  /// Sends the request and returns its id.
  std::int64_t sendRequest(std::string_view method, std::string_view path,
                           const nlohmann::json& body = nlohmann::json::object());
  /// Reads until the response to `id` arrives, skipping pings and keeping other frames for
  /// later reads; returns the response object (without the "3").
  nlohmann::json awaitResponse(std::int64_t id, std::chrono::milliseconds timeout = kWait);
  /// sendRequest + awaitResponse.
  nlohmann::json request(std::string_view method, std::string_view path,
                         const nlohmann::json& body = nlohmann::json::object());

 private:
  struct Impl;
  explicit TestWebSocketClient(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

struct HttpResult {
  int status = 0;
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
};

/// One HTTP/1.1 request to `baseUrl` (http:// or https://, with `caPem` for the latter); throws
/// std::runtime_error when it fails within kWait.
HttpResult httpRequest(std::string_view baseUrl, std::string_view method, std::string_view target,
                       std::string body = {}, const std::optional<std::string>& caPem = {});

/// The response object of a "3" frame; throws when the frame is not one.
nlohmann::json responseObject(const Frame& frame);

}  // namespace kel::emulator::test
