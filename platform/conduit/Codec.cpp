// The values of the conduit as CBOR. libcbor's streaming interface writes and reads the heads of
// items; what the conduit allows of CBOR, and how its own classes are tagged, is decided here.

#include "platform/conduit/Codec.h"

#include <cbor.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

#include "platform/base/Text.h"

namespace qx::conduit {
namespace {

constexpr std::uint64_t urlTag = 32;
constexpr std::uint64_t uuidTag = 37;
constexpr std::uint64_t errorTag = 17746;
constexpr std::uint64_t descriptorTag = 17988;

constexpr std::size_t longestHead = 9;

/// What libcbor's callbacks leave behind: the item, unless it is none that a conduit carries.
struct Reading {
  Item item;
  bool allowed = true;
};

Reading& reading(void* context) { return *static_cast<Reading*>(context); }

void takeUnsigned(void* context, std::uint64_t value) {
  auto& [item, allowed] = reading(context);
  item.kind = Item::Kind::integer;
  item.integer = static_cast<std::int64_t>(value);
  allowed = value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
}

/// A negative integer n travels as -1 - n.
void takeNegative(void* context, std::uint64_t value) {
  takeUnsigned(context, value);
  reading(context).item.integer = -1 - reading(context).item.integer;
}

void takeReal(void* context, double value) {
  reading(context).item.kind = Item::Kind::real;
  reading(context).item.real = value;
}

void takeContent(void* context, Item::Kind kind, cbor_data data, std::size_t size) {
  reading(context).item.kind = kind;
  reading(context).item.content = {reinterpret_cast<const char*>(data), size};
}

void takeCount(void* context, Item::Kind kind, std::uint64_t count) {
  reading(context).item.kind = kind;
  reading(context).item.count = count;
}

void refuse(void* context) { reading(context).allowed = false; }

const cbor_callbacks& callbacks() {
  static const cbor_callbacks table = [] {
    cbor_callbacks c = cbor_empty_callbacks;
    c.uint8 = [](void* context, std::uint8_t value) { takeUnsigned(context, value); };
    c.uint16 = [](void* context, std::uint16_t value) { takeUnsigned(context, value); };
    c.uint32 = [](void* context, std::uint32_t value) { takeUnsigned(context, value); };
    c.uint64 = [](void* context, std::uint64_t value) { takeUnsigned(context, value); };
    c.negint8 = [](void* context, std::uint8_t value) { takeNegative(context, value); };
    c.negint16 = [](void* context, std::uint16_t value) { takeNegative(context, value); };
    c.negint32 = [](void* context, std::uint32_t value) { takeNegative(context, value); };
    c.negint64 = [](void* context, std::uint64_t value) { takeNegative(context, value); };
    c.byte_string = [](void* context, cbor_data data, size_t size) {
      takeContent(context, Item::Kind::bytes, data, size);
    };
    c.string = [](void* context, cbor_data data, size_t size) {
      takeContent(context, Item::Kind::string, data, size);
    };
    c.array_start = [](void* context, size_t n) { takeCount(context, Item::Kind::array, n); };
    c.map_start = [](void* context, size_t n) { takeCount(context, Item::Kind::map, n); };
    c.tag = [](void* context, std::uint64_t n) { takeCount(context, Item::Kind::tag, n); };
    c.float2 = [](void* context, float value) { takeReal(context, value); };
    c.float4 = [](void* context, float value) { takeReal(context, value); };
    c.float8 = takeReal;
    c.null = [](void* context) { reading(context).item.kind = Item::Kind::null; };
    c.boolean = [](void* context, bool value) {
      reading(context).item.kind = Item::Kind::boolean;
      reading(context).item.boolean = value;
    };
    c.byte_string_start = refuse;
    c.string_start = refuse;
    c.indef_array_start = refuse;
    c.indef_map_start = refuse;
    c.indef_break = refuse;
    c.undefined = refuse;
    return c;
  }();
  return table;
}

/// What a value takes in a container, with a small allocation of its own; what the node of an entry
/// takes besides; and what an error does, which always has an info dictionary with a description.
constexpr std::size_t valueCost = sizeof(Value) + 32;
constexpr std::size_t entryCost = valueCost + sizeof(std::string) + 64;
constexpr std::size_t errorCost = 512;

/// What the rules want of the next item, while a frame is checked.
struct Level {
  enum class Kind { array, map, error };
  Kind kind;
  std::uint64_t remaining;  // items; a pair of a map counts as two
  std::size_t firstKey;     // of a map, among the open keys
  bool keysAscend = true;
};

/// The keys of the maps that are open while a frame is checked, those of the innermost last. A
/// frame may hold millions: each is only its place, and only keys out of order are sorted.
class OpenKeys {
 public:
  explicit OpenKeys(std::span<const std::uint8_t> frame) : frame_(frame) {}

  std::size_t count() const { return keys_.size(); }

  /// False when it is the same as the one before.
  bool add(Level& level, std::string_view text) {
    if (keys_.size() > level.firstKey) {
      const int order = textOf(keys_.back()).compare(text);
      if (order == 0) return false;
      if (order > 0) level.keysAscend = false;
    }
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    keys_.push_back({static_cast<std::uint32_t>(bytes - frame_.data()),
                     static_cast<std::uint32_t>(text.size())});
    return true;
  }

  /// Forgets the keys of a map that ends; false when one came twice.
  bool close(const Level& level) {
    const auto first = keys_.begin() + static_cast<std::ptrdiff_t>(level.firstKey);
    bool areUnique = true;
    if (!level.keysAscend) {
      std::sort(first, keys_.end(), [this](Key a, Key b) { return textOf(a) < textOf(b); });
      areUnique = std::adjacent_find(first, keys_.end(), [this](Key a, Key b) {
                    return textOf(a) == textOf(b);
                  }) == keys_.end();
    }
    keys_.erase(first, keys_.end());
    return areUnique;
  }

 private:
  struct Key {
    std::uint32_t begin, size;  // a frame is no larger
  };

  std::string_view textOf(Key key) const {
    const auto text = frame_.subspan(key.begin, key.size);
    return {reinterpret_cast<const char*>(text.data()), text.size()};
  }

  std::span<const std::uint8_t> frame_;
  std::vector<Key> keys_;
};

std::string withoutInvalidUTF8(std::string_view text) {
  std::string valid;
  while (!text.empty()) {
    std::size_t length = 1;
    while (length < 4 && length <= text.size() && !isValidUTF8(text.substr(0, length))) ++length;
    if (length <= text.size() && length <= 4 && isValidUTF8(text.substr(0, length))) {
      valid += text.substr(0, length);
      text.remove_prefix(length);
    } else {
      valid += "\xEF\xBF\xBD";
      text.remove_prefix(1);
    }
  }
  return valid;
}

bool takeTag(Decoder& from, std::uint64_t number) {
  auto item = from.next();
  return item && item->kind == Item::Kind::tag && item->count == number;
}

bool takeText(Decoder& from, std::string& value) {
  auto item = from.next();
  if (!item || item->kind != Item::Kind::string) return false;
  value.assign(item->content);
  return true;
}

bool isInside(const Value& value, ClassSet classes) {
  struct Visitor {
    ClassSet classes;
    bool operator()(const Value::Null&) const { return true; }
    bool operator()(bool) const { return classes.contains(ValueClass::boolean); }
    bool operator()(std::int64_t) const { return classes.contains(ValueClass::integer); }
    bool operator()(double) const { return classes.contains(ValueClass::real); }
    bool operator()(const std::string&) const { return classes.contains(ValueClass::string); }
    bool operator()(const Bytes&) const { return classes.contains(ValueClass::bytes); }
    bool operator()(const Date&) const { return false; }
    bool operator()(const Array& array) const {
      return classes.contains(ValueClass::array) && holdsOnly(array, classes);
    }
    bool operator()(const Dictionary& dictionary) const {
      return classes.contains(ValueClass::dictionary) && holdsOnly(dictionary, classes);
    }
    bool operator()(const URL&) const { return classes.contains(ValueClass::url); }
    bool operator()(const UUID&) const { return classes.contains(ValueClass::uuid); }
    bool operator()(const Error&) const { return classes.contains(ValueClass::error); }
    bool operator()(const SharedDescriptor&) const {
      return classes.contains(ValueClass::descriptor);
    }
  };
  return std::visit(Visitor{classes}, value.content());
}

}  // namespace

bool holdsOnly(const Array& array, ClassSet classes) {
  return std::all_of(array.begin(), array.end(),
                     [classes](const Value& each) { return isInside(each, classes); });
}

bool holdsOnly(const Dictionary& dictionary, ClassSet classes) {
  return std::all_of(dictionary.begin(), dictionary.end(),
                     [classes](const auto& entry) { return isInside(entry.second, classes); });
}

Encoder::Encoder() {
  frame_.reserve(256);
  frame_.resize(frameHeaderSize);
}

template <class Write>
void Encoder::head(Write write) {
  std::array<unsigned char, longestHead> buffer;
  std::size_t size = write(buffer.data(), buffer.size());
  frame_.insert(frame_.end(), buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(size));
}

void Encoder::null() { head(cbor_encode_null); }

void Encoder::boolean(bool value) {
  head([value](unsigned char* to, size_t size) { return cbor_encode_bool(value, to, size); });
}

void Encoder::integer(std::int64_t value) {
  head([value](unsigned char* to, size_t size) {
    return value >= 0 ? cbor_encode_uint(static_cast<std::uint64_t>(value), to, size)
                      : cbor_encode_negint(static_cast<std::uint64_t>(-1 - value), to, size);
  });
}

void Encoder::real(double value) {
  head([value](unsigned char* to, size_t size) { return cbor_encode_double(value, to, size); });
}

void Encoder::string(std::string_view value) {
  std::string repaired;
  if (!isValidUTF8(value)) {
    repaired = withoutInvalidUTF8(value);
    value = repaired;
  }
  head([value](unsigned char* to, size_t size) {
    return cbor_encode_string_start(value.size(), to, size);
  });
  frame_.insert(frame_.end(), value.begin(), value.end());
}

void Encoder::bytes(std::span<const std::uint8_t> value) {
  head([value](unsigned char* to, size_t size) {
    return cbor_encode_bytestring_start(value.size(), to, size);
  });
  frame_.insert(frame_.end(), value.begin(), value.end());
}

void Encoder::array(std::size_t count) {
  head(
      [count](unsigned char* to, size_t size) { return cbor_encode_array_start(count, to, size); });
}

void Encoder::map(std::size_t count) {
  head([count](unsigned char* to, size_t size) { return cbor_encode_map_start(count, to, size); });
}

void Encoder::tag(std::uint64_t number) {
  head([number](unsigned char* to, size_t size) { return cbor_encode_tag(number, to, size); });
}

void Encoder::descriptor(const SharedDescriptor& value) {
  if (!value || !*value) {
    null();
    return;
  }
  tag(descriptorTag);
  integer(static_cast<std::int64_t>(descriptors_.size()));
  descriptors_.push_back(value);
}

bool Encoder::fits() const {
  return frame_.size() - frameHeaderSize <= maximumFrameSize &&
         descriptors_.size() <= maximumDescriptors;
}

std::vector<std::uint8_t> Encoder::takeFrame() {
  auto length = static_cast<std::uint32_t>(frame_.size() - frameHeaderSize);
  for (std::size_t i = 0; i < frameHeaderSize; ++i) {
    frame_[i] = static_cast<std::uint8_t>(length >> (8 * (frameHeaderSize - 1 - i)));
  }
  return std::move(frame_);
}

std::optional<Item> Decoder::next() {
  if (atEnd()) return std::nullopt;
  Reading result;
  cbor_decoder_result step =
      cbor_stream_decode(data_.data() + position_, remaining(), &callbacks(), &result);
  if (step.status != CBOR_DECODER_FINISHED || !result.allowed) return std::nullopt;
  position_ += step.read;
  return result.item;
}

bool Decoder::takeNull() {
  constexpr std::uint8_t null = 0xF6;
  if (atEnd() || data_[position_] != null) return false;
  ++position_;
  return true;
}

bool Decoder::takeArray(std::size_t count) {
  auto item = next();
  return item && item->kind == Item::Kind::array && item->count == count;
}

std::optional<std::uint64_t> Decoder::peekArray() const {
  Decoder ahead = *this;
  auto item = ahead.next();
  if (!item || item->kind != Item::Kind::array) return std::nullopt;
  return item->count;
}

bool Decoder::peekError() const {
  Decoder ahead = *this;
  return takeTag(ahead, errorTag);
}

bool Decoder::spend(std::size_t count, std::size_t each) {
  if (count > left_ / each) return false;
  left_ -= count * each;
  return true;
}

bool Decoder::skip() {
  for (std::uint64_t pending = 1; pending > 0; --pending) {
    auto item = next();
    if (!item) return false;
    if (item->kind == Item::Kind::array) pending += item->count;
    if (item->kind == Item::Kind::map) pending += 2 * item->count;
    if (item->kind == Item::Kind::tag) pending += 1;
  }
  return true;
}

const SharedDescriptor* Decoder::descriptor(std::int64_t index) const {
  if (index < 0 || static_cast<std::uint64_t>(index) >= descriptors_.size()) return nullptr;
  return &descriptors_[static_cast<std::size_t>(index)];
}

bool isWellFormed(std::span<const std::uint8_t> data, std::size_t descriptorCount,
                  bool* speaksOfDescriptors) {
  Decoder decoder(data, {});
  std::vector<Level> levels;
  OpenKeys keys(data);
  bool complete = false;
  while (!complete) {
    auto item = decoder.next();
    if (!item) return false;

    bool isErrorBody = false;
    if (!levels.empty()) {
      Level& level = levels.back();
      bool isKey = level.kind == Level::Kind::map && level.remaining % 2 == 0;
      if (isKey) {
        if (item->kind != Item::Kind::string || !keys.add(level, item->content)) return false;
      }
      // The array of an error: domain, code, info.
      if (level.kind == Level::Kind::error) {
        if (level.remaining == 3 && item->kind != Item::Kind::string) return false;
        if (level.remaining == 2 && item->kind != Item::Kind::integer) return false;
        if (level.remaining == 1 && item->kind != Item::Kind::map) return false;
      }
      --level.remaining;
    }

    if (item->kind == Item::Kind::tag) {
      const std::uint64_t tag = item->count;
      item = decoder.next();
      if (!item) return false;
      if (tag == urlTag) {
        if (item->kind != Item::Kind::string) return false;
      } else if (tag == uuidTag) {
        if (item->kind != Item::Kind::bytes || item->content.size() != sizeof(UUID::bytes)) {
          return false;
        }
      } else if (tag == descriptorTag) {
        if (item->kind != Item::Kind::integer || item->integer < 0 ||
            static_cast<std::uint64_t>(item->integer) >= descriptorCount) {
          return false;
        }
        if (speaksOfDescriptors) *speaksOfDescriptors = true;
      } else if (tag == errorTag) {
        if (item->kind != Item::Kind::array || item->count != 3) return false;
        isErrorBody = true;
      } else {
        return false;
      }
    }

    if (item->kind == Item::Kind::string && !isValidUTF8(item->content)) return false;
    if (item->kind == Item::Kind::array || item->kind == Item::Kind::map) {
      bool isMap = item->kind == Item::Kind::map;
      if (item->count > decoder.remaining() / (isMap ? 2 : 1)) return false;
      if (levels.size() == maximumNesting) return false;
      levels.push_back({isErrorBody ? Level::Kind::error
                        : isMap     ? Level::Kind::map
                                    : Level::Kind::array,
                        isMap ? item->count * 2 : item->count, keys.count()});
    }

    while (!levels.empty() && levels.back().remaining == 0) {
      if (!keys.close(levels.back())) return false;
      levels.pop_back();
    }
    complete = levels.empty();
  }
  return decoder.atEnd();
}

void encode(Encoder& to, bool value) { to.boolean(value); }
void encode(Encoder& to, std::int64_t value) { to.integer(value); }
void encode(Encoder& to, double value) { to.real(value); }
void encode(Encoder& to, const std::string& value) { to.string(value); }
void encode(Encoder& to, const Bytes& value) { to.bytes(value); }

void encode(Encoder& to, const URL& value) {
  to.tag(urlTag);
  to.string(value.absoluteString());
}

void encode(Encoder& to, const UUID& value) {
  to.tag(uuidTag);
  to.bytes(value.bytes);
}

void encode(Encoder& to, const Error& value) {
  to.tag(errorTag);
  to.array(3);
  to.enter();
  to.string(value.domain());
  to.integer(value.code());
  encode(to, value.info());
  to.leave();
}

void encode(Encoder& to, const Dictionary& value) {
  to.map(value.size());
  to.enter();
  for (const auto& [key, each] : value) {
    // Repaired, it might become equal to another key.
    if (!isValidUTF8(key)) to.impossible();
    to.string(key);
    encode(to, each);
  }
  to.leave();
}

void encode(Encoder& to, const Array& value) {
  to.array(value.size());
  to.enter();
  for (const Value& each : value) encode(to, each);
  to.leave();
}

void encode(Encoder& to, const SharedDescriptor& value) { to.descriptor(value); }

void encode(Encoder& to, const Value& value) {
  std::visit(
      [&to](const auto& content) {
        using Content = std::decay_t<decltype(content)>;
        if constexpr (std::is_same_v<Content, Value::Null>) {
          to.null();
        } else if constexpr (std::is_same_v<Content, Date>) {
          to.impossible();
        } else {
          encode(to, content);
        }
      },
      value.content());
}

bool decode(Decoder& from, bool& value) {
  auto item = from.next();
  if (!item || item->kind != Item::Kind::boolean) return false;
  value = item->boolean;
  return true;
}

bool decode(Decoder& from, std::int64_t& value) {
  auto item = from.next();
  if (!item || item->kind != Item::Kind::integer) return false;
  value = item->integer;
  return true;
}

bool decode(Decoder& from, double& value) {
  auto item = from.next();
  if (!item || item->kind != Item::Kind::real) return false;
  value = item->real;
  return true;
}

bool decode(Decoder& from, std::string& value) { return takeText(from, value); }

bool decode(Decoder& from, Bytes& value) {
  auto item = from.next();
  if (!item || item->kind != Item::Kind::bytes) return false;
  value.assign(item->content.begin(), item->content.end());
  return true;
}

bool decode(Decoder& from, std::optional<URL>& value) {
  value.reset();
  if (from.takeNull()) return true;
  std::string text;
  if (!takeTag(from, urlTag) || !takeText(from, text)) return false;
  value.emplace(std::move(text));
  return true;
}

bool decode(Decoder& from, UUID& value) {
  if (!takeTag(from, uuidTag)) return false;
  auto item = from.next();
  if (!item || item->kind != Item::Kind::bytes || item->content.size() != value.bytes.size()) {
    return false;
  }
  std::memcpy(value.bytes.data(), item->content.data(), value.bytes.size());
  return true;
}

bool decode(Decoder& from, std::optional<Error>& value) {
  value.reset();
  if (from.takeNull()) return true;
  std::string domain;
  std::int64_t code = 0;
  Dictionary info;
  if (!from.spend(1, errorCost) || !takeTag(from, errorTag) || !from.takeArray(3) ||
      !takeText(from, domain) || !decode(from, code) || !decode(from, info)) {
    return false;
  }
  value.emplace(std::move(domain), code, std::move(info));
  return true;
}

bool decode(Decoder& from, Dictionary& value) {
  auto item = from.next();
  if (!item || item->kind != Item::Kind::map || !from.spend(item->count, entryCost)) return false;
  value.clear();
  for (std::uint64_t i = 0; i < item->count; ++i) {
    std::string key;
    Value content;
    if (!takeText(from, key) || !decode(from, content)) return false;
    value.insert_or_assign(std::move(key), std::move(content));
  }
  return true;
}

bool decode(Decoder& from, Array& value) {
  auto item = from.next();
  if (!item || item->kind != Item::Kind::array || !from.spend(item->count, valueCost)) return false;
  value.clear();
  value.reserve(item->count);
  for (std::uint64_t i = 0; i < item->count; ++i) {
    if (!decode(from, value.emplace_back())) return false;
  }
  return true;
}

bool decode(Decoder& from, SharedDescriptor& value) {
  if (!takeTag(from, descriptorTag)) return false;
  auto item = from.next();
  if (!item || item->kind != Item::Kind::integer) return false;
  const SharedDescriptor* descriptor = from.descriptor(item->integer);
  if (!descriptor || !*descriptor) return false;
  value = *descriptor;
  return true;
}

// Any value: looks at the head and lets the overload of the type take it whole. Nesting is bounded
// by isWellFormed().
bool decode(Decoder& from, Value& value) {
  const auto take = [&from, &value](auto content) {
    if (!decode(from, content)) return false;
    if constexpr (requires {
                    *content;
                    content.has_value();
                  }) {
      value = Value(std::move(*content));
    } else {
      value = Value(std::move(content));
    }
    return true;
  };
  Decoder ahead = from;
  auto item = ahead.next();
  if (!item) return false;
  switch (item->kind) {
    case Item::Kind::null:
      value = Value();
      return from.takeNull();
    case Item::Kind::boolean:
      return take(false);
    case Item::Kind::integer:
      return take(std::int64_t{0});
    case Item::Kind::real:
      return take(0.0);
    case Item::Kind::string:
      return take(std::string());
    case Item::Kind::bytes:
      return take(Bytes());
    case Item::Kind::array:
      return take(Array());
    case Item::Kind::map:
      return take(Dictionary());
    case Item::Kind::tag:
      break;
  }
  switch (item->count) {
    case urlTag:
      return take(std::optional<URL>());
    case uuidTag:
      return take(UUID());
    case errorTag:
      return take(std::optional<Error>());
    case descriptorTag:
      return take(SharedDescriptor());
    default:
      return false;
  }
}

}  // namespace qx::conduit
