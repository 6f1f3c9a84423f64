#include "emulator/Emulator.h"

#include <condition_variable>
#include <mutex>
#include <utility>

#include "emulator/Fixture.h"
#include "emulator/detail/Server.h"

namespace kel::emulator {

using detail::Outgoing;

Emulator::Emulator(Options options)
    : server_(std::make_unique<detail::Server>(std::move(options))),
      signIn_(std::make_unique<SignIn>(
          server_->store(), [this](std::string_view token) { return endSession(token); },
          server_->options().tls.has_value(),
          SignInRecording{server_->options().signInAttemptLimit,
                          server_->options().signInAttemptBytes,
                          server_->options().recordedPayloadBytes})) {
  signIn_->install(server_->http(), server_->resources());
  domains_ = std::make_unique<Domains>(
      server_->store(), *signIn_,
      [this](const Recipients& to, std::string_view path, std::string_view method,
             const nlohmann::json& body) { return pushEvent(to, path, method, body); });
  domains_->install(server_->resources());
  domains_->installControl(server_->http());
  domains_->alerts.setLifetime(server_->options().alertLifetime);
}

// The server goes first: its handlers may still be using the sign-in and the domains until it
// has stopped.
Emulator::~Emulator() {
  stop();
}

Urls Emulator::start() {
  auto urls = server_->start();
  // A second is as late as an expiry event may be; nothing waits on it but people.
  alertSweeper_ = std::jthread([this](std::stop_token stop) {
    std::mutex mutex;
    std::condition_variable_any wake;
    std::unique_lock lock(mutex);
    while (!wake.wait_for(lock, stop, std::chrono::seconds(1), [] { return false; })) {
      if (stop.stop_requested()) break;
      domains_->alerts.expireDue();
    }
  });
  return urls;
}

void Emulator::stop() {
  if (alertSweeper_.joinable()) {
    alertSweeper_.request_stop();
    alertSweeper_.join();
  }
  server_->stop();
}

bool Emulator::isRunning() const {
  return server_->isRunning();
}

Urls Emulator::urls() const {
  return server_->urls();
}

const Options& Emulator::options() const {
  return server_->options();
}

SessionStore& Emulator::sessionStore() {
  return server_->store();
}

void Emulator::addUser(std::string id, nlohmann::json profile) {
  server_->store().addUser(User{std::move(id), std::move(profile)});
}

std::string Emulator::createSession(std::string_view userId,
                                    std::optional<std::chrono::seconds> lifetime) {
  return server_->store().createSession(userId, lifetime).token;
}

std::optional<Session> Emulator::session(std::string_view token) const {
  return server_->store().session(token);
}

bool Emulator::expireSession(std::string_view token) {
  return server_->store().expireSession(token);
}

bool Emulator::endSession(std::string_view token, std::uint16_t closeCode) {
  if (!server_->store().endSession(token)) return false;
  server_->closeSockets(Recipients::session(std::string(token)), closeCode, "session ended");
  return true;
}

ResourceRouter& Emulator::resources() {
  return server_->resources();
}

HttpRouter& Emulator::http() {
  return server_->http();
}

SignIn& Emulator::signIn() {
  return *signIn_;
}

void Emulator::addAccount(Account account) {
  signIn_->addAccount(std::move(account));
}

UserContacts& Emulator::userContacts() {
  return domains_->userContacts;
}

AddressBooks& Emulator::addressBooks() {
  return domains_->addressBooks;
}

Presences& Emulator::presences() {
  return domains_->presences;
}

Groups& Emulator::groups() {
  return domains_->groups;
}

Meetings& Emulator::meetings() {
  return domains_->meetings;
}

CallHistory& Emulator::callHistory() {
  return domains_->callHistory;
}

Alerts& Emulator::alerts() {
  return domains_->alerts;
}

ChatLists& Emulator::chatLists() {
  return domains_->chatLists;
}

DomainClock& Emulator::domainClock() {
  return domains_->clock;
}

nlohmann::json Emulator::placeCall(const PlacedCall& call) {
  return domains_->callHistory.placeCall(call);
}

std::vector<Session> Emulator::loadFixture(const nlohmann::json& fixture) {
  return kel::emulator::loadFixture(fixture, server_->store(), *signIn_, *domains_);
}

std::size_t Emulator::pushEvent(const Recipients& to, std::string_view path,
                                std::string_view method, const nlohmann::json& body) {
  return server_->sendTo(to, Outgoing::Type::text, eventFrame(path, method, body),
                         &SocketInfo::eventsSent);
}

std::size_t Emulator::sendPing(const Recipients& to) {
  return server_->sendTo(to, Outgoing::Type::text, std::string(kPingFrame), &SocketInfo::pingsSent);
}

std::size_t Emulator::sendText(const Recipients& to, std::string text) {
  return server_->sendTo(to, Outgoing::Type::text, std::move(text));
}

std::size_t Emulator::sendBinary(const Recipients& to, std::string bytes) {
  return server_->sendTo(to, Outgoing::Type::binary, std::move(bytes));
}

std::size_t Emulator::sendMalformed(const Recipients& to, Malformed kind,
                                    std::size_t hugeFrameBytes) {
  auto frame = malformedFrame(kind, std::nullopt, hugeFrameBytes);
  return server_->sendTo(to, frame.binary ? Outgoing::Type::binary : Outgoing::Type::text,
                         std::move(frame.data));
}

std::size_t Emulator::closeSockets(const Recipients& which, std::uint16_t code,
                                   std::string reason) {
  return server_->closeSockets(which, code, std::move(reason));
}

std::size_t Emulator::dropSockets(const Recipients& which, DropMode mode) {
  return server_->dropSockets(which, mode);
}

std::size_t Emulator::deafenSockets(const Recipients& which) {
  return server_->deafenSockets(which);
}

void Emulator::setUpgradeAnswer(UpgradeAnswer answer) {
  server_->setUpgradeAnswer(std::move(answer));
}

void Emulator::faultNextRequests(std::size_t count, Fault fault, RequestFilter filter) {
  server_->armFault(std::move(fault), std::move(filter), count);
}

void Emulator::faultAllRequests(Fault fault, RequestFilter filter) {
  server_->armFault(std::move(fault), std::move(filter), std::nullopt);
}

void Emulator::clearFaults() {
  server_->clearFaults();
}

std::size_t Emulator::armedFaults() const {
  return server_->armedFaults();
}

void Emulator::refuseConnections(std::optional<std::chrono::milliseconds> duration,
                                 RefusalMode mode) {
  server_->refuseConnections(duration, mode);
}

void Emulator::acceptConnections() {
  server_->acceptConnections();
}

bool Emulator::isRefusingConnections() const {
  return server_->isRefusingConnections();
}

std::vector<SocketInfo> Emulator::sockets() const {
  return server_->sockets();
}

std::optional<SocketInfo> Emulator::socket(SocketId id) const {
  return server_->socket(id);
}

std::vector<ReceivedFrame> Emulator::receivedFrames() const {
  return server_->receivedFrames(std::nullopt);
}

std::vector<ReceivedFrame> Emulator::receivedFrames(SocketId id) const {
  return server_->receivedFrames(id);
}

void Emulator::clearReceivedFrames() {
  server_->clearReceivedFrames();
}

Counters Emulator::counters() const {
  return server_->counters();
}

bool Emulator::waitUntil(const std::function<bool()>& condition,
                         std::chrono::milliseconds timeout) const {
  return server_->waitUntil(condition, timeout);
}

std::optional<SocketInfo> Emulator::waitForSocket(
    const std::function<bool(const SocketInfo&)>& predicate,
    std::chrono::milliseconds timeout) const {
  std::optional<SocketInfo> found;
  server_->waitUntil(
      [&] {
        for (auto& info : server_->sockets()) {
          if (predicate(info)) {
            found = std::move(info);
            return true;
          }
        }
        return false;
      },
      timeout);
  return found;
}

// Observation.h

std::string_view name(FrameKind kind) noexcept {
  switch (kind) {
    case FrameKind::auth:
      return "auth";
    case FrameKind::request:
      return "request";
    case FrameKind::malformed:
      return "malformed";
  }
  return "?";
}

std::string_view name(ClosedBy closedBy) noexcept {
  switch (closedBy) {
    case ClosedBy::nobody:
      return "nobody";
    case ClosedBy::client:
      return "client";
    case ClosedBy::server:
      return "server";
    case ClosedBy::dropped:
      return "dropped";
    case ClosedBy::network:
      return "network";
  }
  return "?";
}

bool Recipients::includes(const SocketInfo& info) const {
  switch (kind_) {
    case Kind::all:
      return info.authenticated;
    case Kind::user:
      return info.authenticated && info.userId == key_;
    case Kind::session:
      return info.authenticated && info.sessionToken == key_;
    case Kind::socket:
      return info.id == socket_;
  }
  return false;
}

}  // namespace kel::emulator
