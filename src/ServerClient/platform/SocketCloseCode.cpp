#include "ServerClient/platform/SocketCloseCode.h"

#include <array>
#include <string_view>
#include <utility>

namespace kel::platform {

namespace {

using enum SocketCloseCode;

constexpr std::array<std::pair<SocketCloseCode, std::string_view>, 15> kNames{{
    {invalid, "invalid"},
    {normalClosure, "normalClosure"},
    {goingAway, "goingAway"},
    {protocolError, "protocolError"},
    {unsupportedData, "unsupportedData"},
    {noStatusReceived, "noStatusReceived"},
    {abnormalClosure, "abnormalClosure"},
    {invalidFramePayloadData, "invalidFramePayloadData"},
    {policyViolation, "policyViolation"},
    {messageTooBig, "messageTooBig"},
    {mandatoryExtensionMissing, "mandatoryExtensionMissing"},
    {internalServerError, "internalServerError"},
    {tlsHandshakeFailure, "tlsHandshakeFailure"},
    {otherExpectedClosure, "otherExpectedClosure"},
    {goingBackground, "goingBackground"},
}};

constexpr std::array<SocketCloseCode, kNames.size()> kAllCodes = [] {
  std::array<SocketCloseCode, kNames.size()> codes{};
  for (std::size_t i = 0; i < kNames.size(); ++i) codes[i] = kNames[i].first;
  return codes;
}();

}  // namespace

std::span<const SocketCloseCode> allSocketCloseCodes() noexcept {
  return kAllCodes;
}

bool isListed(SocketCloseCode code) noexcept {
  for (const auto& [listed, text] : kNames) {
    if (listed == code) return true;
  }
  return false;
}

bool canBeSent(SocketCloseCode code) noexcept {
  const auto value = wireCode(code);
  return (value >= 1000 && value <= 1003) || (value >= 1007 && value <= 1011) ||
         (value >= 3000 && value <= 4999);
}

std::string name(SocketCloseCode code) {
  for (const auto& [listed, text] : kNames) {
    if (listed == code) return std::string(text);
  }
  return "closeCode(" + std::to_string(wireCode(code)) + ")";
}

}  // namespace kel::platform
