#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "tools/docsource/Accounts.h"

namespace tool {

/// Tells whether content of a document still arrives: whoever waits for it does not give up as long
/// as something does. Used by one thread.
class ArrivalWatch {
 public:
  /// `patience` is how long nothing may arrive. Of a document of an account the account is asked,
  /// which knows of bytes that are not in the document yet.
  ArrivalWatch(const std::string& url, std::chrono::milliseconds patience);

  /// Looks at the document; false when nothing has arrived for too long.
  bool goesOn();

 private:
  using Clock = std::chrono::steady_clock;

  void look();

  const std::optional<std::string> path_;
  const std::chrono::milliseconds patience_;
  std::optional<std::string> pathInAccount_;
  std::optional<AccountProcess> account_;
  Clock::time_point lastSign_ = Clock::now();
  Clock::time_point nextLook_ = lastSign_;
  std::uint64_t done_ = 0;
  std::uint64_t occupied_ = 0;
  /// Of the last piece: room may be found for many pieces at once.
  std::filesystem::file_time_type written_;
};

}  // namespace tool
