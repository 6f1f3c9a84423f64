#pragma once

#include <exception>

namespace kel {

/// Raised by a stream that needed an object it holds weakly after that object was released.
/// Deliberately not an SDKError: toSDKError reports it as an underlying error.
class UnretainedError : public std::exception {
 public:
  /// The one case: the object was gone when the stream needed it.
  enum class Kind { failedRetaining };

  /// The error of a stream whose weakly held object is gone.
  static UnretainedError failedRetaining() noexcept {
    return UnretainedError(Kind::failedRetaining);
  }

  /// Always failedRetaining.
  Kind kind() const noexcept { return kind_; }
  /// "failedRetaining".
  const char* what() const noexcept override { return "failedRetaining"; }

  /// Same kind.
  bool operator==(const UnretainedError& other) const noexcept { return kind_ == other.kind_; }

 private:
  explicit UnretainedError(Kind kind) noexcept : kind_(kind) {}

  Kind kind_;
};

}  // namespace kel
