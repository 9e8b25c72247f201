// expat(3) fed in pieces, with namespaces. A property counts when the status of its group does
// (propstat), and that comes after the properties: they wait in `group_`.

#include "extensions/webdav/MultiStatus.h"

#include <expat.h>

#include <charconv>

#include "extensions/http/HTTP.h"

namespace docsource::webdav {
namespace {

constexpr std::size_t mostText = 64UL * 1024;
constexpr unsigned mostDepth = 64;
/// Of a tag or comment; the parser begins with it anew at each piece.
constexpr std::size_t mostOpen = 1024UL * 1024;

Error notMultiStatus(const std::string& why) {
  return remoteError(RemoteProblem::unreachable,
                     "What answers is not a WebDAV server, or something in between changes its "
                     "answers: " +
                         why + ".");
}

std::string trimmed(const std::string& text) {
  constexpr std::string_view white = " \t\r\n";
  const auto first = text.find_first_not_of(white);
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(white) - first + 1);
}

/// The number in "HTTP/1.1 200 OK"; 0 when there is none.
int statusIn(const std::string& text) {
  const auto space = text.find(' ');
  int status = 0;
  if (space != std::string::npos) {
    std::from_chars(text.data() + space + 1, text.data() + text.size(), status);
  }
  return status;
}

}  // namespace

class MultiStatus::Parser {
 public:
  explicit Parser(Visitor visitor)
      : visitor_(std::move(visitor)), expat_(XML_ParserCreateNS(nullptr, ' '), &XML_ParserFree) {
    XML_SetUserData(expat_.get(), this);
    XML_SetElementHandler(
        expat_.get(),
        [](void* self, const XML_Char* name, const XML_Char**) {
          static_cast<Parser*>(self)->start(name);
        },
        [](void* self, const XML_Char* name) { static_cast<Parser*>(self)->end(name); });
    XML_SetCharacterDataHandler(expat_.get(), [](void* self, const XML_Char* text, int length) {
      static_cast<Parser*>(self)->characters({text, static_cast<std::size_t>(length)});
    });
    XML_SetStartDoctypeDeclHandler(
        expat_.get(), [](void* self, const XML_Char*, const XML_Char*, const XML_Char*, int) {
          static_cast<Parser*>(self)->refuse(notMultiStatus("it has a document type"));
        });
  }

  Result<void> parse(std::string_view piece, bool isLast) {
    if (error_) return *error_;
    open_ += piece.size();
    if (open_ > mostOpen) refuse(notMultiStatus("a tag is too long"));
    if (error_) return *error_;
    if (XML_Parse(expat_.get(), piece.data(), static_cast<int>(piece.size()), isLast ? 1 : 0) !=
            XML_STATUS_OK &&
        !error_) {
      error_ = notMultiStatus(XML_ErrorString(XML_GetErrorCode(expat_.get())));
    }
    if (error_) return *error_;
    return {};
  }

 private:
  void refuse(Error error) {
    if (error_) return;
    error_ = std::move(error);
    XML_StopParser(expat_.get(), XML_FALSE);
  }

  void start(std::string_view name) {
    open_ = 0;
    if (error_) return;
    if (++depth_ > mostDepth) return refuse(notMultiStatus("it is nested too deep"));
    if (depth_ == 1 && name != "DAV: multistatus") {
      return refuse(notMultiStatus("it is something else"));
    }
    text_.clear();
    if (name == "DAV: response") {
      resource_ = {};
    } else if (name == "DAV: propstat") {
      group_ = {};
      groupStatus_ = 0;
      isInGroup_ = true;
    } else if (name == "DAV: collection" && isInGroup_) {
      group_.isCollection = true;
    }
  }

  void end(std::string_view name) {
    open_ = 0;
    if (error_) return;
    --depth_;
    const auto text = trimmed(text_);
    text_.clear();
    if (isInGroup_) {
      endInGroup(name, text);
    } else if (name == "DAV: href" && resource_.href.empty()) {
      resource_.href = text;
    } else if (name == "DAV: status") {
      resource_.status = statusIn(text);
    } else if (name == "DAV: response") {
      if (auto visited = visitor_(resource_); !visited) refuse(visited.error());
    }
  }

  void endInGroup(std::string_view name, const std::string& text) {
    if (name == "DAV: propstat") {
      isInGroup_ = false;
      if (groupStatus_ / 100 == 2) adopt();
    } else if (name == "DAV: status") {
      groupStatus_ = statusIn(text);
    } else if (text.empty()) {
      return;
    } else if (name == "DAV: getetag") {
      group_.tag = text;
    } else if (name == "DAV: getlastmodified") {
      group_.modified = text;
    } else if (name == "DAV: getcontentlength") {
      group_.size = http::sizeIn(text);
    } else if (name == "http://owncloud.org/ns id" ||
               (name == "http://owncloud.org/ns fileid" && !group_.identifier)) {
      group_.identifier = text;
    }
  }

  void adopt() {
    resource_.isCollection |= group_.isCollection;
    if (group_.tag) resource_.tag = std::move(group_.tag);
    if (group_.modified) resource_.modified = std::move(group_.modified);
    if (group_.size) resource_.size = group_.size;
    if (group_.identifier) resource_.identifier = std::move(group_.identifier);
  }

  void characters(std::string_view text) {
    if (error_) return;
    if (text_.size() + text.size() > mostText) {
      return refuse(notMultiStatus("a property is too long"));
    }
    text_ += text;
  }

  const Visitor visitor_;
  const std::unique_ptr<XML_ParserStruct, void (*)(XML_Parser)> expat_;
  std::optional<Error> error_;
  std::size_t open_ = 0;
  unsigned depth_ = 0;
  std::string text_;
  Resource resource_;
  Resource group_;
  int groupStatus_ = 0;
  bool isInGroup_ = false;
};

MultiStatus::MultiStatus(Visitor visitor) : parser_(std::make_unique<Parser>(std::move(visitor))) {}
MultiStatus::~MultiStatus() = default;

Result<void> MultiStatus::feed(std::string_view piece) { return parser_->parse(piece, false); }
Result<void> MultiStatus::finish() { return parser_->parse({}, true); }

}  // namespace docsource::webdav
