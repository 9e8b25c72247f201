#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <type_traits>

#include "mirror/Arrival.h"
#include "mirror/Engine.h"

namespace docsource::mirror {

/// What the source files of the engine share beyond its header.

/// The fact of which version the parts are that programs may have read of a placeholder; followed
/// by the identity of its inode.
inline const std::string partsFact = "parts ";

/// One transfer under way. Its counters are set by the thread that works, and read by any.
struct Engine::Transfer {
  ItemNumber number = 0;
  std::uint64_t order = 0;
  bool isUpload = false;
  /// Where the document is that it fills, once it does; guarded by the engine's mutex.
  std::optional<Place> filled;
  /// Where the document is sent to there; guarded like that.
  std::optional<Place> sent;
  std::atomic<std::uint64_t> done = 0;
  std::atomic<std::uint64_t> total = 0;
  std::atomic<bool> isCancelled = false;
  Arrival arrival;
};

/// What is not here of a directory: the first few by name, each with its reason, for a person.
class LeftOut {
 public:
  void add(const std::string& name, std::string reason) {
    constexpr std::size_t longest = 255;
    if (count_++ >= mostNamed) return;
    if (reason.ends_with('.')) reason.pop_back();
    text_ += std::string(text_.empty() ? "" : ", ") + "\"" + name.substr(0, longest) + "\" (" +
             reason + ")";
  }
  /// Absent when there is none.
  std::optional<std::string> text() const {
    if (count_ == 0) return std::nullopt;
    const auto more =
        count_ > mostNamed ? " and " + std::to_string(count_ - mostNamed) + " more" : "";
    return "Not everything in it can be shown here: " + text_ + more + ".";
  }

 private:
  static constexpr std::uint64_t mostNamed = 3;
  std::uint64_t count_ = 0;
  std::string text_;
};

/// What the fact says that was decided about a file aside of which it has to be seen what it is,
/// and which is nobody's to read.
inline const std::string hiddenAside = "hidden";

/// A place as a fact.
inline std::string textOf(const Place& place) {
  return std::to_string(place.parent) + "/" + place.name;
}
inline Place placeOf(const std::string& text) {
  return {std::atoll(text.c_str()), text.substr(text.find('/') + 1)};
}
/// The beginnings of the names of facts that tell of a place there to which an item is being moved,
/// or its first version sent, or where a directory is being made. There is one for each place,
/// until it is known what has become of the item: an answer may be lost, and it may be on its way
/// to the next place by then.
inline const std::string moving = "moving ";
inline const std::string sending = "sending ";
inline std::string factsOf(const std::string& beginning, ItemNumber number) {
  return beginning + std::to_string(number) + " ";
}
inline std::string factOf(const std::string& beginning, ItemNumber number, const Place& place) {
  return factsOf(beginning, number) + textOf(place);
}
/// The name of the fact that tells the hashes, one behind the other, of contents that were sent to
/// a place there without an answer.
inline std::string sentFact(const Place& place) { return "sent " + textOf(place); }

/// What the database could not do becomes an error of whoever asked, and everything is looked at
/// again.
template <class F>
auto Engine::guarded(F work) -> decltype(work()) {
  using Answer = decltype(work());
  try {
    return work();
  } catch (const DatabaseFailure& failure) {
    broken_ = failure.text;
    here_ = {};
    there_ = {};
    here_.directories.emplace_back(rootItem, true);
    cursor_.reset();
    shallLookThere_ = true;
    if constexpr (std::is_constructible_v<Answer, Error>) {
      return Error::posix(EIO, "The mirror's database: " + failure.text);
    } else {
      return Answer();
    }
  }
}

/// An operation of the remote, with the mutex released; not at all while it is known to be in
/// trouble.
template <class F>
auto Engine::remotely(Lock& lock, F work) -> decltype(work()) {
  if (isInTrouble()) return *trouble_;
  lock.unlock();
  auto answer = work();
  lock.lock();
  if (!answer) {
    (void)trouble(answer.error());
  } else if (trouble_) {
    wellAgain();
  }
  return answer;
}

}  // namespace docsource::mirror
