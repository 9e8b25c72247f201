#include "tools/docsource/ArrivalWatch.h"

#include <algorithm>
#include <system_error>

#include "docsource/error.h"
#include "docsource/placeholder.h"
#include "tools/docsource/Location.h"

namespace tool {

ArrivalWatch::ArrivalWatch(const std::string& url, std::chrono::milliseconds patience)
    : path_(docsource::pathOfURL(url)), patience_(patience) {
  const auto place = path_ ? placeOf(*path_) : docsource::Result<Place>(Place());
  if (!place || !place->account) return;
  pathInAccount_ = place->path;
  if (auto account = AccountProcess::of(*place->account)) account_ = *std::move(account);
}

bool ArrivalWatch::goesOn() {
  constexpr std::chrono::milliseconds between(500);
  const auto now = Clock::now();
  if (now >= nextLook_) {
    look();
    nextLook_ = now + std::min(between, patience_ / 4);
  }
  return now - lastSign_ <= patience_;
}

void ArrivalWatch::look() {
  if (!path_) return;
  std::error_code problem;
  const auto document = docsource::placeholderStatus(*path_);
  const auto written = std::filesystem::last_write_time(*path_, problem);
  const auto moved = account_ ? account_->moved(*pathInAccount_, patience_)
                              : docsource::Result<AccountProcess::Moved>(AccountProcess::Moved());
  const auto occupied = document ? document->occupied : occupied_;
  const auto done = moved ? moved->done : done_;
  if (occupied != occupied_ || done != done_ || (!problem && written != written_)) {
    lastSign_ = Clock::now();
  }
  occupied_ = occupied;
  done_ = done;
  if (!problem) written_ = written;
}

}  // namespace tool
