#pragma once

// The emulator's side of the socket's text frames.
//
// From the client:
//   "AUTH " + token                               authentication (the token is the rest, as is)
//   "2" + {"id": int, "path": text, "method": text, "body": any}
//                                                 a request; "body" may be missing (read as {});
//                                                 "id" must be a JSON integer (not 5.0, not "5")
//   anything else, binary frames included         malformed: counted and ignored
// To the client:
//   {"kapiId": <id>}                              authentication acknowledgement (no prefix digit)
//   "0"                                           ping
//   "3" + {"id", "status", "body"[, "error"]}     response
//   "3" + {"path", "method", "body"}              event

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "emulator/Observation.h"
#include "emulator/ResourceRouter.h"

namespace kel::emulator {

inline constexpr std::string_view kPingFrame = "0";

struct RequestFrame {
  std::int64_t id = 0;
  std::string path;
  std::string method;
  nlohmann::json body;
};

/// How a text frame from a client reads; the kind only (see parseRequestFrame for the content).
FrameKind classifyClientFrame(std::string_view frame) noexcept;

/// The request in a "2" frame, or nothing when the frame is not a valid request.
std::optional<RequestFrame> parseRequestFrame(std::string_view frame);

std::string authAcknowledgementFrame(std::string_view kapiId);
std::string responseFrame(std::int64_t requestId, const Reply& reply);
std::string eventFrame(std::string_view path, std::string_view method, const nlohmann::json& body);

}  // namespace kel::emulator
