#include "platform/identity/PlaceholderMark.h"

#include <charconv>

#include "platform/identity/ProcessDirectory.h"

namespace qx {
namespace {

constexpr std::string_view providingWord = "providing ";
constexpr std::string_view thereWord = "there:";
/// Attributes share one block of the file system, and the mark has other words.
constexpr std::size_t mostRanges = 16;

}  // namespace

bool isBeingFilled(std::string_view mark) {
  if (!mark.starts_with(providingWord)) return false;
  mark.remove_prefix(providingWord.size());
  pid_t process = -1;
  std::uint64_t startTime = 0;
  const char* end = mark.data() + mark.size();
  const auto first = std::from_chars(mark.data(), end, process);
  if (first.ec != std::errc() || first.ptr == end || *first.ptr != ' ') return false;
  const auto second = std::from_chars(first.ptr + 1, end, startTime);
  const bool isWhole = second.ptr == end || *second.ptr == ' ';
  if (second.ec != std::errc() || !isWhole || process <= 0) return false;
  const auto directory = ProcessDirectory::open(process);
  const auto state = directory ? directory->state() : std::nullopt;
  return state && state->startTime == startTime && directory->isRunning();
}

std::optional<ByteRanges> partsThere(std::string_view mark) {
  while (!mark.empty()) {
    auto word = mark.substr(0, mark.find(' '));
    mark.remove_prefix(word.size() == mark.size() ? word.size() : word.size() + 1);
    if (!word.starts_with(thereWord)) continue;
    word.remove_prefix(thereWord.size());
    return ByteRanges::parse(word);
  }
  return std::nullopt;
}

std::string partsWord(const ByteRanges& parts) {
  return std::string(thereWord) + parts.largest(mostRanges).text();
}

}  // namespace qx
