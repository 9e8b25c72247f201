#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/base/Error.h"
#include "platform/base/FileDescriptor.h"
#include "platform/base/URL.h"
#include "platform/base/UUID.h"

namespace qx {

class Value;

using Bytes = std::vector<std::uint8_t>;
using Array = std::vector<Value>;
/// Keys in byte order.
using Dictionary = std::map<std::string, Value, std::less<>>;
/// A point in time (UTC), to the second in property lists.
using Date = std::chrono::sys_seconds;
/// A descriptor that travels. It is shared, because a value can be copied.
using SharedDescriptor = std::shared_ptr<const FileDescriptor>;

/// A value of any class that property lists or the conduit carry. An absent value is `Null` only
/// inside containers; elsewhere absence is an empty optional.
class Value {
 public:
  using Null = std::monostate;
  using Content = std::variant<Null, bool, std::int64_t, double, std::string, Bytes, Date, Array,
                               Dictionary, URL, UUID, Error, SharedDescriptor>;

  Value() = default;
  Value(bool value) : content_(value) {}                            // NOLINT: implicit
  Value(int value) : content_(static_cast<std::int64_t>(value)) {}  // NOLINT: implicit
  Value(std::int64_t value) : content_(value) {}                    // NOLINT: implicit
  Value(double value) : content_(value) {}                          // NOLINT: implicit
  Value(const char* value) : content_(std::string(value)) {}        // NOLINT: implicit
  Value(std::string_view value) : content_(std::string(value)) {}   // NOLINT: implicit
  Value(std::string value) : content_(std::move(value)) {}          // NOLINT: implicit
  Value(Bytes value) : content_(std::move(value)) {}                // NOLINT: implicit
  Value(Date value) : content_(value) {}                            // NOLINT: implicit
  Value(Array value) : content_(std::move(value)) {}                // NOLINT: implicit
  Value(Dictionary value) : content_(std::move(value)) {}           // NOLINT: implicit
  Value(URL value) : content_(std::move(value)) {}                  // NOLINT: implicit
  Value(UUID value) : content_(value) {}                            // NOLINT: implicit
  Value(Error value) : content_(std::move(value)) {}                // NOLINT: implicit
  Value(SharedDescriptor value) : content_(std::move(value)) {}     // NOLINT: implicit
  template <class T>
  Value(const std::optional<T>& value) {  // NOLINT: implicit; absent becomes Null
    if (value) *this = Value(*value);
  }

  bool isNull() const { return std::holds_alternative<Null>(content_); }

  /// The content when it is a T, else null.
  template <class T>
  const T* as() const {
    return std::get_if<T>(&content_);
  }
  template <class T>
  T* as() {
    return std::get_if<T>(&content_);
  }

  /// A boolean, an integer or a real counts as a number; its boolean value is whether it is
  /// non-zero. Absent for everything else.
  std::optional<bool> numberAsBool() const;

  const Content& content() const { return content_; }

  friend bool operator==(const Value&, const Value&);

 private:
  Content content_;
};

/// The value under `key`, or null.
const Value* find(const Dictionary& dictionary, std::string_view key);
/// The value under `key` when it is a T, or null.
template <class T>
const T* find(const Dictionary& dictionary, std::string_view key) {
  const Value* value = find(dictionary, key);
  return value ? value->as<T>() : nullptr;
}

/// The text of a value for a person and for the log: strings as they are, URLs as their absolute
/// string, errors as their text, arrays as "(a, b)", dictionaries as "{k: v}", null as "(null)".
/// Nothing is escaped.
std::string describe(const Value& value);

}  // namespace qx
