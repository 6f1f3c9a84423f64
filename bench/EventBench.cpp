// Server events on their way to the application: a burst of presence changes is classified,
// published on the event channel and decoded for the subscribers of two domain handlers, against
// parsing each frame and calling two plain callbacks.

#include <benchmark/benchmark.h>

#include <nlohmann/json.hpp>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Ratios.h"
#include "ServerClient/Alert/Event/AlertsEventHandler.h"
#include "ServerClient/Common/Json.h"
#include "ServerClient/Presence/Event/PresencesEventHandler.h"
#include "ServerClient/Presence/Model/PresenceDTO.h"
#include "ServerClient/Socket/Events/KelEventHandler.h"
#include "ServerClient/Socket/Model/SocketMessage.h"
#include "ServerClient/rx/Schedulers.h"

namespace {

using nlohmann::json;

constexpr int kBurst = 10000;

// What the server pushes when a watched user changes presence: the whole record.
const std::vector<std::string>& presenceFrames() {
  static const std::vector<std::string> frames = [] {
    std::vector<std::string> all;
    all.reserve(kBurst);
    for (int i = 0; i < kBurst; ++i) {
      const std::string address = "kel-user:u" + std::to_string(i % 50);
      all.push_back("3" + json{{"path", "/presence/" + address},
                               {"method", "PUT"},
                               {"body",
                                {{"address", address},
                                 {"online", i % 3 != 0},
                                 {"activity", "busy"},
                                 {"mood", "happy"},
                                 {"note", "In a meeting until " + std::to_string(i % 24) + ":00"},
                                 {"username", "u" + std::to_string(i % 50)},
                                 {"domain", "kel.test"},
                                 {"role", "user"},
                                 {"displayName", "User " + std::to_string(i % 50)}}}}
                              .dump());
    }
    return all;
  }();
  return frames;
}

// The application's main thread is this one: deliveries wait in the run loop until it runs.
void PresenceBurstThroughHandlers(benchmark::State& state) {
  kel::rx::RunLoop loop;
  auto main = std::make_shared<kel::rx::MainScheduler>();
  main->install(loop.executor());
  auto channel = std::make_shared<kel::KelEventHandler>();
  kel::PresencesEventHandler presences(channel, main);
  kel::AlertsEventHandler alerts(channel, main);
  std::size_t online = 0;
  std::size_t alertsSeen = 0;
  kel::rx::DisposeBag bag;
  presences.presenceUpdated()
      .subscribe([&online](const kel::PresenceDTO& p) { online += p.online.value_or(false); })
      .disposed(bag);
  alerts.newAlert().subscribe([&alertsSeen](const auto&) { ++alertsSeen; }).disposed(bag);
  loop.runUntilIdle();  // the subscriptions start on the main scheduler
  const auto& frames = presenceFrames();
  for (auto _ : state) {
    for (const auto& frame : frames) {
      auto message = kel::SocketMessage::create(frame);
      if (const auto* event = message.asEvent()) channel->handleShared(event->json);
    }
    loop.runUntilIdle();
    benchmark::DoNotOptimize(online);
  }
  if (alertsSeen != 0) state.SkipWithError("an alert subscriber saw a presence event");
  state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(PresenceBurstThroughHandlers)->Unit(benchmark::kMillisecond);

// Baseline: parse each frame and hand it to two callbacks, one per domain, each checking the path
// and the presence one decoding the record.
void BaselinePresenceParseTwoCallbacks(benchmark::State& state) {
  std::size_t online = 0;
  std::size_t alertsSeen = 0;
  std::function<void(const json&)> presence = [&online](const json& event) {
    if (event["path"].get_ref<const std::string&>().starts_with("/presence")) {
      online += event["body"].get<kel::PresenceDTO>().online.value_or(false);
    }
  };
  std::function<void(const json&)> alert = [&alertsSeen](const json& event) {
    if (event["path"].get_ref<const std::string&>().starts_with("/alerts")) ++alertsSeen;
  };
  const auto& frames = presenceFrames();
  for (auto _ : state) {
    for (const auto& frame : frames) {
      auto event = kel::parseJson(std::string_view(frame).substr(1));
      presence(*event);
      alert(*event);
    }
    benchmark::DoNotOptimize(online);
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(BaselinePresenceParseTwoCallbacks)->Unit(benchmark::kMillisecond);
KEL_BENCH_COMPARE(PresenceBurstThroughHandlers, BaselinePresenceParseTwoCallbacks);

}  // namespace
