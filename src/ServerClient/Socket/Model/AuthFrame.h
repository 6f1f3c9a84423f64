#pragma once

#include <string>
#include <string_view>

namespace kel {

/// What precedes the session token in the authentication frame.
inline constexpr std::string_view kAuthFramePrefix = "AUTH ";

/// The authentication frame: "AUTH " directly followed by the session token, plain text, no JSON
/// and no prefix digit. The server answers with a frame that SocketMessage classifies as auth.
inline std::string makeAuthFrame(std::string_view token) {
  std::string frame(kAuthFramePrefix);
  frame += token;
  return frame;
}

}  // namespace kel
