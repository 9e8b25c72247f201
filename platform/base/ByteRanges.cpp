#include "platform/base/ByteRanges.h"

#include <charconv>
#include <utility>
#include <vector>

namespace qx {

void ByteRanges::add(ByteRange range) {
  if (range.isEmpty()) return;
  auto each = ends_.upper_bound(range.begin);
  if (each != ends_.begin() && std::prev(each)->second >= range.begin) --each;
  while (each != ends_.end() && each->first <= range.end) {
    range.begin = std::min(range.begin, each->first);
    range.end = std::max(range.end, each->second);
    each = ends_.erase(each);
  }
  ends_.emplace(range.begin, range.end);
}

bool ByteRanges::contains(ByteRange range) const {
  if (range.isEmpty()) return true;
  const auto after = ends_.upper_bound(range.begin);
  return after != ends_.begin() && std::prev(after)->second >= range.end;
}

std::uint64_t ByteRanges::size() const {
  std::uint64_t size = 0;
  for (const auto& [begin, end] : ends_) size += end - begin;
  return size;
}

std::optional<ByteRange> ByteRanges::missing(std::uint64_t from, std::uint64_t end) const {
  const auto after = ends_.upper_bound(from);
  if (after != ends_.begin()) from = std::max(from, std::prev(after)->second);
  if (from >= end) return std::nullopt;
  return ByteRange{from, after == ends_.end() ? end : std::min(end, after->first)};
}

ByteRanges ByteRanges::largest(std::size_t most) const {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges(ends_.begin(), ends_.end());
  if (ranges.size() <= most) return *this;
  std::sort(ranges.begin(), ranges.end(), [](const auto& one, const auto& other) {
    return one.second - one.first > other.second - other.first;
  });
  ByteRanges kept;
  for (std::size_t at = 0; at < most; ++at) kept.add({ranges[at].first, ranges[at].second});
  return kept;
}

std::string ByteRanges::text() const {
  std::string text;
  for (const auto& [begin, end] : ends_) {
    if (!text.empty()) text += ',';
    text += std::to_string(begin) + '-' + std::to_string(end);
  }
  return text;
}

std::optional<ByteRanges> ByteRanges::parse(std::string_view text) {
  ByteRanges ranges;
  const char* at = text.data();
  const char* const last = at + text.size();
  for (std::uint64_t before = 0; at != last;) {
    ByteRange range;
    const auto begin = std::from_chars(at, last, range.begin);
    if (begin.ec != std::errc() || begin.ptr == last || *begin.ptr != '-') return std::nullopt;
    const auto end = std::from_chars(begin.ptr + 1, last, range.end);
    if (end.ec != std::errc() || range.isEmpty() || range.begin < before) return std::nullopt;
    ranges.add(range);
    before = range.end;
    at = end.ptr;
    if (at == last) break;
    if (*at++ != ',' || at == last) return std::nullopt;
  }
  return ranges;
}

}  // namespace qx
