#pragma once

#include <optional>
#include <utility>
#include <variant>

#include "platform/base/Error.h"

namespace qx {

/// Either a value or the error that prevented it. Nothing in this system throws; an operation that
/// can fail returns a Result, or an optional Error where it has no value to give.
template <class T>
class [[nodiscard]] Result {
 public:
  Result(T value) : content_(std::in_place_index<0>, std::move(value)) {}      // NOLINT: implicit
  Result(Error error) : content_(std::in_place_index<1>, std::move(error)) {}  // NOLINT: implicit

  explicit operator bool() const { return content_.index() == 0; }
  bool ok() const { return content_.index() == 0; }

  /// Call this only when ok().
  T& value() & { return *std::get_if<0>(&content_); }
  const T& value() const& { return *std::get_if<0>(&content_); }
  T&& value() && { return std::move(*std::get_if<0>(&content_)); }
  T* operator->() { return std::get_if<0>(&content_); }
  const T* operator->() const { return std::get_if<0>(&content_); }
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }
  T&& operator*() && { return std::move(*this).value(); }

  /// Call this only when not ok().
  const Error& error() const { return *std::get_if<1>(&content_); }

 private:
  std::variant<T, Error> content_;
};

}  // namespace qx
