// Frame handling on the hot path: every incoming frame is classified, every request framed.

#include <benchmark/benchmark.h>

#include <nlohmann/json.hpp>

#include "Ratios.h"
#include "ServerClient/Common/Json.h"
#include "ServerClient/Socket/Model/Request.h"
#include "ServerClient/Socket/Model/SocketMessage.h"

namespace {

using nlohmann::json;

json contact(int i) {
  return {{"id", "contact-" + std::to_string(i)},
          {"firstName", "Ada"},
          {"lastName", "Lovelace"},
          {"phones", {{{"type", "work"}, {"number", "+44 20 7946 0" + std::to_string(100 + i)}}}},
          {"emails", {{{"type", "work"}, {"address", "ada" + std::to_string(i) + "@kel.test"}}}}};
}

// A typical response: a handful of records, about 1 KB in all.
const std::string& responseFrame() {
  static const std::string frame = [] {
    json body = {{"contacts", json::array()}};
    for (int i = 0; body.dump().size() < 960; ++i) body["contacts"].push_back(contact(i));
    return "3" + json{{"id", 1234567}, {"status", 200}, {"body", body}}.dump();
  }();
  return frame;
}

const std::string& eventFrame() {
  static const std::string frame =
      "3" + json{{"path", "/presence/user-42"},
                 {"method", "PUT"},
                 {"body", {{"id", "user-42"}, {"status", "busy"}, {"message", "In a meeting"}}}}
                .dump();
  return frame;
}

void SocketMessageCreateResponse1KB(benchmark::State& state) {
  const auto& frame = responseFrame();
  for (auto _ : state) benchmark::DoNotOptimize(kel::SocketMessage::create(frame));
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(frame.size()));
  state.SetLabel(std::to_string(frame.size()) + " B frame");
}
BENCHMARK(SocketMessageCreateResponse1KB);

// Baseline: nlohmann parsing the same text, with none of the classification around it.
void BaselineJsonParseResponse1KB(benchmark::State& state) {
  std::string_view text = std::string_view(responseFrame()).substr(1);
  for (auto _ : state) benchmark::DoNotOptimize(json::parse(text));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BaselineJsonParseResponse1KB);
KEL_BENCH_COMPARE(SocketMessageCreateResponse1KB, BaselineJsonParseResponse1KB);

void SocketMessageCreateEvent(benchmark::State& state) {
  const auto& frame = eventFrame();
  for (auto _ : state) benchmark::DoNotOptimize(kel::SocketMessage::create(frame));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(SocketMessageCreateEvent);

void BaselineJsonParseEvent(benchmark::State& state) {
  std::string_view text = std::string_view(eventFrame()).substr(1);
  for (auto _ : state) benchmark::DoNotOptimize(json::parse(text));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BaselineJsonParseEvent);
KEL_BENCH_COMPARE(SocketMessageCreateEvent, BaselineJsonParseEvent);

enum class Path { users };
constexpr auto pathTable(Path) {
  return kel::makePathTable<Path>({{Path::users, "/users"}});
}

void RequestToMessage(benchmark::State& state) {
  kel::JsonRequest<Path> request{
      .pathname = kel::Pathname<Path>(Path::users, {kel::PathRule::append("user-42")}),
      .body = contact(1),
      .method = "PUT"};
  for (auto _ : state) benchmark::DoNotOptimize(request.toMessage());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(RequestToMessage);

// Baseline: pretty-printing the same wire object that is already built.
void BaselineJsonDumpRequest(benchmark::State& state) {
  json wire = {
      {"id", 1234567}, {"path", "/users/user-42"}, {"method", "PUT"}, {"body", contact(1)}};
  for (auto _ : state) benchmark::DoNotOptimize("2" + wire.dump(2));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BaselineJsonDumpRequest);
KEL_BENCH_COMPARE(RequestToMessage, BaselineJsonDumpRequest);

}  // namespace
