#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Result.h"
#include "platform/base/Value.h"

/// Property lists in their XML form: an XML declaration, `<plist version="1.0">`, one value. The
/// values are dict, array, string, integer (64-bit signed), real, true, false, data (base64) and
/// date (ISO 8601, UTC), that is Dictionary, Array, std::string, int64_t, double, bool, Bytes and
/// Date. Values of other classes cannot be written.
///
/// A string or key that XML 1.0 cannot carry (control characters, U+FFFE, U+FFFF, and bytes that
/// are no UTF-8) is written in base64 with the attribute encoding="base64", and a carriage return
/// as `&#13;`, so that every string comes out as it went in, byte for byte. Dictionaries are
/// written with their keys in byte order, indented with tabs, so that equal lists are equal files.
namespace qx::PropertyList {

/// Reads one property list. It refuses, with an error whose description gives line and column:
/// anything not well-formed, unknown elements, a key without a value, the same key twice, text
/// between elements, nesting over 512, numbers out of range. It skips a document type, but refuses
/// entities that it declares. It never reads anything but the stream.
Result<Value> read(std::istream& stream);
Result<Value> read(std::string_view text);
/// A missing file gives fileError(ENOENT, its URL).
Result<Value> readFile(const std::string& path);

/// Receives a property list piece by piece, for a reader that wants no tree of values. What it is
/// told is well-formed: every container that begins ends, keys stand only in dictionaries, each is
/// followed by its value, none comes twice, and nesting is at most 512. Only the end may be
/// missing, when parse() comes upon something that it refuses. The texts live as long as the call.
class Handler {
 public:
  virtual ~Handler() = default;
  virtual void beginDictionary() = 0;
  virtual void endDictionary() = 0;
  virtual void beginArray() = 0;
  virtual void endArray() = 0;
  virtual void key(std::string_view text) = 0;
  virtual void string(std::string_view text) = 0;
  /// A value that is neither a string nor a container.
  virtual void scalar(Value&& value) = 0;
};

/// What read() and readFile() refuse is refused here too, with the same errors.
std::optional<Error> parse(std::istream& stream, Handler& handler);
std::optional<Error> parse(std::string_view text, Handler& handler);
std::optional<Error> parseFile(const std::string& path, Handler& handler);

/// The deepest nesting of dictionaries and arrays.
inline constexpr int maximumNesting = 512;

/// Returns the XML form, or an error (and no text) for a value that has none: one of another class,
/// a date outside the years 0 to 9999, or containers nested deeper than 512.
Result<std::string> write(const Value& value);

/// Writes the XML form piece by piece, for a writer that has no Value. Each call emits its element
/// at once; the caller makes sure that keys come before values and in byte order.
class Writer {
 public:
  /// Takes the text as it grows, in pieces of some kilobytes.
  using Output = std::function<void(std::string_view)>;
  explicit Writer(Output output);
  ~Writer();
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  void beginDictionary();
  void endDictionary();
  void beginArray();
  void endArray();
  void key(std::string_view text);
  void string(std::string_view text);
  /// Returns false when the value (or one in it) has no form; what stood before it may have been
  /// written already.
  bool value(const Value& value);
  /// Closes the document and hands over the rest.
  void finish();

 private:
  void indent();
  void line(std::string_view text);
  void element(std::string_view name, std::string_view text);
  void textElement(std::string_view name, std::string_view text);
  void beginContainer(std::string_view name);
  void endContainer(std::string_view name);
  void flushIfLarge();

  Output output_;
  std::string buffer_;
  int depth_ = 0;
  bool containerIsEmpty_ = false;
};

}  // namespace qx::PropertyList
