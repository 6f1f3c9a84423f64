#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kel {

/// A uniformly distributed integer in [0, upperExclusive), from the operating system's secure
/// random source (getrandom). `upperExclusive` must be at least 1.
std::uint64_t secureRandomBelow(std::uint64_t upperExclusive);

/// `length` characters drawn uniformly and securely from the ASCII letters and digits.
std::string randomString(std::size_t length);

/// A fresh random (version 4) UUID in its standard textual form, upper-case hexadecimal.
std::string makeUUIDString();

}  // namespace kel
