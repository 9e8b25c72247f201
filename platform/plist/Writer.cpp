// The writer of property lists. A dictionary or array that turns out empty becomes `<dict/>` by
// taking back the end of its opening line, so no output happens between an opening and what
// follows it.

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

#include "platform/base/Text.h"
#include "platform/plist/PropertyList.h"

namespace qx::PropertyList {
namespace {

constexpr std::size_t pieceSize = 1 << 18;

/// What stands for a byte in the text of an element.
enum class Form : std::uint8_t {
  itself,
  ampersand,
  less,
  greater,
  carriageReturn,
  none,
  maybeNone
};

constexpr std::array<Form, 256> forms = [] {
  std::array<Form, 256> table{};
  for (std::size_t c = 0; c < 0x20; ++c) table[c] = Form::none;
  table['\t'] = Form::itself;
  table['\n'] = Form::itself;
  table['\r'] = Form::carriageReturn;
  table['&'] = Form::ampersand;
  table['<'] = Form::less;
  table['>'] = Form::greater;
  table[0xef] = Form::maybeNone;  // begins U+FFFE and U+FFFF: EF BF BE, EF BF BF
  return table;
}();

/// Whether a text has nothing in it but ASCII that stands for itself: what nearly every text is,
/// told eight bytes at a time.
bool isPlain(std::string_view text) {
  constexpr std::uint64_t ones = 0x0101010101010101;
  constexpr std::uint64_t highBits = 0x80 * ones;
  // A high bit where a byte is zero, and nowhere when none is.
  const auto zeros = [](std::uint64_t word) { return (word - ones) & ~word & highBits; };
  std::uint64_t seen = 0;
  const auto look = [&](std::uint64_t word) {
    const std::uint64_t control = word - 0x20 * ones;  // borrows where a byte is below
    const std::uint64_t ampersand = zeros(word ^ '&' * ones);
    const std::uint64_t lessOrGreater = zeros((word | 2 * ones) ^ '>' * ones);
    seen |= ((word | control) & highBits) | ampersand | lessOrGreater;
  };
  std::uint64_t word = 'a' * ones;
  if (text.size() < sizeof word) {
    if (!text.empty()) std::memcpy(&word, text.data(), text.size());
    look(word);
    return seen == 0;
  }
  // The last word may overlap the one before.
  const char* const last = text.data() + text.size() - sizeof word;
  for (const char* place = text.data(); place < last; place += sizeof word) {
    std::memcpy(&word, place, sizeof word);
    look(word);
  }
  std::memcpy(&word, last, sizeof word);
  look(word);
  return seen == 0;
}

Form formOf(char c) { return forms[static_cast<unsigned char>(c)]; }

/// Whether XML 1.0 has characters for the text (https://www.w3.org/TR/xml/#charsets).
bool isXMLText(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const Form form = formOf(text[i]);
    if (form == Form::none) return false;
    if (form == Form::maybeNone) {
      const std::string_view character = text.substr(i, 3);
      if (character == "\xef\xbf\xbe" || character == "\xef\xbf\xbf") return false;
    }
  }
  return isValidUTF8(text);
}

void appendEscaped(std::string& to, std::string_view text) {
  std::size_t begin = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const Form form = formOf(text[i]);
    if (form == Form::itself || form == Form::maybeNone) continue;
    to.append(text, begin, i - begin);
    begin = i + 1;
    switch (form) {
      case Form::ampersand:
        to += "&amp;";
        break;
      case Form::less:
        to += "&lt;";
        break;
      case Form::greater:
        to += "&gt;";
        break;
      default:
        to += "&#13;";
    }
  }
  to.append(text, begin);
}

/// Appends the line of a text that stands for itself, put together first: one append is several
/// times as quick as one for each part. False for any other text.
template <std::size_t startSize, std::size_t endSize>
bool appendPlainLine(std::string& to, int depth, const char (&start)[startSize],
                     std::string_view text, const char (&end)[endSize]) {
  std::array<char, 1536> line;
  const std::size_t most = maximumNesting + startSize + text.size() + endSize;
  if (most > line.size() || !isPlain(text)) return false;
  char* place = std::fill_n(line.data(), depth, '\t');
  place = std::copy_n(start, startSize - 1, place);
  place = std::copy_n(text.data(), text.size(), place);
  place = std::copy_n(end, endSize - 1, place);
  to.append(line.data(), place);
  return true;
}

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

template <class Number>
std::string numberText(Number number) {
  char digits[32];
  return {digits, std::to_chars(digits, digits + sizeof digits, number).ptr};
}

}  // namespace

Writer::Writer(Output output) : output_(std::move(output)) {
  buffer_ = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
}

Writer::~Writer() = default;

void Writer::beginDictionary() { beginContainer("dict"); }
void Writer::endDictionary() { endContainer("dict"); }
void Writer::beginArray() { beginContainer("array"); }
void Writer::endArray() { endContainer("array"); }

void Writer::key(std::string_view text) {
  if (!appendPlainLine(buffer_, depth_, "<key>", text, "</key>\n")) textElement("key", text);
  containerIsEmpty_ = false;
  flushIfLarge();
}

void Writer::string(std::string_view text) {
  if (!appendPlainLine(buffer_, depth_, "<string>", text, "</string>\n")) {
    textElement("string", text);
  }
  containerIsEmpty_ = false;
  flushIfLarge();
}

bool Writer::value(const Value& value) {
  if (const auto* text = value.as<std::string>()) {
    string(*text);
  } else if (const auto* dictionary = value.as<Dictionary>()) {
    if (depth_ == maximumNesting) return false;
    beginDictionary();
    for (const auto& [name, entry] : *dictionary) {
      key(name);
      if (!this->value(entry)) return false;
    }
    endDictionary();
  } else if (const auto* array = value.as<Array>()) {
    if (depth_ == maximumNesting) return false;
    beginArray();
    for (const Value& entry : *array) {
      if (!this->value(entry)) return false;
    }
    endArray();
  } else if (const auto* boolean = value.as<bool>()) {
    line(*boolean ? "<true/>" : "<false/>");
  } else if (const auto* integer = value.as<std::int64_t>()) {
    element("integer", numberText(*integer));
  } else if (const auto* real = value.as<double>()) {
    element("real", numberText(*real));
  } else if (const auto* bytes = value.as<Bytes>()) {
    element("data", base64Encode(*bytes));
  } else if (const auto* date = value.as<Date>()) {
    using std::chrono::sys_days, std::chrono::year;
    if (*date < sys_days(year(0) / 1 / 1) || *date >= sys_days(year(10000) / 1 / 1)) return false;
    element("date", describe(value));
  } else {
    return false;
  }
  return true;
}

void Writer::finish() {
  buffer_ += "</plist>\n";
  output_(buffer_);
  buffer_.clear();
}

void Writer::indent() { buffer_.append(static_cast<std::size_t>(depth_), '\t'); }

void Writer::line(std::string_view text) {
  indent();
  buffer_ += text;
  buffer_ += '\n';
  containerIsEmpty_ = false;
  flushIfLarge();
}

void Writer::element(std::string_view name, std::string_view text) {
  indent();
  buffer_.append("<").append(name).append(">").append(text);
  buffer_.append("</").append(name).append(">\n");
  containerIsEmpty_ = false;
  flushIfLarge();
}

void Writer::textElement(std::string_view name, std::string_view text) {
  indent();
  buffer_.append("<").append(name);
  if (isXMLText(text)) {
    buffer_ += '>';
    appendEscaped(buffer_, text);
  } else {
    buffer_.append(" encoding=\"base64\">").append(base64Encode(bytesOf(text)));
  }
  buffer_.append("</").append(name).append(">\n");
}

void Writer::beginContainer(std::string_view name) {
  indent();
  buffer_.append("<").append(name).append(">\n");
  ++depth_;
  containerIsEmpty_ = true;
}

void Writer::endContainer(std::string_view name) {
  --depth_;
  if (containerIsEmpty_) {
    buffer_.resize(buffer_.size() - 2);
    buffer_ += "/>\n";
    containerIsEmpty_ = false;
    flushIfLarge();
  } else {
    indent();
    buffer_.append("</").append(name).append(">\n");
    flushIfLarge();
  }
}

void Writer::flushIfLarge() {
  if (buffer_.size() < pieceSize) return;
  output_(buffer_);
  buffer_.clear();
}

}  // namespace qx::PropertyList
