#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "docsource/remote.h"
#include "mirror/Items.h"

namespace docsource::mirror {

/// A directory of the remote that is listed on another thread while another directory is noted, or
/// by who wants its entries where no thread has begun with it. Very few entries wait at a time: who
/// lists waits for who takes them.
class Listing {
 public:
  /// `asOf`: what was learnt of the remote later than that may be newer than the listing. Made on
  /// the thread that takes the entries.
  Listing(Remote& remote, ItemNumber directory, std::string path, std::uint64_t asOf);

  ItemNumber directory() const { return directory_; }
  const std::string& path() const { return path_; }
  std::uint64_t asOf() const { return asOf_; }

  /// Asks the remote, unless somebody has begun to or nobody wants it any more; on any thread.
  void run();
  /// Visits the entries as they come, once, on the caller's thread. Errors are the remote's.
  Result<void> take(const Remote::Visitor& visit);
  /// Nobody takes the entries any more; from any thread.
  void abandon();

 private:
  bool begin();

  Remote& remote_;
  const ItemNumber directory_;
  const std::string path_;
  const std::uint64_t asOf_;
  const std::thread::id taker_ = std::this_thread::get_id();

  std::mutex mutex_;
  std::condition_variable changed_;
  bool isBegun_ = false;
  bool isAbandoned_ = false;
  bool hasEnded_ = false;
  Result<void> result_;
  std::deque<std::vector<RemoteItem>> waiting_;
};

}  // namespace docsource::mirror
