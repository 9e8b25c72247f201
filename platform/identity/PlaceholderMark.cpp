#include "platform/identity/PlaceholderMark.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "platform/files/InodeMark.h"
#include "platform/identity/ProcessDirectory.h"

namespace qx {
namespace {

constexpr std::string_view providingWord = "providing ";
constexpr std::string_view emptiedWord = "emptied ";
constexpr std::string_view thereWord = "there:";
constexpr std::string_view modeBeginning = "mode:";
constexpr int octal = 8;
/// Whoever may write the document writes its mark, a sandboxed application too: no set-user-ID bit
/// comes from there.
constexpr mode_t permissions = 0777;
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
  return state && state->startTime == startTime && state->isRunning();
}

bool isEmptied(std::string_view mark) { return mark.starts_with(emptiedWord); }

std::optional<ByteRanges> partsThere(std::string_view mark) {
  const auto word = wordWith(thereWord, mark);
  return word ? ByteRanges::parse(word->substr(thereWord.size())) : std::nullopt;
}

std::string partsWord(const ByteRanges& parts) {
  return std::string(thereWord) + parts.largest(mostRanges).text();
}

std::optional<mode_t> modeIn(std::string_view mark) {
  const auto word = wordWith(modeBeginning, mark);
  if (!word) return std::nullopt;
  const auto digits = word->substr(modeBeginning.size());
  const char* const last = digits.data() + digits.size();
  mode_t mode = 0;
  const auto [end, problem] = std::from_chars(digits.data(), last, mode, octal);
  constexpr mode_t highest = 07777;
  const bool isMode = problem == std::errc() && end == last && mode <= highest;
  return isMode ? std::optional(mode & permissions) : std::nullopt;
}

std::string modeWord(mode_t mode) {
  std::array<char, 8> digits{};
  const auto end =
      std::to_chars(digits.data(), digits.data() + digits.size(), mode & permissions, octal);
  return std::string(modeBeginning).append(digits.data(), end.ptr);
}

std::string withoutMode(std::string_view mark) {
  const auto word = wordWith(modeBeginning, mark);
  if (!word) return std::string(mark);
  const auto begin = static_cast<std::size_t>(word->data() - mark.data());
  const auto end = std::min(begin + word->size() + 1, mark.size());
  std::string left(mark.substr(0, begin));
  left += mark.substr(end);
  if (end == mark.size() && !left.empty() && left.back() == ' ') left.pop_back();
  return left;
}

}  // namespace qx
