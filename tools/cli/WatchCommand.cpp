// `kel watch`: the server's events, one JSON line each, as they come.

#include <algorithm>
#include <cctype>
#include <csignal>
#include <iostream>
#include <optional>
#include <set>

#include <nlohmann/json.hpp>

#include "ServerClient/Presence/Service/PresencesService.h"
#include "ServerClient/rx/Schedulers.h"
#include "cli/CommandLine.h"
#include "cli/Output.h"
#include "cli/Runner.h"

namespace kel::cli {

namespace {

using namespace std::chrono_literals;

/// How often watch --metrics prints the socket's figures.
constexpr auto kMetricsPeriod = 5s;

bool sameLetters(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) ==
           std::tolower(static_cast<unsigned char>(y));
  });
}

/// The domains named by --domain (in any case; "groups" is both group domains); empty: all.
std::set<DomainEvent> domainsFrom(const Arguments& arguments) {
  std::set<DomainEvent> domains;
  for (const auto& text : arguments.values("--domain")) {
    if (sameLetters(text, "groups")) {
      domains.insert({DomainEvent::group, DomainEvent::participantInGroup});
      continue;
    }
    const auto& all = allDomainEvents();
    const auto found = std::find_if(all.begin(), all.end(), [&](DomainEvent domain) {
      return sameLetters(domainName(domain), text);
    });
    if (found == all.end()) {
      std::string known;
      for (const auto domain : all) known += std::string(domainName(domain)) + ", ";
      throw UsageError{"--domain: unknown domain \"" + text + "\" (known: " + known + "groups)"};
    }
    domains.insert(*found);
  }
  return domains;
}

struct Limits {
  std::optional<long long> count;
  std::optional<std::chrono::seconds> duration;
};

Limits limitsFrom(const Arguments& arguments) {
  Limits limits;
  if (const auto count = arguments.value("--count")) {
    limits.count = parseNumber("--count", *count, 1, 1'000'000'000);
  }
  if (const auto duration = arguments.value("--for")) {
    limits.duration = std::chrono::seconds(parseNumber("--for", *duration, 1, 31'536'000));
  }
  return limits;
}

void checkWatch(const Arguments& arguments) {
  domainsFrom(arguments);
  limitsFrom(arguments);
}

volatile std::sig_atomic_t interrupted = 0;

void onInterrupt(int) {
  interrupted = 1;
}

/// SIGINT and SIGTERM only set `interrupted` while it lives, so that watch ends as after its
/// count: the socket closed as for the background, the stored session kept.
class InterruptGuard {
 public:
  InterruptGuard() {
    interrupted = 0;
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &previousInt_);
    sigaction(SIGTERM, &action, &previousTerm_);
  }
  ~InterruptGuard() {
    sigaction(SIGINT, &previousInt_, nullptr);
    sigaction(SIGTERM, &previousTerm_, nullptr);
  }
  InterruptGuard(const InterruptGuard&) = delete;
  InterruptGuard& operator=(const InterruptGuard&) = delete;

 private:
  struct sigaction previousInt_ {};
  struct sigaction previousTerm_ {};
};

nlohmann::json watch(Runner& runner, const Arguments& arguments) {
  const auto domains = domainsFrom(arguments);
  const auto limits = limitsFrom(arguments);
  const InterruptGuard guard;

  struct Seen {
    long long printed = 0;
    bool channelEnded = false;
  };
  auto seen = std::make_shared<Seen>();
  // Before the session is restored, so that no event after the socket's authentication is
  // missed. Events arrive on the socket's thread; printing happens on this one.
  auto subscription = runner.server()
                          .kelEventHandler()
                          ->eventChannel()
                          .observeOn(rx::MainScheduler::instance())
                          .subscribe(
                              [seen, domains, count = limits.count](const KelEvent& event) {
                                if (count && seen->printed >= *count) return;
                                if (!domains.empty() && !domains.contains(event.domainEvent))
                                  return;
                                std::cout << jsonLine(eventJson(event)) << std::endl;
                                ++seen->printed;
                              },
                              [seen](std::exception_ptr) { seen->channelEnded = true; },
                              [seen] { seen->channelEnded = true; });

  const auto data = runner.restore();
  const auto addresses = arguments.values("--subscribe");
  if (!addresses.empty()) {
    runner.await("presence subscriptions",
                 runner.server().presencesService()->subscribe(addresses));
  }
  if (!runner.line().json) {
    std::cerr << printable("kel watch: the events of " + data.user.userId +
                           (addresses.empty() ? "" : " and the presence of those subscribed to") +
                           " (Ctrl-C ends)")
              << std::endl;
  }

  // On stderr, which is for people: stdout carries one JSON line per event.
  rx::Disposable sampling;
  if (runner.line().metrics) {
    sampling = runner.server().metrics(kMetricsPeriod).subscribe([](const KelMetrics& metrics) {
      for (const auto& text : metricsLines(metrics)) {
        std::cerr << printable("kel watch: metrics: " + text) << '\n';
      }
      std::cerr << std::flush;
    });
  }

  std::optional<CommandError> ended;
  std::string reason = "time";
  const auto done = [&] {
    if (interrupted) {
      reason = "signal";
    } else if (limits.count && seen->printed >= *limits.count) {
      reason = "count";
    } else if ((ended = runner.socketEnded("watch", Watch::sessionEnd))) {
      return true;
    } else if (seen->channelEnded) {
      ended = CommandError{"session/ended", "watch: the session was closed"};
    } else {
      return false;
    }
    return true;
  };
  const auto deadline = limits.duration ? std::chrono::steady_clock::now() + *limits.duration
                                        : std::chrono::steady_clock::time_point::max();
  while (!done()) {
    const auto left = deadline - std::chrono::steady_clock::now();
    if (left <= std::chrono::steady_clock::duration::zero()) break;
    runner.loop().runUntil(done, std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::min<std::chrono::steady_clock::duration>(left, 1h)));
  }
  subscription.dispose();
  sampling.dispose();
  if (ended) throw std::move(*ended);
  if (!runner.line().json) {
    std::cerr << "kel watch: " << seen->printed << (seen->printed == 1 ? " event" : " events")
              << ", ended by " << reason << std::endl;
  }
  return {{"events", seen->printed}, {"endedBy", reason}};
}

}  // namespace

const CommandGroup& eventCommands() {
  static const CommandGroup group{
      "Events",
      {
          {.words = {"watch"},
           .flags = {{"--domain", "DOMAIN", false, true},
                     {"--subscribe", "ADDRESS", false, true},
                     {"--count", "N"},
                     {"--for", "SECONDS"}},
           .summary =
               "print each server event as one JSON line {\"domain\", \"method\", \"param\",\n"
               "\"record\" (or \"error\" when its body does not decode)} until Ctrl-C (or "
               "SIGTERM),\n"
               "N events or SECONDS. DOMAIN: addressBooks, presence, groups (= group and\n"
               "participantInGroup), conferences, alerts, missedCalls, meetings,\n"
               "xmppIndividualChatList, unkwown (any case). Presence events come only for\n"
               "subscribed addresses: --subscribe ADDRESS subscribes first",
           .check = checkWatch,
           .run = watch},
      }};
  return group;
}

}  // namespace kel::cli
