#include "extensions/http/Content.h"

#include <algorithm>
#include <array>
#include <utility>

namespace docsource::http {
namespace {

constexpr std::size_t pieceSize = 256UL * 1024;

}  // namespace

SourceUpload::SourceUpload(RemoteSource& source)
    : source_(source), sha256_(*Checksum::named("SHA256")), sha1_(*Checksum::named("SHA1")) {}

/// Goes on to the piece that waits and looks what comes after it.
Result<void> SourceUpload::fetch() {
  const auto next = [&]() -> Result<void> {
    const auto piece = source_.read(pieceSize);
    if (!piece) return piece.error();
    next_.assign(*piece);
    hasEnded_ = piece->empty();
    return {};
  };
  if (!std::exchange(hasBegun_, true)) {
    if (auto first = next(); !first) return first;
  }
  current_.swap(next_);
  next_.clear();
  position_ = 0;
  if (hasEnded_) return {};
  return next();
}

Result<std::size_t> SourceUpload::read(char* into, std::size_t most) {
  if (position_ == current_.size() && !(hasBegun_ && hasEnded_ && next_.empty())) {
    if (auto fetched = fetch(); !fetched) return fetched.error();
  }
  const auto count = current_.copy(into, most, position_);
  position_ += count;
  given_ += count;
  const bool isMore = position_ < current_.size() || !next_.empty();
  if (given_ > source_.size() || (given_ == source_.size() && isMore) ||
      (count == 0 && given_ < source_.size())) {
    return remoteError(RemoteProblem::failed, "The document changed while it was uploaded.");
  }
  sha256_.add({into, count});
  sha1_.add({into, count});
  return count;
}

Result<std::string> SourceUpload::take(std::uint64_t most) {
  std::string all;
  std::array<char, 65536> piece{};
  while (all.size() < most) {
    const auto count = read(piece.data(), std::min<std::uint64_t>(piece.size(), most - all.size()));
    if (!count) return count.error();
    if (*count == 0) break;
    all.append(piece.data(), *count);
  }
  return all;
}

}  // namespace docsource::http
