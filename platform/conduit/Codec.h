#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "platform/base/Value.h"

/// How values travel: one CBOR item (RFC 8949) to a frame, definite lengths only, with the tags of
/// the conduit for URLs (32), UUIDs (37), errors (17746) and descriptors (17988).
///
/// isWellFormed() checks a frame that arrives as a whole, before anything is taken from it. A
/// Decoder then walks the checked bytes and only tells whether a value has the wanted type, so
/// nothing is built that was not asked for. Encoding and decoding are one overload per type.
namespace qx::conduit {

inline constexpr std::size_t frameHeaderSize = 4;
inline constexpr std::size_t maximumFrameSize = 16U << 20U;
inline constexpr std::size_t maximumDescriptors = 16;
inline constexpr std::size_t maximumNesting = 32;
/// How much memory the values of one frame may take. A value of one byte in a frame takes a hundred
/// bytes in a container. A frame that would take more than this is not of the wanted type.
inline constexpr std::size_t maximumDecodedSize = 256U << 20U;

/// The classes of values that cross a conduit, as a set of bits.
enum class ValueClass : std::uint32_t {
  boolean = 1U << 0U,
  integer = 1U << 1U,
  real = 1U << 2U,
  string = 1U << 3U,
  bytes = 1U << 4U,
  array = 1U << 5U,
  dictionary = 1U << 6U,
  url = 1U << 7U,
  uuid = 1U << 8U,
  error = 1U << 9U,
  descriptor = 1U << 10U,
};
class ClassSet {
 public:
  constexpr ClassSet() = default;
  constexpr ClassSet(std::initializer_list<ValueClass> classes) {
    for (ValueClass c : classes) bits_ |= static_cast<std::uint32_t>(c);
  }
  constexpr bool contains(ValueClass c) const {
    return (bits_ & static_cast<std::uint32_t>(c)) != 0;
  }

 private:
  std::uint32_t bits_ = 0;
};

/// Returns whether everything inside the containers of `dictionary`, at any depth, is of one of
/// `classes`.
bool holdsOnly(const Dictionary& dictionary, ClassSet classes);
bool holdsOnly(const Array& array, ClassSet classes);

/// Builds one frame.
class Encoder {
 public:
  Encoder();

  void null();
  void boolean(bool value);
  void integer(std::int64_t value);
  void real(double value);
  /// Bytes that are not UTF-8 are replaced by U+FFFD, because only UTF-8 can travel.
  void string(std::string_view value);
  void bytes(std::span<const std::uint8_t> value);
  void array(std::size_t count);
  void map(std::size_t count);
  void tag(std::uint64_t number);
  void descriptor(const SharedDescriptor& value);
  /// Says that a value has no form here, so that the frame cannot be sent.
  void impossible() { possible_ = false; }
  /// Called around what is inside a container of a value. When it is nested deeper than a frame may
  /// hold, the message and its list of arguments counted, the frame cannot be sent.
  void enter() {
    if (++nesting_ > maximumNesting) impossible();
  }
  void leave() { --nesting_; }

  bool possible() const { return possible_; }
  /// Whether the frame keeps within the limits of size and descriptors.
  bool fits() const;

  /// The frame with its length in front; the encoder is spent.
  std::vector<std::uint8_t> takeFrame();
  std::vector<SharedDescriptor> takeDescriptors() { return std::move(descriptors_); }

 private:
  template <class Write>
  void head(Write write);

  std::vector<std::uint8_t> frame_;
  std::vector<SharedDescriptor> descriptors_;
  std::size_t nesting_ = 2;
  bool possible_ = true;
};

/// The head of one item, or all of the item when it contains no others.
struct Item {
  enum class Kind { null, boolean, integer, real, string, bytes, array, map, tag };
  Kind kind = Kind::null;
  bool boolean = false;
  std::int64_t integer = 0;
  double real = 0;
  std::uint64_t count = 0;   // items of an array, pairs of a map; the number of a tag
  std::string_view content;  // of a string or bytes; lives as long as the frame
};

class Decoder {
 public:
  Decoder(std::span<const std::uint8_t> data, std::span<const SharedDescriptor> descriptors)
      : data_(data), descriptors_(descriptors) {}

  /// Returns the next item's head; absent at the end and for what no frame may hold.
  std::optional<Item> next();
  /// Takes a null when one is next.
  bool takeNull();
  /// Takes an array's head when one is next and has that many items.
  bool takeArray(std::size_t count);
  /// Passes over one whole item.
  bool skip();
  /// Returns the count of the array that is next, without taking it; absent when the next item is
  /// no array.
  std::optional<std::uint64_t> peekArray() const;
  /// Whether the next item is an error.
  bool peekError() const;

  /// Counts what a container is about to take. Returns false when that is too much for one frame.
  bool spend(std::size_t count, std::size_t each);

  bool atEnd() const { return position_ == data_.size(); }
  std::size_t remaining() const { return data_.size() - position_; }
  const SharedDescriptor* descriptor(std::int64_t index) const;

 private:
  std::span<const std::uint8_t> data_;
  std::span<const SharedDescriptor> descriptors_;
  std::size_t position_ = 0;
  std::size_t left_ = maximumDecodedSize;
};

/// Returns whether the bytes hold exactly one item that keeps every rule of the conduit: definite
/// lengths, nesting within the limit, UTF-8, 64-bit integers, string keys of which none comes
/// twice, the tags in their form, and only descriptors that came with the frame.
/// `speaksOfDescriptors`, when given, receives whether any descriptor occurs.
bool isWellFormed(std::span<const std::uint8_t> data, std::size_t descriptorCount,
                  bool* speaksOfDescriptors = nullptr);

void encode(Encoder& to, bool value);
void encode(Encoder& to, std::int64_t value);
void encode(Encoder& to, double value);
void encode(Encoder& to, const std::string& value);
void encode(Encoder& to, const Bytes& value);
void encode(Encoder& to, const URL& value);
void encode(Encoder& to, const UUID& value);
void encode(Encoder& to, const Error& value);
void encode(Encoder& to, const Dictionary& value);
void encode(Encoder& to, const Array& value);
void encode(Encoder& to, const SharedDescriptor& value);
void encode(Encoder& to, const Value& value);
template <class T>
void encode(Encoder& to, const std::optional<T>& value) {
  if (value) {
    encode(to, *value);
  } else {
    to.null();
  }
}

/// Each takes one item when it is of the type, and returns whether it was. After a false the
/// decoder's place is undefined.
bool decode(Decoder& from, bool& value);
bool decode(Decoder& from, std::int64_t& value);
bool decode(Decoder& from, double& value);
bool decode(Decoder& from, std::string& value);
bool decode(Decoder& from, Bytes& value);
bool decode(Decoder& from, std::optional<URL>& value);
bool decode(Decoder& from, UUID& value);
bool decode(Decoder& from, std::optional<Error>& value);
bool decode(Decoder& from, Dictionary& value);
bool decode(Decoder& from, Array& value);
bool decode(Decoder& from, SharedDescriptor& value);
bool decode(Decoder& from, Value& value);
template <class T>
bool decode(Decoder& from, std::optional<T>& value) {
  if (from.takeNull()) {
    value.reset();
    return true;
  }
  return decode(from, value.emplace());
}

/// A list of values of declared types, each of which may be absent, as one array.
template <class... Ts>
void encodeList(Encoder& to, const std::optional<Ts>&... values) {
  to.array(sizeof...(Ts));
  (encode(to, values), ...);
}
template <class... Ts>
bool decodeList(Decoder& from, std::tuple<std::optional<Ts>...>& values) {
  if (!from.takeArray(sizeof...(Ts))) return false;
  return std::apply([&from](auto&... each) { return (decode(from, each) && ...); }, values);
}

}  // namespace qx::conduit
