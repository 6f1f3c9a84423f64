#pragma once

// The emulator driven by the library's own WebSocket (WebSocketTaskConnectionWrapper), so that
// the emulator and the library are checked against each other on the wire.

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>

#include <boost/url/parse.hpp>
#include <nlohmann/json.hpp>

#include "ServerClient/platform/HTTPCookieStorage.h"
#include "ServerClient/platform/WebSocketTaskConnectionWrapper.h"
#include "emulator/Emulator.h"
#include "support/RecordingSocketDelegate.h"

namespace kel::emulator::test {

using namespace std::chrono_literals;
using kel::test::RecordingSocketDelegate;
using nlohmann::json;
using platform::SocketCloseCode;
inline constexpr std::chrono::milliseconds kWait = kel::test::kDefaultWait;

struct ClientOptions {
  std::vector<std::string> protocols{"websocket"};
  /// Sent as the Cookie header when not empty.
  std::string cookie{};
  /// TLS: trust this authority (PEM) and none of the system's.
  std::string caPem{};
};

/// One client socket and what it received.
class Client {
 public:
  explicit Client(const std::string& url, const ClientOptions& options = {}) {
    platform::WebSocketTaskConnectionWrapper::Options socketOptions;
    socketOptions.cookieStorage = std::make_shared<platform::HTTPCookieStorage>();
    socketOptions.useSystemTrustStore = options.caPem.empty();
    socketOptions.extraCertificateAuthoritiesPem = options.caPem;
    socket_ = std::make_shared<platform::WebSocketTaskConnectionWrapper>(
        boost::urls::parse_uri(url).value(), options.protocols, std::move(socketOptions));
    if (!options.cookie.empty()) {
      auto request = socket_->request();
      request.setHeaderField("Cookie", options.cookie);
      socket_->setRequest(request);
    }
    socket_->setDelegate(delegate_);
  }

  /// True once the upgrade succeeded; false when the attempt ended first.
  bool open() {
    using Kind = RecordingSocketDelegate::Kind;
    socket_->connect();
    delegate_->waitForAny({Kind::connected, Kind::disconnected}, 1, kWait);
    return delegate_->count(Kind::connected) == 1 && delegate_->count(Kind::disconnected) == 0;
  }

  void send(std::string text) { socket_->send(std::move(text)); }

  /// The next text message not read yet; throws when none comes.
  std::string next() {
    if (!delegate_->waitFor(RecordingSocketDelegate::Kind::message, read_ + 1, kWait)) {
      throw std::runtime_error("no message " + std::to_string(read_ + 1));
    }
    return delegate_->messages().at(read_++);
  }
  /// The object of the next message ("3" and a JSON object): a response or an event.
  json nextObject() { return json::parse(next().substr(1)); }

  std::int64_t sendRequest(std::string_view method, std::string_view path,
                           const json& body = json::object()) {
    const auto id = nextId_++;
    send("2" + json{{"id", id}, {"path", path}, {"method", method}, {"body", body}}.dump());
    return id;
  }
  /// Sends a request and reads on until its response, skipping whatever comes before it.
  json request(std::string_view method, std::string_view path, const json& body = json::object()) {
    const auto id = sendRequest(method, path, body);
    for (;;) {
      const auto message = next();
      auto object = json::parse(message.substr(1), nullptr, false);
      if (message.starts_with('3') && object.is_object() && object.value("id", json()) == id) {
        return object;
      }
    }
  }

  /// How the connection ended, once it has.
  std::optional<SocketCloseCode> end() { return delegate_->waitForDisconnect(1, kWait); }

  platform::WebSocketTaskConnectionWrapper& socket() { return *socket_; }

 private:
  std::shared_ptr<RecordingSocketDelegate> delegate_ = std::make_shared<RecordingSocketDelegate>();
  std::shared_ptr<platform::WebSocketTaskConnectionWrapper> socket_;
  std::size_t read_ = 0;
  std::int64_t nextId_ = 1;
};

/// An emulator with users alice and bob, one session each, started on a free loopback port.
class EmulatorTest : public ::testing::Test {
 protected:
  void SetUp() override { start(); }

  /// Restarts with other options (the emulator of SetUp is replaced).
  void start(Options options = {}) {
    emulator_.reset();
    emulator_ = std::make_unique<Emulator>(std::move(options));
    emulator_->addUser("alice");
    emulator_->addUser("bob");
    aliceToken_ = emulator_->createSession("alice");
    bobToken_ = emulator_->createSession("bob");
    urls_ = emulator_->start();
    lastSocket_ = 0;
  }

  Emulator& emulator() { return *emulator_; }

  /// A connected socket; lastSocket_ is its id. The emulator registers a socket just after its
  /// upgrade answer goes out, hence the wait.
  std::unique_ptr<Client> connect(ClientOptions options = {}) {
    auto client = std::make_unique<Client>(urls_.socketURL, options);
    EXPECT_TRUE(client->open()) << "the upgrade failed";
    const auto before = lastSocket_;
    auto info = emulator_->waitForSocket([&](const SocketInfo& s) { return s.id > before; }, kWait);
    EXPECT_TRUE(info.has_value()) << "the emulator did not register the socket";
    if (info) lastSocket_ = info->id;
    return client;
  }

  /// A socket authenticated with `token`; fails the test when the emulator does not acknowledge.
  std::unique_ptr<Client> connectAs(const std::string& token) {
    auto client = connect();
    client->send("AUTH " + token);
    const auto ack = client->next();
    EXPECT_NE(std::string::npos, ack.find("kapiId")) << ack;
    return client;
  }

  /// Whether a new socket can open now.
  bool canConnect() { return Client(urls_.socketURL).open(); }

  std::unique_ptr<Emulator> emulator_;
  Urls urls_;
  std::string aliceToken_;
  std::string bobToken_;
  SocketId lastSocket_ = 0;
};

}  // namespace kel::emulator::test
