#pragma once

// The sign-in answer and the records inside it:
//
//   {
//     "access_token": "...", "token_type": "Bearer",
//     "session": {"token": "...", "from": "2024-05-06T10:11:12.345Z", "id": "s1",
//                 "registered": "...", "to": 1715000000000, "userObj": {<User>}},
//     "credential": {"source": "...", "user": "...", "lease": 3600, "type": "...", "id": "c1",
//                    "data": {"k": "v"}},
//     "capabilities": {"domain": [...], "user": [...]}
//   }
//
// Every key shown is required; the first one missing or of the wrong JSON type fails the whole
// answer with the decoding error of kel::from. Integers must be JSON integers (3600.0 is refused).
//
// Session "from": an ISO 8601 date-time with a zone, "YYYY-MM-DDTHH:MM:SS" followed by an optional
// fraction of up to nine digits and then "Z" or "+HH:MM"/"-HH:MM" (for instance
// "2024-05-06T10:11:12.345Z" or "2024-05-06T12:11:12+02:00"). A JSON integer is also accepted and
// read as milliseconds since the Unix epoch, the server's usual form for instants. Anything else
// (no zone, out-of-range fields, a text that is not a date) fails the decode.

#include <chrono>
#include <concepts>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <boost/describe/class.hpp>
#include <nlohmann/json_fwd.hpp>

#include "ServerClient/Auth/Model/Capabilities.h"
#include "ServerClient/User/Model/User.h"

namespace kel {

/// The server session of a sign-in (the answer's "session" object). Its text form (Description.h)
/// shows the token as "<redacted>".
struct Session {
  /// The session's own token as the server reports it; the socket and the keychain use
  /// AuthenticationData::token instead. A secret: never log or show it.
  std::string token;
  /// When the session began ("from").
  std::chrono::system_clock::time_point from;
  /// Ending the session addresses it by this identifier ("id").
  std::string sessionID;
  /// What the session was registered with, as the server sends it ("registered").
  std::string registered;
  /// End of the session, the server's raw number.
  std::int64_t to = 0;

  /// Every field equal.
  bool operator==(const Session&) const = default;
};
BOOST_DESCRIBE_STRUCT(Session, (), (token, from, sessionID, registered, to))

/// The application's own reading of a gateway credential map: a type with a nested
/// `GatewayCredential` and `decode(map)` returning one (or throwing).
template <class D>
concept GatewayCredentialDecoder = requires(const D& decoder,
                                            const std::map<std::string, std::string>& map) {
  typename D::GatewayCredential;
  { decoder.decode(map) } -> std::convertible_to<typename D::GatewayCredential>;
};

/// The credential that the sign-in hands out for a gateway (the answer's "credential" object).
struct Credential {
  std::string source;  ///< where the credential comes from ("source")
  /// The server user the credential belongs to ("user").
  std::string kelUser;
  std::int64_t lease = 0;    ///< its lease, the server's raw number ("lease")
  std::string type;          ///< its kind ("type")
  std::string credentialId;  ///< its identifier ("id"); session renewal sends it
  /// Flat string pairs whose meaning belongs to the gateway ("data"); may hold secrets: text
  /// forms redact the entries with secret names.
  std::map<std::string, std::string> gatewayCredential;

  /// Hands the gateway map to `decoder`; its result or its exception is this call's.
  template <GatewayCredentialDecoder D>
  typename D::GatewayCredential decodeGatewayCredential(const D& decoder) const {
    return decoder.decode(gatewayCredential);
  }

  /// Every field equal.
  bool operator==(const Credential&) const = default;
};
BOOST_DESCRIBE_STRUCT(Credential, (),
                      (source, kelUser, lease, type, credentialId, gatewayCredential))

/// The recording part of Permissions.
struct Recording {
  std::optional<std::string> recordingType{};     ///< which calls may be recorded, if sent
  std::optional<std::string> recordingProfile{};  ///< the recording profile, if sent

  /// Both fields equal.
  bool operator==(const Recording&) const = default;
};
BOOST_DESCRIBE_STRUCT(Recording, (), (recordingType, recordingProfile))

/// The voicemail part of Permissions.
struct Voicemail {
  std::optional<bool> enabled{};  ///< whether the user has voicemail, if sent

  /// Same value.
  bool operator==(const Voicemail&) const = default;
};
BOOST_DESCRIBE_STRUCT(Voicemail, (), (enabled))

/// The user's call-feature permissions, read over the socket after sign-in:
///   {"recording": {"recordingType": "...", "recordingProfile": "..."},
///    "voicemail": {"enabled": true}}
/// "recording" and "voicemail" are required, their members optional (null reads as absent).
struct Permissions {
  Recording recording{};  ///< "recording"
  Voicemail voicemail{};  ///< "voicemail"

  /// True exactly when the server sent a recording type equal to `type` (case-sensitive); an
  /// empty `type` matches an empty recording type, never an absent one.
  bool recordingTypeGranted(std::string_view type) const;

  /// Both parts equal.
  bool operator==(const Permissions&) const = default;
};
BOOST_DESCRIBE_STRUCT(Permissions, (), (recording, voicemail))

/// The signed-in user's session data, decoded from the sign-in answer; never encoded. What
/// connect() and restoreSession() yield and userSession() holds. A value; its text form
/// (description()) redacts the tokens.
struct AuthenticationData {
  /// Connects and authenticates the socket ("access_token"); also what the keychain keeps. A
  /// secret: never log or show it.
  std::string token;
  /// The scheme word placed before the token in the HTTP "Authorization" header.
  std::string tokenType;
  Session session;  ///< the server session, which renewal and sign-out address
  User user;        ///< the signed-in user (the session's "userObj")
  /// Shared with the capability validator; never null after decoding.
  std::shared_ptr<const Capabilities> capabilities;
  Credential credential;  ///< the gateway credential
  /// Absent after decoding; filled in by the sign-in service once read over the socket.
  std::optional<Permissions> permissions;
};
BOOST_DESCRIBE_STRUCT(AuthenticationData, (),
                      (token, tokenType, session, user, capabilities, credential, permissions))

/// The session instant's text form that from_json(Session) reads (ISO 8601, UTC, milliseconds).
std::string formatSessionDate(std::chrono::system_clock::time_point time);
/// Parses the ISO 8601 form described at the top of this header; nothing when it is not one.
std::optional<std::chrono::system_clock::time_point> parseSessionDate(std::string_view text);

/// @name Decoding (nlohmann)
/// Each throws on a missing or mistyped key as described at the top of this header; kel::from
/// turns that into GenericError(decoding).
///@{
void from_json(const nlohmann::json& json, Session& session);
void from_json(const nlohmann::json& json, Credential& credential);
void from_json(const nlohmann::json& json, Recording& recording);
void from_json(const nlohmann::json& json, Voicemail& voicemail);
void from_json(const nlohmann::json& json, Permissions& permissions);
void from_json(const nlohmann::json& json, AuthenticationData& data);
///@}

}  // namespace kel
