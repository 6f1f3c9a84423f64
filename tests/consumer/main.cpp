// consumer KEL_URL SOCKET_URL SIGN_IN_TOKEN ADDRESS
// Signs in, reads the user's own presence, subscribes to it, changes it and waits for the
// server's event, then logs out. Exits 0 when every step answered in time.

#include <chrono>
#include <cstdio>
#include <exception>
#include <future>
#include <memory>
#include <string>

#include <boost/url/parse.hpp>

#include "ServerClient/Client/KelServer.h"
#include "ServerClient/Presence/Event/PresencesEventHandler.h"
#include "ServerClient/Presence/Service/PresencesService.h"
#include "ServerClient/rx/Schedulers.h"

namespace {

using namespace std::chrono_literals;

// Waits for a Single's answer; throws its error (every SDKError is a std::exception whose
// what() shows no secret), or a time-out.
template <class T>
T await(const kel::rx::Single<T>& single, const char* what) {
  auto promise = std::make_shared<std::promise<T>>();
  auto future = promise->get_future();
  auto subscription = single.subscribe(
      [promise](const T& value) { promise->set_value(value); },
      [promise](std::exception_ptr error) { promise->set_exception(std::move(error)); });
  if (future.wait_for(10s) != std::future_status::ready) {
    subscription.dispose();
    throw std::runtime_error(std::string(what) + ": no answer within 10 s");
  }
  return future.get();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: consumer KEL_URL SOCKET_URL SIGN_IN_TOKEN ADDRESS\n");
    return 2;
  }
  const std::string address = argv[4];
  try {
    auto server = kel::KelServer::create(boost::urls::url(boost::urls::parse_uri(argv[1]).value()),
                                         boost::urls::url(boost::urls::parse_uri(argv[2]).value()),
                                         "1.0", "consumer.test");
    await(server->connect(argv[3]), "sign-in");
    std::printf("signed in\n");

    const auto presences = server->presencesService();
    const auto own = await(presences->subscribe(address), "presence");
    std::printf("presence of %s: %s\n", address.c_str(),
                own.presence.online.value_or(false) ? "online" : "offline");

    auto changed = std::make_shared<std::promise<kel::PresenceDTO>>();
    auto events = server->presenceEventHandler()->presenceUpdated().take(1).subscribe(
        [changed](const kel::PresenceDTO& presence) { changed->set_value(presence); });
    // The handler's stream starts listening on the main scheduler: wait until it has run.
    auto listening = std::make_shared<std::promise<void>>();
    kel::rx::MainScheduler::instance()->schedule([listening] { listening->set_value(); });
    if (listening->get_future().wait_for(10s) != std::future_status::ready) {
      std::fprintf(stderr, "the main scheduler did not run within 10 s\n");
      return 1;
    }
    await(presences->update({.address = address, .note = "from the consumer"}), "update");
    auto event = changed->get_future();
    if (event.wait_for(10s) != std::future_status::ready) {
      std::fprintf(stderr, "no presence event within 10 s\n");
      return 1;
    }
    std::printf("event: note %s\n", event.get().note.value_or("").c_str());

    await(server->logout("consumer-device"), "logout");
    std::printf("logged out\n");
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "failed: %s\n", error.what());
  }
  return 1;
}
