#include "ServerClient/Socket/Model/Resource.h"

#include "ServerClient/Common/Json.h"

namespace kel {

Resource Resource::fromResponse(std::int64_t id, const nlohmann::json& response) {
  Resource resource{std::to_string(id), {}};
  if (!response.is_object()) return resource;
  const auto body = response.find("body");
  if (body == response.end()) {
    resource.data = "{}";
  } else if (body->is_object() || body->is_array()) {
    resource.data = dumpJson(*body).value_or(std::string{});
  }
  return resource;
}

}  // namespace kel
