#pragma once

// The failure rule for a response object:
//   1. "error" holds an integer: that integer is the error code, whatever its value (0 too);
//   2. otherwise "status" holds an integer from 400 through 500: the status is the error code;
//   3. otherwise the response is a success (statuses below 400 and above 500 included).
// "Integer" means a JSON number written without fraction or exponent; 404.0, "404" and true are
// not integers and fall through to the next step.

#include <optional>

#include <nlohmann/json.hpp>

namespace kel {

/// The error code of a failed response, or nothing for a success. The code goes to
/// ConnectionError::mapToOvError, which takes an int: an "error" beyond int's range is clamped to
/// INT_MIN or INT_MAX, so the response still fails.
std::optional<int> errorCode(const nlohmann::json& response) noexcept;

}  // namespace kel
