#pragma once

#include <utility>
#include <variant>

/// Tag for the failure side of a ZavloResult, so that T and E may be the same type.
template <class E>
struct ZavloFailure {
  E error;
};

template <class E>
ZavloFailure<std::decay_t<E>> zavloFailure(E&& error) {
  return {std::forward<E>(error)};
}

/// The one value a completion receives: the success value or the error, never both.
/// Modelled on std::expected, which this toolchain does not ship yet.
/// The error type is the caller's; Core/ZavloResult.hpp makes ZavloAuthException the default.
template <class T, class E>
class ZavloResult {
 public:
  ZavloResult(T value) : storage_(std::in_place_index<0>, std::move(value)) {}  // NOLINT(google-explicit-constructor)
  ZavloResult(ZavloFailure<E> failure)                                          // NOLINT(google-explicit-constructor)
      : storage_(std::in_place_index<1>, std::move(failure.error)) {}

  [[nodiscard]] bool hasValue() const noexcept { return storage_.index() == 0; }
  explicit operator bool() const noexcept { return hasValue(); }

  [[nodiscard]] const T& value() const& { return std::get<0>(storage_); }
  [[nodiscard]] T& value() & { return std::get<0>(storage_); }
  [[nodiscard]] T&& value() && { return std::get<0>(std::move(storage_)); }
  [[nodiscard]] const E& error() const& { return std::get<1>(storage_); }
  [[nodiscard]] E&& error() && { return std::get<1>(std::move(storage_)); }

  const T* operator->() const { return &value(); }
  const T& operator*() const& { return value(); }

 private:
  std::variant<T, E> storage_;
};

/// A success without a value.
struct ZavloVoid {
  friend bool operator==(ZavloVoid, ZavloVoid) = default;
};
