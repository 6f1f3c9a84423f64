#pragma once

#include <memory>
#include <utility>

#include "ServerClient/Utils/UnretainedError.h"
#include "ServerClient/rx/Observable.h"

namespace kel {

/// Maps each element of `source` through `resultSelector(object, element)` while holding
/// `object` only weakly: a chain that outlives its owner fails with
/// UnretainedError::failedRetaining instead of keeping the owner alive or touching a dead one.
/// The selector is not called then. A failure thrown by the selector is the stream's failure;
/// failures of `source` pass through unchanged. Works on Single and Observable alike.
template <class Stream, class Object, class Selector>
auto withUnretained(const Stream& source, const std::shared_ptr<Object>& object,
                    Selector resultSelector) {
  return source.map([weak = std::weak_ptr<Object>(object),
                     resultSelector = std::move(resultSelector)](const auto& element) {
    auto strong = weak.lock();
    if (!strong) throw UnretainedError::failedRetaining();
    return resultSelector(strong, element);
  });
}

/// The same with a selector that pairs the object with the element.
template <class Stream, class Object>
auto withUnretained(const Stream& source, const std::shared_ptr<Object>& object) {
  return withUnretained(source, object,
                        [](const std::shared_ptr<Object>& strong, const auto& element) {
                          return std::make_pair(strong, element);
                        });
}

}  // namespace kel
