#pragma once

#include <cassert>
#include <exception>
#include <utility>
#include <variant>

namespace kel::rx {

/// The "nothing" value, for streams whose elements carry no data.
struct Unit {
  bool operator==(const Unit&) const = default;
};

/// One notification of a sequence: an element, an error or completion.
template <class T>
class Event {
 public:
  static Event next(T value) { return Event(std::in_place_index<0>, std::move(value)); }
  static Event error(std::exception_ptr e) { return Event(std::in_place_index<1>, std::move(e)); }
  static Event completed() { return Event(std::in_place_index<2>, Done{}); }

  bool isNext() const noexcept { return data_.index() == 0; }
  bool isError() const noexcept { return data_.index() == 1; }
  bool isCompleted() const noexcept { return data_.index() == 2; }
  bool isStopEvent() const noexcept { return !isNext(); }

  /// The element; only valid for a next event.
  const T& value() const& {
    assert(isNext());
    return std::get<0>(data_);
  }
  T&& value() && {
    assert(isNext());
    return std::get<0>(std::move(data_));
  }
  /// The error of an error event, null otherwise.
  std::exception_ptr error() const noexcept {
    return isError() ? std::get<1>(data_) : std::exception_ptr{};
  }

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
