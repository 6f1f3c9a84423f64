#include "ServerClient/MissedCalls/Model/MissedCallsDTO.h"

#include <nlohmann/json.hpp>

#include "ServerClient/Utils/detail/JsonFields.h"

namespace kel {

using detail::readOptional;

namespace {

template <class T>
void writeOptional(nlohmann::json& json, const char* key, const std::optional<T>& value) {
  if (value) json[key] = *value;
}

}  // namespace

void from_json(const nlohmann::json& json, MissedCallItemDTO& item) {
  item.id = readOptional<std::string>(json, "id");
}

void to_json(nlohmann::json& json, const MissedCallItemDTO& item) {
  json = nlohmann::json::object();
  writeOptional(json, "id", item.id);
}

void from_json(const nlohmann::json& json, MissedCallsDTO::MissedCallData& data) {
  data.items = readOptional<std::vector<MissedCallItemDTO>>(json, "items");
}

void to_json(nlohmann::json& json, const MissedCallsDTO::MissedCallData& data) {
  json = nlohmann::json::object();
  writeOptional(json, "items", data.items);
}

void from_json(const nlohmann::json& json, MissedCallsDTO& calls) {
  calls.data = readOptional<MissedCallsDTO::MissedCallData>(json, "data");
}

void to_json(nlohmann::json& json, const MissedCallsDTO& calls) {
  json = nlohmann::json::object();
  writeOptional(json, "data", calls.data);
}

void from_json(const nlohmann::json& json, MissedCallsSocketDTO& calls) {
  calls.items = readOptional<std::vector<MissedCallItemDTO>>(json, "items");
}

void to_json(nlohmann::json& json, const MissedCallsSocketDTO& calls) {
  json = nlohmann::json::object();
  writeOptional(json, "items", calls.items);
}

}  // namespace kel
