#pragma once

#include <cassert>
#include <exception>
#include <utility>
#include <variant>

namespace kel::rx {

/// The "nothing" value, for streams whose elements carry no data.
struct Unit {
  /// Every Unit equals every other.
  bool operator==(const Unit&) const = default;
};

/// One notification of a sequence: an element, an error or completion. A plain value, what
/// Observable::materialize() emits and what Observer::on() delivers; tests compare them.
template <class T>
class Event {
 public:
  /// An element.
  static Event next(T value) { return Event(std::in_place_index<0>, std::move(value)); }
  /// An error; `e` should not be null.
  static Event error(std::exception_ptr e) { return Event(std::in_place_index<1>, std::move(e)); }
  /// The completion.
  static Event completed() { return Event(std::in_place_index<2>, Done{}); }

  /// True for an element.
  bool isNext() const noexcept { return data_.index() == 0; }
  /// True for an error.
  bool isError() const noexcept { return data_.index() == 1; }
  /// True for the completion.
  bool isCompleted() const noexcept { return data_.index() == 2; }
  /// True for an error or the completion: nothing follows it.
  bool isStopEvent() const noexcept { return !isNext(); }

  /// The element; only valid for a next event.
  const T& value() const& {
    assert(isNext());
    return std::get<0>(data_);
  }
  /// The element, moved out; only valid for a next event.
  T&& value() && {
    assert(isNext());
    return std::get<0>(std::move(data_));
  }
  /// The error of an error event, null otherwise.
  std::exception_ptr error() const noexcept {
    return isError() ? std::get<1>(data_) : std::exception_ptr{};
  }

  /// Same kind and equal element; two errors are equal only when they hold the same exception
  /// object (the pointers compare), not merely equal messages.
  bool operator==(const Event& other) const requires requires(const T& a) { a == a; }
  { return data_ == other.data_; }

 private:
  struct Done {
    bool operator==(const Done&) const = default;
  };
  template <std::size_t I, class V>
  Event(std::in_place_index_t<I> i, V&& v) : data_(i, std::forward<V>(v)) {}

  std::variant<T, std::exception_ptr, Done> data_;
};

}  // namespace kel::rx
