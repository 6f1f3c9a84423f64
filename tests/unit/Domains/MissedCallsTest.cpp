#include <gtest/gtest.h>

#include "ServerClient/MissedCalls/Service/KelMissedCallsService.h"
#include "support/OperationTable.h"

namespace kel {
namespace {

using nlohmann::json;
using testing::FakeSocketClient;
using testing::frame;
using testing::outcome;
using Reply = FakeSocketClient::Reply;
using Data = MissedCallsDTO::MissedCallData;
using Items = std::vector<MissedCallItemDTO>;

TEST(MissedCallsRecords, EveryKeyIsOptionalButMustHaveItsTypeWhenPresent) {
  struct Row {
    const char* answer;
    MissedCallsDTO expected;
  };
  for (const auto& row : std::vector<Row>{
           {"{}", {}},
           {R"({"data":null})", {}},
           {R"({"data":{}})", {Data{}}},
           {R"({"data":{"items":[]}})", {Data{Items{}}}},
           {R"({"data":{"items":[{"id":null,"at":1},{"id":"c9"}]}})",
            {Data{Items{{std::nullopt}, {"c9"}}}}},
       }) {
    SCOPED_TRACE(row.answer);
    EXPECT_EQ(row.expected, from<MissedCallsDTO>(row.answer));
  }
  for (const char* broken :
       {R"({"data":{"items":{}}})", R"({"data":{"items":[{"id":9}]}})", R"({"data":[]})", "[]"}) {
    SCOPED_TRACE(broken);
    EXPECT_THROW(from<MissedCallsDTO>(broken), GenericError);
  }
}

TEST(MissedCallsService, FetchesByUserAndMarksReadWithTheCallInTheQueryOnly) {
  testing::runOperationTable<KelMissedCallsService>({
      {"missed calls",
       [](auto& s) { return outcome(s.getMissedCalls({"u1"})); },
       frame("GET", "/missedCalls/u1", json::object()),
       Reply::withBody({{"data", {{"items", {{{"id", "c9"}}}}}}}),
       {{"data", {{"items", {{{"id", "c9"}}}}}}}},
      {"not the shape",
       [](auto& s) { return outcome(s.getMissedCalls({"u1"})); },
       frame("GET", "/missedCalls/u1", json::object()),
       Reply::withBody({{"data", 1}}),
       {{"error", "generic/decoding"}}},
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
