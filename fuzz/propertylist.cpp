// Property lists. The first byte chooses how the text is also read in pieces.

#include <istream>
#include <streambuf>
#include <string>

#include "fuzz/Fuzz.h"
#include "platform/plist/PropertyList.h"

using namespace qx;
using fuzz::require;

namespace {

/// Hands out a text a few bytes at a time.
class Drops final : public std::streambuf {
 public:
  Drops(std::string_view text, std::size_t size) : text_(text), size_(size) {}

 private:
  int_type underflow() override {
    if (text_.empty()) return traits_type::eof();
    piece_ = text_.substr(0, size_);
    text_.remove_prefix(piece_.size());
    setg(piece_.data(), piece_.data(), piece_.data() + piece_.size());
    return traits_type::to_int_type(piece_.front());
  }

  std::string_view text_;
  std::size_t size_;
  std::string piece_;
};

void requireSame(const Result<Value>& a, const Result<Value>& b, const char* what) {
  if (!a || !b) return require(!a && !b, what);
  require(*PropertyList::write(*a) == *PropertyList::write(*b), what);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::uint8_t way = input.byte();
  const std::string_view text = fuzz::textOf(input.rest());

  const auto whole = PropertyList::read(text);
  if (!whole) {
    require(whole.error().description().find("line ") != std::string::npos,
            "an error tells the place");
  } else {
    const auto written = PropertyList::write(*whole);
    require(written.ok(), "what was read can be written");
    const auto again = PropertyList::read(*written);
    require(again.ok(), "what was written can be read");
    require(*again == *whole || fuzz::holdsNaN(*whole), "what was written is what was read");
    require(*PropertyList::write(*again) == *written, "equal lists are equal files");
  }

  Drops drops(text, 1 + way % 8);
  std::istream stream(&drops);
  requireSame(whole, PropertyList::read(stream), "a stream in drops gives the same");

  // The parser is fed in pieces of 64 KiB: a comment in front moves the end of the first one into
  // the text.
  if (way < 0xf0 || text.starts_with("<?xml")) return 0;
  constexpr std::size_t piece = std::size_t{64} << 10U;
  constexpr std::string_view begin = "<!--";
  constexpr std::string_view end = "-->";
  const std::size_t before = piece - text.size() % piece / 2 - 1;
  std::string moved(begin);
  moved.append(before - begin.size() - end.size(), ' ').append(end).append(text);
  requireSame(whole, PropertyList::read(std::string_view(moved)), "the same in two pieces");
  return 0;
}
