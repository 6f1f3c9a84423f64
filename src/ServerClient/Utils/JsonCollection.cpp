#include "ServerClient/Utils/JsonCollection.h"

#include <cmath>
#include <vector>

#include "ServerClient/Common/Json.h"

namespace kel {
namespace {

// nlohmann would write a NaN as null and only complain about invalid UTF-8 when the object is
// finally serialised, far from the code that built it.
bool serialisesFaithfully(const nlohmann::json& root) {
  // Iterative: encoded values nest as deep as the types that produced them.
  std::vector<const nlohmann::json*> pending{&root};
  while (!pending.empty()) {
    const nlohmann::json& json = *pending.back();
    pending.pop_back();
    if (json.is_number_float() && !std::isfinite(json.get<double>())) return false;
    if (json.is_string() && !isValidUtf8(json.get_ref<const std::string&>())) return false;
    if (json.is_object()) {
      for (auto it = json.begin(); it != json.end(); ++it) {
        if (!isValidUtf8(it.key())) return false;
        pending.push_back(&*it);
      }
    } else if (json.is_array()) {
      for (const auto& child : json) pending.push_back(&child);
    }
  }
  return true;
}

[[noreturn]] void throwDecoding(std::string_view data) {
  throw GenericError(GenericErrorType::decoding(utf8TextOrEmpty(data)));
}

}  // namespace

namespace detail {

void requireEncodedObject(const nlohmann::json& json) {
  if (!json.is_object() || !serialisesFaithfully(json)) {
    throw GenericError(GenericErrorType::encoding({}));
  }
}

}  // namespace detail

std::string dataFor(std::string_view data, std::string_view key) {
  const auto json = parseJson(data);
  if (!json || !json->is_object()) throwDecoding(data);
  const auto found = json->find(key);
  if (found == json->end() || !found->is_structured()) throwDecoding(data);
  auto text = dumpJson(*found, 2);
  if (!text) throwDecoding(data);
  return std::move(*text);
}

}  // namespace kel
