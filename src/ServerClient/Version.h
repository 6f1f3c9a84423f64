#pragma once

namespace kel {

/// The library's version, as "major.minor.patch".
const char* libraryVersion() noexcept;

}  // namespace kel
