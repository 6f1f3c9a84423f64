#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <utility>

namespace kel::test {

/// The E that `call` throws. None when it throws nothing, which fails the test (and reading the
/// value then throws, which ends it).
template <class E, class F>
std::optional<E> thrown(F&& call) {
  try {
    std::forward<F>(call)();
  } catch (const E& error) {
    return error;
  }
  ADD_FAILURE() << "nothing thrown";
  return std::nullopt;
}

}  // namespace kel::test
