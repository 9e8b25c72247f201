#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "docsource/error.h"
#include "platform/base/ByteRanges.h"

namespace docsource::mirror {

/// Decides the order in which the parts of one document arrive, and what of them is published. What
/// somebody waits for is fetched first, and published as soon as it is there, together with
/// everything else that is there by then. A remote vouches only for the whole of what it was asked
/// for. So while somebody waits it is asked for as much as comes in a moment; otherwise for so much
/// that little is lost when somebody comes. Where nobody waits nothing is published.
///
/// One thread fetches: begin(), then next() and add() in turns, end(). Any thread may call want()
/// at any time. What is wanted outlives an end, and is published after the next begin.
class Arrival {
 public:
  /// Lets programs that wait for these bytes go on; takes as long as the disk does. Called on a
  /// thread of its own, one call at a time.
  using Publish = std::function<Result<void>(const qx::ByteRanges&)>;

  /// `there` is published already. With `canJump` any part can be fetched, otherwise only
  /// everything from the beginning.
  void begin(std::uint64_t size, const qx::ByteRanges& there, bool canJump, Publish publish);
  /// Returns what is fetched now; absent when everything is there.
  std::optional<qx::ByteRange> next();
  /// Returns whether to stop fetching, because somebody has begun to wait.
  bool shallTurn() const;
  /// Says that what next() returned is there and written, and that the remote has vouched for it.
  void add(qx::ByteRange bytes);
  /// Waits until nothing is being published. Returns the error of what could not be published.
  Result<void> end();

  void want(qx::ByteRange bytes);
  qx::ByteRanges there() const;

 private:
  std::optional<qx::ByteRange> missingWanted() const;
  bool isPublishable() const;
  void publishSoon();
  void publish();

  mutable std::mutex mutex_;
  std::condition_variable published_;
  std::uint64_t size_ = 0;
  bool canJump_ = false;
  qx::ByteRanges there_;
  std::vector<qx::ByteRange> wanted_;  // and not published, in the order of asking
  bool hasReaders_ = false;
  std::uint64_t position_ = 0;
  std::uint64_t inAMoment_ = 0;  // so many bytes came in one, the last time
  std::chrono::steady_clock::time_point asked_;
  bool isForReaders_ = false;  // what is being fetched
  Publish publish_;
  bool isPublishing_ = false;
  std::optional<Error> error_;
};

}  // namespace docsource::mirror
