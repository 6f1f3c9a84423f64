#include "ServerClient/Group/Model/GroupDTO.h"

#include <nlohmann/json.hpp>

#include "ServerClient/Utils/detail/JsonFields.h"

namespace kel {

namespace {

template <class... Fs>
struct Overloaded : Fs... {
  using Fs::operator()...;
};
template <class... Fs>
Overloaded(Fs...) -> Overloaded<Fs...>;

}  // namespace

RingingStrategyDTO decodeRingingStrategy(const nlohmann::json& json) {
  const auto type = json.is_object() ? json.find("type") : json.end();
  if (!json.is_object() || type == json.end() || !type->is_string()) {
    return SimultaneousRingingStrategyDTO{};
  }
  if (*type == "sequential") {
    const auto& properties = detail::requiredMember(json, "properties");
    SequentialRingingStrategyDTO sequential;
    detail::readRequired(properties, "delay", sequential.delay);
    detail::readRequired(properties, "steps", sequential.steps);
    return sequential;
  }
  if (*type == "simultaneous-reduced") {
    SimultaneousReducedRingingStrategyDTO reduced;
    detail::readRequired(detail::requiredMember(json, "properties"), "steps", reduced.steps);
    return reduced;
  }
  return SimultaneousRingingStrategyDTO{};
}

nlohmann::json encodeRingingStrategy(const RingingStrategyDTO& strategy) {
  auto inner = std::visit(Overloaded{
                              [](const SequentialRingingStrategyDTO& s) {
                                return nlohmann::json{
                                    {"type", "sequential"},
                                    {"properties", {{"delay", s.delay}, {"steps", s.steps}}}};
                              },
                              [](const SimultaneousReducedRingingStrategyDTO& s) {
                                return nlohmann::json{{"type", "simultaneous-reduced"},
                                                      {"properties", {{"steps", s.steps}}}};
                              },
                              [](const SimultaneousRingingStrategyDTO&) {
                                return nlohmann::json{{"type", "simultaneous"}};
                              },
                          },
                          strategy);
  return {{"ringingStrategy", std::move(inner)}};
}

void from_json(const nlohmann::json& json, GroupDTO& group) {
  GroupDTO decoded;
  detail::readRequired(json, "groupId", decoded.groupId);
  decoded.chatId.emplace();
  detail::readRequired(json, "chatId", *decoded.chatId);
  detail::readRequired(json, "name", decoded.name);
  detail::readRequired(json, "participants", decoded.participants);
  detail::readRequired(json, "owner", decoded.owner);
  try {
    decoded.ringingStrategy = decodeRingingStrategy(json.at("ringingStrategy"));
  } catch (const std::exception&) {
    decoded.ringingStrategy = SimultaneousRingingStrategyDTO{};
  }
  group = std::move(decoded);
}

void to_json(nlohmann::json& json, const GroupDTO& group) {
  json = {{"groupId", group.groupId},
          {"name", group.name},
          {"participants", group.participants},
          {"owner", group.owner},
          {"ringingStrategy", encodeRingingStrategy(group.ringingStrategy)}};
  if (group.chatId) json["chatId"] = *group.chatId;
}

}  // namespace kel
