#pragma once

// What the signed-in user may do, as the server sends it:
//
//   {"domain": ["chat", "audio-call"], "user": ["-video-call", "+screen-share"]}
//
// "domain" lists what the user's domain grants, "user" adjusts it per user: "-x" takes x away,
// "+x" adds it, entries without a sign are ignored. Both keys are required.
//
// The record is shared, never copied: the session data, the capability validator and the
// provider all look at one instance through std::shared_ptr<const Capabilities>.

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <boost/describe/class.hpp>
#include <nlohmann/json_fwd.hpp>

namespace kel {

/// What the signed-in user may do: the two lists the server sent and the effective list made
/// from them (see the top of this header). Immutable once made; shared, never copied.
class Capabilities {
 public:
  /// Granted to everyone unless the user list takes them away, in this order: "audio-call",
  /// "video-call", "media-update", "multicall", "conferences", "conference-hold".
  static const std::vector<std::string>& defaults();

  /// The record of the lists as sent; nothing is checked or worked out yet.
  Capabilities(std::vector<std::string> domainCapabilities,
               std::vector<std::string> userCapabilities);

  Capabilities(const Capabilities&) = delete;
  Capabilities& operator=(const Capabilities&) = delete;

  /// The effective capabilities: the domain's entries not taken away, then the defaults not
  /// taken away, then the added ones, each in its list's order. Duplicates stay: a capability
  /// both in "domain" and in the defaults is listed twice. Worked out on the first call and kept
  /// for the life of the object; safe to call from any thread.
  const std::vector<std::string>& active() const;

  const std::vector<std::string> domain;  ///< "domain": what the user's domain grants
  const std::vector<std::string> user;    ///< "user": "-x" and "+x" adjustments for the user

 private:
  mutable std::once_flag activeOnce_;
  mutable std::vector<std::string> active_;  // written once, under activeOnce_
};
BOOST_DESCRIBE_STRUCT(Capabilities, (), (domain, user))

/// Decodes a shared Capabilities; throws on a missing or mistyped "domain" or "user" (kel::from
/// turns that into the decoding error).
void from_json(const nlohmann::json& json, std::shared_ptr<const Capabilities>& capabilities);
/// Writes "domain" and "user".
void to_json(nlohmann::json& json, const std::shared_ptr<const Capabilities>& capabilities);

}  // namespace kel
