#pragma once

#include <exception>

namespace kel {

/// Raised by a stream that needed an object it holds weakly after that object was released.
/// Deliberately not an SDKError: toSDKError reports it as an underlying error.
class UnretainedError : public std::exception {
 public:
  enum class Kind { failedRetaining };

  static UnretainedError failedRetaining() noexcept {
    return UnretainedError(Kind::failedRetaining);
  }

  Kind kind() const noexcept { return kind_; }
  const char* what() const noexcept override { return "failedRetaining"; }

  bool operator==(const UnretainedError& other) const noexcept { return kind_ == other.kind_; }

 private:
  explicit UnretainedError(Kind kind) noexcept : kind_(kind) {}

  Kind kind_;
};

}  // namespace kel
