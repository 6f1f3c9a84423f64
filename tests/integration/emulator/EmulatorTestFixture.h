#pragma once

// The emulator driven by the library's own WebSocket (WebSocketTaskConnectionWrapper) and HTTP
// client, so that the emulator and the library are checked against each other on the wire.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/url/parse.hpp>
#include <nlohmann/json.hpp>

#include "ServerClient/platform/HTTPClient.h"
#include "ServerClient/platform/HTTPCookieStorage.h"
#include "ServerClient/platform/WebSocketTaskConnectionWrapper.h"
#include "emulator/Emulator.h"
#include "support/RecordingSocketDelegate.h"

namespace kel::emulator::test {

using namespace std::chrono_literals;
using kel::test::kDefaultWait;
using kel::test::RecordingSocketDelegate;
using platform::SocketCloseCode;
inline constexpr std::chrono::milliseconds kWait = kDefaultWait;

struct ClientOptions {
  std::vector<std::string> protocols{"websocket"};
  /// Sent as the Cookie header when not empty.
  std::string cookie{};
  /// TLS: trust this authority (PEM) besides none of the system's.
  std::string caPem{};
};

/// One client socket and what it received.
class Client {
 public:
  Client(const std::string& url, const ClientOptions& options)
      : delegate_(std::make_shared<RecordingSocketDelegate>()) {
    platform::WebSocketTaskConnectionWrapper::Options socketOptions;
    socketOptions.cookieStorage = std::make_shared<platform::HTTPCookieStorage>();
    if (!options.caPem.empty()) {
      socketOptions.useSystemTrustStore = false;
      socketOptions.extraCertificateAuthoritiesPem = options.caPem;
    }
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
    socket_->connect();
    delegate_->waitForAny(
        {RecordingSocketDelegate::Kind::connected, RecordingSocketDelegate::Kind::disconnected}, 1,
        kWait);
    return delegate_->count(RecordingSocketDelegate::Kind::connected) == 1 &&
           delegate_->count(RecordingSocketDelegate::Kind::disconnected) == 0;
  }

  void send(std::string text) { socket_->send(std::move(text)); }

  /// The next text message not read yet; throws when none comes.
  std::string next() {
    if (!delegate_->waitFor(RecordingSocketDelegate::Kind::message, read_ + 1, kWait)) {
      throw std::runtime_error("no message " + std::to_string(read_ + 1));
    }
    return delegate_->messages().at(read_++);
  }

  std::int64_t sendRequest(std::string_view method, std::string_view path,
                           const nlohmann::json& body = nlohmann::json::object()) {
    const auto id = nextId_++;
    send("2" +
         nlohmann::json{{"id", id}, {"path", path}, {"method", method}, {"body", body}}.dump());
    return id;
  }
  /// Sends a request and reads on until its response, skipping whatever comes before it.
  nlohmann::json request(std::string_view method, std::string_view path,
                         const nlohmann::json& body = nlohmann::json::object()) {
    const auto id = sendRequest(method, path, body);
    for (;;) {
      const auto message = next();
      if (!message.starts_with('3')) continue;
      auto object = nlohmann::json::parse(message.substr(1), nullptr, false);
      if (object.is_object() && object.value("id", nlohmann::json()) == id) return object;
    }
  }
  /// The response object of the next message ("3" and a JSON object).
  nlohmann::json nextObject() { return nlohmann::json::parse(next().substr(1)); }

  /// How the connection ended, once it has.
  std::optional<SocketCloseCode> end() { return delegate_->waitForDisconnect(1, kWait); }

  platform::WebSocketTaskConnectionWrapper& socket() { return *socket_; }

 private:
  std::shared_ptr<RecordingSocketDelegate> delegate_;
  std::shared_ptr<platform::WebSocketTaskConnectionWrapper> socket_;
  std::size_t read_ = 0;
  std::int64_t nextId_ = 1;
};

/// One exchange with the library's HTTP client; throws what the client reports.
inline platform::HTTPResponse httpRequest(const std::string& baseUrl, std::string method,
                                          const std::string& target, std::string body = {}) {
  platform::BeastHTTPClient::Options options;
  options.cookieStorage = std::make_shared<platform::HTTPCookieStorage>();
  auto client = std::make_shared<platform::BeastHTTPClient>(std::move(options));
  platform::HTTPRequest request(std::move(method),
                                boost::urls::parse_uri(baseUrl + target).value());
  request.body = std::move(body);
  request.timeout = kWait;
  std::promise<platform::HTTPResponse> answer;
  auto exchange = client->send(std::move(request), [&](std::exception_ptr error, auto response) {
    if (error) {
      answer.set_exception(error);
    } else {
      answer.set_value(std::move(response));
    }
  });
  return answer.get_future().get();
}

/// An emulator with users alice and bob, one session each, started on a free loopback port.
class EmulatorTest : public ::testing::Test {
 protected:
  void SetUp() override { start(); }

  /// Restarts with other options (the emulator of SetUp is replaced).
  void start(Options options = {}) {
    emulator_.reset();
    emulator_ = std::make_unique<Emulator>(std::move(options));
    lastSocket_ = 0;
    emulator_->addUser("alice");
    emulator_->addUser("bob");
    aliceToken_ = emulator_->createSession("alice");
    bobToken_ = emulator_->createSession("bob");
    urls_ = emulator_->start();
  }

  Emulator& emulator() { return *emulator_; }

  /// A connected socket; lastSocket_ is its id. The emulator registers a socket just after its
  /// upgrade answer goes out, hence the wait.
  std::unique_ptr<Client> connect(ClientOptions options = {}, const std::string& url = {}) {
    const auto before = lastSocket_;
    auto client = std::make_unique<Client>(url.empty() ? urls_.socketURL : url, options);
    EXPECT_TRUE(client->open()) << "the upgrade failed";
    auto info = emulator_->waitForSocket([&](const SocketInfo& s) { return s.id > before; }, kWait);
    EXPECT_TRUE(info.has_value()) << "the emulator did not register the socket";
    if (info) lastSocket_ = info->id;
    return client;
  }

  /// A socket authenticated with `token`; fails the test when the emulator does not acknowledge.
  std::unique_ptr<Client> connectAs(const std::string& token, ClientOptions options = {}) {
    auto client = connect(std::move(options));
    client->send("AUTH " + token);
    const auto ack = client->next();
    EXPECT_NE(std::string::npos, ack.find("kapiId")) << ack;
    return client;
  }

  /// Whether a new socket can open now.
  bool canConnect() { return Client(urls_.socketURL, {}).open(); }

  std::optional<SocketInfo> waitClosed(SocketId id) {
    return emulator_->waitForSocket([id](const SocketInfo& s) { return s.id == id && !s.open; },
                                    kWait);
  }

  std::unique_ptr<Emulator> emulator_;
  Urls urls_;
  std::string aliceToken_;
  std::string bobToken_;
  SocketId lastSocket_ = 0;
};

}  // namespace kel::emulator::test
