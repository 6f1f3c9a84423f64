#pragma once

// Operation tables for the socket services: each row is one operation, the frame it must write
// (method, path, body; the random id aside) and what it must make of the answer, run against a
// recording socket client. What a result "is" is written as JSON: the record's encoding, a list,
// null for nothing, "completed" for a Completable, {"error": errorKind} for a failure,
// {"pending": result} for a stream that has not ended.

#include <gtest/gtest.h>

#include <functional>
#include <optional>

#include <nlohmann/json.hpp>

#include "ServerClient/Client/SocketService.h"
#include "ServerClient/Common/Decoding.h"
#include "ServerClient/Common/SDKError.h"
#include "support/FakeSocketClient.h"
#include "support/StreamRecorder.h"

namespace kel::testing {

template <class T>
nlohmann::json valueJson(const T& value) {
  if constexpr (std::is_same_v<T, rx::Unit>) {
    return "unit";
  } else if constexpr (requires {
                         value.has_value();
                         *value;
                       }) {
    return value ? valueJson(*value) : nlohmann::json(nullptr);
  } else if constexpr (requires {
                         value.begin();
                         typename T::value_type;
                       } &&
                       !std::is_convertible_v<T, std::string>) {
    auto list = nlohmann::json::array();
    for (const auto& element : value) list.push_back(valueJson(element));
    return list;
  } else {
    return nlohmann::json(value);
  }
}

template <class T>
nlohmann::json outcome(const rx::Observable<T>& stream) {
  StreamRecorder<T> recorder(stream);
  if (recorder.error()) return {{"error", errorKind(recorder.error())}};
  const auto values = recorder.values();
  if (values.empty()) return recorder.completed() ? "completed" : "pending";
  auto result = values.size() == 1 ? valueJson(values[0]) : valueJson(values);
  return recorder.completed() ? result : nlohmann::json{{"pending", result}};
}
template <class T>
nlohmann::json outcome(const rx::Single<T>& single) {
  return outcome(single.asObservable());
}
inline nlohmann::json outcome(const rx::Completable& completable) {
  return outcome(completable.asObservable());
}

template <class Service>
struct OperationRow {
  std::string name;
  std::function<nlohmann::json(Service&)> run;
  /// {"method", "path", "body"} of the one request the operation must send.
  nlohmann::json frame;
  FakeSocketClient::Reply answer;
  nlohmann::json result;
};

/// Runs every row against a fresh service whose socket client answers with the row's answer.
template <class Service>
void runOperationTable(const std::vector<OperationRow<Service>>& rows) {
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    auto client = std::make_shared<FakeSocketClient>();
    SocketClientSlot slot{client};
    auto service = std::make_shared<Service>(slot);
    client->queueReply(row.answer);
    const auto result = row.run(*service);
    ASSERT_EQ(1u, client->requests().size());
    auto sent = client->requests()[0];
    sent.erase("id");
    EXPECT_EQ(row.frame, sent);
    EXPECT_EQ(row.result, result);
  }
}

/// A JSON text and what it decodes to as `Record`, re-encoded; nothing when it must fail to decode.
struct DecodingRow {
  const char* text;
  std::optional<const char*> encoded;
};

template <class Record, class Encoded = nlohmann::json>
void runDecodingTable(const std::vector<DecodingRow>& rows) {
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    if (!row.encoded) {
      EXPECT_THROW(from<Record>(row.text), GenericError);
      continue;
    }
    EXPECT_EQ(*row.encoded, Encoded(from<Record>(row.text)).dump());
  }
}

/// The frame of a request as the table writes it.
inline nlohmann::json frame(std::string method, std::string path,
                            nlohmann::json body = nlohmann::json::array()) {
  return {{"method", std::move(method)}, {"path", std::move(path)}, {"body", std::move(body)}};
}

/// What the tables' files use: `using namespace testing::tables;`.
namespace tables {
using nlohmann::json;
using testing::FakeSocketClient;
using testing::frame;
using testing::outcome;
using Reply = FakeSocketClient::Reply;
/// The outcome of an answer that does not decode.
inline const json kUndecodable = {{"error", "generic/decoding"}};
inline Reply notFound() {
  return Reply::failure(makeError(ConnectionError::mapToOvError(404)));
}
}  // namespace tables

}  // namespace kel::testing
