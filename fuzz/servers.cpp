// What servers answer, and the ranges that the mark of a file tells of. The first byte says what
// the rest is: ranges; an answer about resources, which the second byte cuts into pieces; or an
// answer of a store. What is read in pieces is what is read as a whole, and nothing is nested
// deeper than an answer is.

#include <string>
#include <vector>

#include "extensions/s3/XML.h"
#include "extensions/webdav/MultiStatus.h"
#include "fuzz/Fuzz.h"
#include "platform/base/ByteRanges.h"

using qx::fuzz::require;

namespace {

void readRanges(std::string_view text) {
  const auto ranges = qx::ByteRanges::parse(text);
  if (!ranges) return;
  require(qx::ByteRanges::parse(ranges->text()) == ranges, "ranges are what their text says");
  std::uint64_t before = 0;
  for (const auto& [begin, end] : ranges->all()) {
    require(begin < end && (before == 0 || begin > before), "ranges are in order, and apart");
    require(ranges->contains({begin, end}), "what is in them is in them");
    before = end;
  }
}

/// The resources of an answer, and whether it was whole.
std::pair<std::vector<std::string>, bool> resourcesIn(std::string_view text, std::size_t piece) {
  std::vector<std::string> found;
  docsource::webdav::MultiStatus reader([&](const docsource::webdav::Resource& resource) {
    found.push_back(resource.href + " " + std::to_string(resource.status) + " " +
                    resource.tag.value_or("none") + " " +
                    std::to_string(resource.size.value_or(0)) + " " +
                    resource.modified.value_or("none") + " " +
                    resource.identifier.value_or("none") + (resource.isCollection ? "/" : ""));
    return docsource::Result<void>();
  });
  for (std::size_t at = 0; at < text.size(); at += piece) {
    if (!reader.feed(text.substr(at, piece))) return {found, false};
  }
  return {found, reader.finish().ok()};
}

std::size_t depthOf(const docsource::s3::Element& element) {
  std::size_t depth = 0;
  for (const auto& child : element.children) depth = std::max(depth, depthOf(child));
  return depth + 1;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qx::fuzz::Input input(data, size);
  const auto what = input.byte() % 3;
  const std::size_t piece = what == 1 ? input.byte() + 1U : 1;
  const auto text = qx::fuzz::textOf(input.rest());
  if (what == 0) {
    readRanges(text);
  } else if (what == 1) {
    const auto whole = resourcesIn(text, text.size() + 1);
    const auto inPieces = resourcesIn(text, piece);
    require(whole.second == inPieces.second, "an answer is whole however it comes");
    require(!whole.second || whole.first == inPieces.first, "and says the same");
  } else if (const auto element = docsource::s3::elementFrom(text)) {
    constexpr std::size_t deepest = 17;
    require(depthOf(*element) <= deepest, "nothing is nested deeper than an answer is");
  }
  return 0;
}
