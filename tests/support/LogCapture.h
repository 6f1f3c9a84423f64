#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kel::testing {

/// Captures the library's log lines (the text after the fixed prefix included) for the lifetime
/// of the object, with every level enabled. The logger is process-wide: one capture at a time.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines();
  std::size_t count(std::string_view text);
  bool contains(std::string_view text) { return count(text) > 0; }

 private:
  class Sink;
  std::shared_ptr<Sink> sink_;
};

}  // namespace kel::testing
