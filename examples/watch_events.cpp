// Watching other users' presence and the user's groups as the server pushes their changes.
//
//   watch_events KEL_URL SOCKET_URL SIGN_IN_TOKEN EVENTS ADDRESS...
//
// Signs in, subscribes to the presence of each ADDRESS (the server pushes a change of any of
// them from then on), prints the presence and group events as they come, and stops after EVENTS
// of them.

#include <condition_variable>
#include <cstdio>
#include <exception>
#include <mutex>
#include <string>
#include <vector>

#include "Await.h"
#include "ServerClient/Client/KelServer.h"
#include "ServerClient/Group/Event/GroupEventHandler.h"
#include "ServerClient/Presence/Event/PresencesEventHandler.h"
#include "ServerClient/Presence/Service/PresencesService.h"
#include "ServerClient/rx/Disposable.h"

namespace {

// Counts the printed events; main() waits on it.
class Events {
 public:
  void print(const std::string& line) {
    std::lock_guard lock(mutex_);
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
    ++count_;
    changed_.notify_all();
  }
  bool waitFor(int count, std::chrono::seconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return count_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 6) {
    std::fprintf(stderr,
                 "usage: watch_events KEL_URL SOCKET_URL SIGN_IN_TOKEN EVENTS ADDRESS...\n");
    return 2;
  }
  const int wanted = std::stoi(argv[4]);
  const std::vector<std::string> addresses(argv + 5, argv + argc);
  try {
    auto server = kel::KelServer::create(example::url(argv[1]), example::url(argv[2]), "1.0",
                                         "example.watch");
    example::await(server->connect(argv[3]), "sign-in");

    // Subscribe to the streams first, then to the presences: a change right after the
    // subscription is then not missed. The handlers' streams deliver on the main scheduler.
    Events events;
    kel::rx::CompositeDisposable subscriptions;
    subscriptions.insert(server->presenceEventHandler()->presenceUpdated().subscribe(
        [&](const kel::PresenceDTO& presence) {
          events.print("presence " + presence.address.value_or("?") + ": " +
                       (presence.online.value_or(false) ? "online" : "offline") +
                       (presence.note ? ", " + *presence.note : ""));
        }));
    subscriptions.insert(server->groupEventHandler()->newGroup().subscribe(
        [&](const kel::GroupDTO& group) { events.print("new group " + group.name); }));
    subscriptions.insert(server->groupEventHandler()->groupUpdated().subscribe(
        [&](const kel::GroupDTO& group) { events.print("group updated " + group.name); }));
    subscriptions.insert(server->groupEventHandler()->groupDeleted().subscribe(
        [&](const std::string& id) { events.print("group deleted " + id); }));

    example::untilListening();
    const auto subscribed =
        example::await(server->presencesService()->subscribe(addresses), "subscription");
    for (const auto& presence : subscribed.presences) {
      std::printf("watching %s\n", presence.address.value_or("?").c_str());
    }
    std::fflush(stdout);

    const bool all = events.waitFor(wanted, std::chrono::seconds(60));
    subscriptions.dispose();
    server->suspend();
    return all ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "failed: %s\n", error.what());
    return 1;
  }
}
