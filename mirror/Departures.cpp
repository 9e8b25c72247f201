#include "mirror/Departures.h"

#include <sys/inotify.h>

namespace docsource::mirror {

void Departures::take(const Key& place, const qx::Inotify::Event& event) {
  if (!(event.mask & (IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO))) return;
  // Whatever else happens, something else has the place now, or nothing.
  auto before = before_.extract(place);
  if (event.mask & IN_MOVED_FROM) {
    Move move;
    if (before) move.places = std::move(before.mapped());
    move.places.push_back(place);
    for (const auto& each : move.places) {
      if (away_.insert(each).second) move.news.push_back(each);
    }
    begun_[event.cookie] = std::move(move);
  } else if (event.mask & IN_MOVED_TO) {
    auto move = begun_.extract(event.cookie);
    if (!move) return;
    for (const auto& each : move.mapped().news) away_.erase(each);
    before_[place] = std::move(move.mapped().places);
  }
}

void Departures::clear() {
  away_.clear();
  before_.clear();
  begun_.clear();
}

}  // namespace docsource::mirror
