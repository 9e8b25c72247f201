#pragma once

#include <cstdint>
#include <map>
#include <string_view>

#include "platform/base/Value.h"
#include "tests/support/RawPeer.h"

namespace qx::test {

/// One end of a conduit that speaks in values and knows no interface: what is sent is what the
/// test wrote, right or wrong. One thread.
class Wire : public RawPeer {
 public:
  using RawPeer::RawPeer;

  /// False when the other end is gone.
  bool send(const Array& message);
  /// The next message; absent when the connection is over, and for what is malformed.
  std::optional<Array> receive();
  /// Whether something can be read now.
  bool hasInput() const;

  /// What a call came to.
  struct Answer {
    enum class Kind { reply, failure, lost };
    Kind kind = Kind::lost;
    Array values;                  // of a reply
    std::optional<Error> failure;  // of a failure

    /// The value at a place of the reply, or null.
    template <class T>
    const T* at(std::size_t place) const {
      return place < values.size() ? values[place].template as<T>() : nullptr;
    }
    bool isAbsent(std::size_t place) const {
      return place < values.size() && values[place].isNull();
    }
    /// "success"; "domain code" of the error in a reply, with that of the error behind it in
    /// parentheses; the same after "failure "; or "lost".
    std::string outcome() const;
    /// The error of the reply or the failure.
    std::optional<Error> error() const;
  };

  /// Sends a call and returns its number.
  std::int64_t begin(std::string_view operation, Array arguments);
  /// Waits for the answer to a call; others that come meanwhile are kept for theirs.
  Answer answer(std::int64_t id);
  Answer call(std::string_view operation, Array arguments) {
    return answer(begin(operation, std::move(arguments)));
  }

 private:
  std::int64_t last_ = 0;
  std::map<std::int64_t, Answer> early_;
};

/// A new connection to a service of this root; one that is over from the start when nobody serves.
Wire connectTo(const std::string& service);

}  // namespace qx::test
