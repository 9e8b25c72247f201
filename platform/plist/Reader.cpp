// The reader of property lists: expat(3) fed in pieces, and between its events and the Handler a
// machine that knows what may stand where. It keeps one frame per open container and no more of
// the list than the keys of the open dictionaries. The first thing to refuse stops expat for good
// and keeps the place where it stood.
//
// Keys usually come in ascending order, as the writer leaves them. While they do, a key is compared
// with the one before it alone; a dictionary that breaks the order gets a set of its keys.

#include <expat.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <istream>
#include <memory>
#include <set>
#include <vector>

#include "platform/base/Errors.h"
#include "platform/base/Text.h"
#include "platform/files/FileManager.h"
#include "platform/plist/PropertyList.h"

namespace qx::PropertyList {
namespace {

constexpr int pieceSize = 64 * 1024;
constexpr std::string_view whiteSpace = " \t\r\n";

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(whiteSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(whiteSpace) - first + 1);
}

enum class Element { plist, dictionary, array, key, string, integer, real, yes, no, data, date };

std::optional<Element> elementNamed(std::string_view name) {
  struct Entry {
    std::string_view name;
    Element element;
  };
  static constexpr std::array entries{
      Entry{"string", Element::string},   Entry{"key", Element::key},
      Entry{"dict", Element::dictionary}, Entry{"array", Element::array},
      Entry{"integer", Element::integer}, Entry{"real", Element::real},
      Entry{"true", Element::yes},        Entry{"false", Element::no},
      Entry{"data", Element::data},       Entry{"date", Element::date},
      Entry{"plist", Element::plist},
  };
  for (const Entry& entry : entries) {
    if (entry.name == name) return entry.element;
  }
  return std::nullopt;
}

/// YYYY-MM-DDThh:mm:ssZ and nothing else.
std::optional<Date> dateFromText(std::string_view text) {
  constexpr std::string_view form = "dddd-dd-ddTdd:dd:ddZ";
  if (text.size() != form.size()) return std::nullopt;
  std::array<int, 6> fields{};
  std::size_t field = 0;
  for (std::size_t i = 0; i < form.size(); ++i) {
    if (form[i] == 'd') {
      if (text[i] < '0' || text[i] > '9') return std::nullopt;
      fields[field] = fields[field] * 10 + (text[i] - '0');
    } else {
      if (text[i] != form[i]) return std::nullopt;
      ++field;
    }
  }
  const auto [year, month, day, hour, minute, second] = fields;
  const std::chrono::year_month_day date{std::chrono::year(year),
                                         std::chrono::month(static_cast<unsigned>(month)),
                                         std::chrono::day(static_cast<unsigned>(day))};
  if (!date.ok() || hour > 23 || minute > 59 || second > 59) return std::nullopt;
  return std::chrono::sys_days(date) + std::chrono::hours(hour) + std::chrono::minutes(minute) +
         std::chrono::seconds(second);
}

template <class Number>
std::errc numberFromText(std::string_view text, Number& number) {
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error == std::errc() && end != text.data() + text.size()) return std::errc::invalid_argument;
  return error;
}

class Reader {
 public:
  explicit Reader(Handler& handler)
      : handler_(handler), parser_(XML_ParserCreate(nullptr), &XML_ParserFree) {
    if (!parser_) return;
    XML_SetUserData(parser_.get(), this);
    XML_SetElementHandler(parser_.get(), &Reader::onStart, &Reader::onEnd);
    XML_SetCharacterDataHandler(parser_.get(), &Reader::onText);
    XML_SetEntityDeclHandler(parser_.get(), &Reader::onEntityDeclaration);
    XML_SetSkippedEntityHandler(parser_.get(), &Reader::onSkippedEntity);
  }

  /// `fill` puts up to so many bytes at the place and tells how many; fewer than asked end the
  /// list, less than 0 is a stream that cannot be read.
  template <class Fill>
  std::optional<Error> run(Fill fill) {
    if (!parser_) return posixError(ENOMEM, "The property list could not be read");
    for (bool isLast = false; !isLast;) {
      void* piece = XML_GetBuffer(parser_.get(), pieceSize);
      if (!piece) return posixError(ENOMEM, "The property list could not be read");
      const int size = fill(static_cast<char*>(piece), pieceSize);
      if (size < 0) return posixError(EIO, "The property list could not be read");
      isLast = size < pieceSize;
      if (XML_ParseBuffer(parser_.get(), size, isLast) != XML_STATUS_OK) {
        if (!refusal_) refuse(XML_ErrorString(XML_GetErrorCode(parser_.get())));
        return refusal_;
      }
    }
    return std::nullopt;
  }

 private:
  struct Frame {
    bool isDictionary = false;
    bool hasKey = false;       // a key that waits for its value
    std::size_t keyCount = 0;  // how many keys came
    std::size_t lastKey = 0;   // where the last one begins in keys_
    std::size_t keysBegin = 0;
    std::unique_ptr<std::set<std::string, std::less<>>> unordered;
  };

  static void onStart(void* self, const XML_Char* name, const XML_Char** attributes) {
    static_cast<Reader*>(self)->start(name, attributes);
  }
  static void onEnd(void* self, const XML_Char*) { static_cast<Reader*>(self)->end(); }
  static void onText(void* self, const XML_Char* text, int length) {
    static_cast<Reader*>(self)->characters({text, static_cast<std::size_t>(length)});
  }
  static void onEntityDeclaration(void* self, const XML_Char* name, int, const XML_Char*, int,
                                  const XML_Char*, const XML_Char*, const XML_Char*,
                                  const XML_Char*) {
    static_cast<Reader*>(self)->refuse("declared entity", name);
  }
  static void onSkippedEntity(void* self, const XML_Char* name, int) {
    static_cast<Reader*>(self)->refuse("undefined entity", name);
  }

  void start(std::string_view name, const XML_Char** attributes) {
    // expat may still deliver what it has at hand after it was stopped.
    if (refusal_) return;
    const auto element = elementNamed(name);
    if (!element) return refuse("unknown element", name);
    if (leaf_) return refuse("an element within a value", name);
    if ((*element == Element::plist) == insidePlist_) return refuse("misplaced element", name);
    if (*element == Element::plist) {
      insidePlist_ = true;
      for (const auto& [attribute, value] : specified(attributes)) {
        if (attribute == "version" && value != "1.0") return refuse("unknown version", value);
      }
      return;
    }

    Frame* frame = frames_.empty() ? nullptr : &frames_.back();
    if (*element == Element::key) {
      if (!frame || !frame->isDictionary) return refuse("a key outside a dictionary");
      if (frame->hasKey) return refuse("a key without a value");
    } else {
      if (!frame && hasRoot_) return refuse("a second value");
      if (frame && frame->isDictionary && !frame->hasKey) return refuse("a value without a key");
      if (frame) frame->hasKey = false;
      hasRoot_ = true;
    }

    if (*element == Element::dictionary || *element == Element::array) {
      if (frames_.size() == maximumNesting) return refuse("nesting is too deep");
      const bool isDictionary = *element == Element::dictionary;
      Frame& opened = frames_.emplace_back();
      opened.isDictionary = isDictionary;
      opened.keysBegin = keys_.size();
      isDictionary ? handler_.beginDictionary() : handler_.beginArray();
      return;
    }
    leaf_ = element;
    text_.clear();
    isBase64_ = false;
    if (*element != Element::string && *element != Element::key) return;
    for (const auto& [attribute, value] : specified(attributes)) {
      if (attribute != "encoding") continue;
      if (value != "base64") return refuse("unknown encoding", value);
      isBase64_ = true;
    }
  }

  void end() {
    if (refusal_) return;
    if (leaf_) {
      const Element element = *leaf_;
      leaf_.reset();
      return endLeaf(element);
    }
    if (!frames_.empty()) {
      const Frame& frame = frames_.back();
      if (frame.hasKey) return refuse("a key without a value");
      keys_.resize(frame.keysBegin);
      const bool isDictionary = frame.isDictionary;
      frames_.pop_back();
      isDictionary ? handler_.endDictionary() : handler_.endArray();
      return;
    }
    if (!hasRoot_) refuse("no value");
  }

  void endLeaf(Element element) {
    switch (element) {
      case Element::string:
        if (const auto text = decodedText()) handler_.string(*text);
        return;
      case Element::key:
        if (const auto text = decodedText()) endKey(*text);
        return;
      case Element::yes:
        return handler_.scalar(Value(true));
      case Element::no:
        return handler_.scalar(Value(false));
      case Element::integer:
        return endNumber(std::int64_t{}, "integer");
      case Element::real:
        return endNumber(double{}, "real");
      case Element::data: {
        auto bytes = base64Decode(text_);
        if (!bytes) return refuse("data that is not base64");
        return handler_.scalar(Value(*std::move(bytes)));
      }
      case Element::date: {
        const auto date = dateFromText(trimmed(text_));
        if (!date) return refuse("a malformed date", trimmed(text_));
        return handler_.scalar(Value(*date));
      }
      case Element::plist:
      case Element::dictionary:
      case Element::array:
        return;
    }
  }

  template <class Number>
  void endNumber(Number number, std::string_view name) {
    const std::errc error = numberFromText(trimmed(text_), number);
    if (error == std::errc()) return handler_.scalar(Value(number));
    refuse(std::string(name) +
               (error == std::errc::result_out_of_range ? " out of range" : " is malformed"),
           trimmed(text_));
  }

  void endKey(std::string_view text) {
    Frame& frame = frames_.back();
    const std::string_view last = std::string_view(keys_).substr(frame.lastKey);
    if (!frame.unordered && frame.keyCount != 0 && text <= last) {
      frame.unordered = std::make_unique<std::set<std::string, std::less<>>>();
      for (std::size_t at = frame.keysBegin; at < keys_.size();) {
        std::size_t size;
        keys_.copy(reinterpret_cast<char*>(&size), sizeof size, at);
        frame.unordered->insert(frame.unordered->end(), keys_.substr(at + sizeof size, size));
        at += sizeof size + size;
      }
    }
    if (frame.unordered) {
      if (!frame.unordered->emplace(text).second) return refuse("a key twice", text);
    } else {
      const std::size_t size = text.size();
      keys_.append(reinterpret_cast<const char*>(&size), sizeof size);
      frame.lastKey = keys_.size();
      keys_ += text;
    }
    ++frame.keyCount;
    frame.hasKey = true;
    handler_.key(text);
  }

  void characters(std::string_view text) {
    if (refusal_) return;
    if (leaf_ && *leaf_ != Element::yes && *leaf_ != Element::no) {
      text_ += text;
    } else if (text.find_first_not_of(whiteSpace) != std::string_view::npos) {
      refuse("text between elements");
    }
  }

  /// The text of a string or key as it was before it was written.
  std::optional<std::string_view> decodedText() {
    if (!isBase64_) return text_;
    const auto bytes = base64Decode(text_);
    if (!bytes) {
      refuse("text that is not base64");
      return std::nullopt;
    }
    text_.assign(bytes->begin(), bytes->end());
    return text_;
  }

  /// The attributes that stand in the list itself, not those that a document type adds.
  std::vector<std::pair<std::string_view, std::string_view>> specified(
      const XML_Char** attributes) const {
    std::vector<std::pair<std::string_view, std::string_view>> result;
    const int count = attributes[0] ? XML_GetSpecifiedAttributeCount(parser_.get()) : 0;
    for (int i = 0; i < count; i += 2) result.emplace_back(attributes[i], attributes[i + 1]);
    return result;
  }

  void refuse(std::string_view why, std::optional<std::string_view> what = std::nullopt) {
    if (refusal_) return;
    std::string description =
        "The property list cannot be read: line " +
        std::to_string(XML_GetCurrentLineNumber(parser_.get())) + ", column " +
        std::to_string(XML_GetCurrentColumnNumber(parser_.get()) + 1) + ": " + std::string(why);
    if (what) description += " \"" + excerpt(*what) + "\"";
    refusal_.emplace(std::string(QXStandardErrorDomain), fileUnknownError, description + ".");
    XML_StopParser(parser_.get(), XML_FALSE);
  }

  /// The beginning of a text, for a person: cut between characters, valid UTF-8.
  static std::string excerpt(std::string_view text) {
    constexpr std::size_t longest = 80;
    std::string begin(text.substr(0, longest));
    if (text.size() > longest) {
      while (!begin.empty() && (static_cast<unsigned char>(text[begin.size()]) & 0xc0) == 0x80) {
        begin.pop_back();
      }
      begin += "…";
    }
    return isValidUTF8(begin) ? begin : "(no text)";
  }

  Handler& handler_;
  std::unique_ptr<XML_ParserStruct, void (*)(XML_Parser)> parser_;
  std::optional<Error> refusal_;
  std::vector<Frame> frames_;
  std::string keys_;  // of the open dictionaries, each behind its size
  std::string text_;  // of the leaf that is open
  std::optional<Element> leaf_;
  bool isBase64_ = false;
  bool insidePlist_ = false;
  bool hasRoot_ = false;
};

}  // namespace

std::optional<Error> parse(std::istream& stream, Handler& handler) {
  return Reader(handler).run([&stream](char* to, int size) {
    stream.read(to, size);
    return stream.bad() ? -1 : static_cast<int>(stream.gcount());
  });
}

std::optional<Error> parse(std::string_view text, Handler& handler) {
  return Reader(handler).run([&text](char* to, int size) {
    const std::size_t count = text.copy(to, static_cast<std::size_t>(size));
    text.remove_prefix(count);
    return static_cast<int>(count);
  });
}

std::optional<Error> parseFile(const std::string& path, Handler& handler) {
  const auto stream = FileManager::inputStream(path);
  if (!stream) return fileError(errno, URL::fileURL(path));
  auto error = parse(*stream, handler);
  if (!error) return std::nullopt;
  if (stream->bad()) return fileError(EIO, URL::fileURL(path));
  Error::Info info = error->info();
  info.emplace(QXURLErrorKey, URL::fileURL(path));
  return Error(error->domain(), error->code(), std::move(info));
}

}  // namespace qx::PropertyList
