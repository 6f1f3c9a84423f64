#include <gtest/gtest.h>

#include "ServerClient/MissedCalls/Service/KelMissedCallsService.h"
#include "support/OperationTable.h"

namespace kel {
namespace {

using namespace testing::tables;

TEST(MissedCallsRecords, EveryKeyIsOptionalButMustHaveItsTypeWhenPresent) {
  testing::runDecodingTable<MissedCallsDTO>({
      {"{}", "{}"},
      {R"({"data":null})", "{}"},
      {R"({"data":{}})", R"({"data":{}})"},
      {R"({"data":{"items":[]}})", R"({"data":{"items":[]}})"},
      {R"({"data":{"items":[{"id":null,"at":1},{"id":"c9"}]}})",
       R"({"data":{"items":[{},{"id":"c9"}]}})"},
      {R"({"data":{"items":{}}})", std::nullopt},
      {R"({"data":{"items":[{"id":9}]}})", std::nullopt},
      {R"({"data":[]})", std::nullopt},
      {"[]", std::nullopt},
  });
}

TEST(MissedCallsService, FetchesByUserAndMarksReadWithTheCallInTheQueryOnly) {
  const json calls = {{"data", {{"items", {{{"id", "c9"}}}}}}};
  const auto missed = [](auto& s) { return outcome(s.getMissedCalls({"u1"})); };
  testing::runOperationTable<KelMissedCallsService>({
      {"missed calls", missed, frame("GET", "/missedCalls/u1", json::object()),
       Reply::withBody(calls), calls},
      {"not the shape", missed, frame("GET", "/missedCalls/u1", json::object()),
       Reply::withBody({{"data", 1}}), kUndecodable},
      {"read",
       [](auto& s) {
         return outcome(s.setReadMissedCalls({"u1", "c9"}));
       },
       frame("POST", "/missedCalls/u1/read?last=c9", json::object()),
       Reply::withBody({{"anything", 1}}), "completed"},
  });
}

}  // namespace
}  // namespace kel
