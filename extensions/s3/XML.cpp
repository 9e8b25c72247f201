#include "extensions/s3/XML.h"

#include <expat.h>

#include <algorithm>
#include <memory>

namespace docsource::s3 {
namespace {

constexpr std::size_t mostDepth = 16;
constexpr std::size_t mostElements = 200'000;

struct Reader {
  XML_ParserStruct* parser;
  /// What is open, the outermost first.
  std::vector<Element> open{1};
  std::size_t count = 0;

  void start(std::string_view name) {
    if (open.size() > mostDepth || ++count > mostElements) {
      XML_StopParser(parser, XML_FALSE);
      return;
    }
    const auto space = name.rfind(' ');
    open.emplace_back().name = space == std::string_view::npos ? name : name.substr(space + 1);
  }
  void end() {
    auto element = std::move(open.back());
    open.pop_back();
    open.back().children.push_back(std::move(element));
  }
};

}  // namespace

const Element* Element::child(std::string_view called) const {
  for (const auto& each : children) {
    if (each.name == called) return &each;
  }
  return nullptr;
}

std::string_view Element::textOf(std::string_view called) const {
  const auto* found = child(called);
  return found ? std::string_view(found->text) : std::string_view();
}

std::optional<Element> elementFrom(std::string_view text) {
  // While it works a store may send spaces, before the answer.
  text.remove_prefix(std::min(text.find_first_not_of(" \t\r\n"), text.size()));
  const std::unique_ptr<XML_ParserStruct, void (*)(XML_Parser)> parser(
      XML_ParserCreateNS(nullptr, ' '), &XML_ParserFree);
  Reader reader{parser.get()};
  XML_SetUserData(parser.get(), &reader);
  XML_SetElementHandler(
      parser.get(),
      [](void* self, const XML_Char* name, const XML_Char**) {
        static_cast<Reader*>(self)->start(name);
      },
      [](void* self, const XML_Char*) { static_cast<Reader*>(self)->end(); });
  XML_SetCharacterDataHandler(parser.get(), [](void* self, const XML_Char* piece, int length) {
    static_cast<Reader*>(self)->open.back().text.append(piece, static_cast<std::size_t>(length));
  });
  XML_SetStartDoctypeDeclHandler(
      parser.get(), [](void* self, const XML_Char*, const XML_Char*, const XML_Char*, int) {
        XML_StopParser(static_cast<Reader*>(self)->parser, XML_FALSE);
      });
  if (XML_Parse(parser.get(), text.data(), static_cast<int>(text.size()), 1) != XML_STATUS_OK ||
      reader.open.size() != 1 || reader.open.front().children.size() != 1) {
    return std::nullopt;
  }
  return std::move(reader.open.front().children.front());
}

}  // namespace docsource::s3
