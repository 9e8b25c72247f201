#include "servicer/DSItemURLs.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/queue/Clock.h"
#include "platform/queue/WorkQueue.h"
#include "providers/DSExtensionDocSource.h"

namespace {

class Search : public std::enable_shared_from_this<Search> {
 public:
  using Done = std::function<void(std::vector<DSItemURL> urls)>;

  Search(std::vector<DSItem> items, Done done)
      : items_(std::move(items)), done_(std::move(done)), urls_(items_.size()) {}

  void begin(std::chrono::nanoseconds time) {
    constexpr std::size_t atATime = 32;
    if (items_.empty()) return finish();
    timer_ = qx::Clock::current().schedule(time, [self = shared_from_this()] {
      qx::WorkQueue::global().async([self] { self->finish(); });
    });
    for (std::size_t i = 0; i < std::min(atATime, items_.size()); ++i) askNext();
  }

 private:
  /// It asks from the global queue, so that answers that come at once do not nest.
  void askNext() {
    qx::WorkQueue::global().async([self = shared_from_this()] {
      const auto index = self->takeIndex();
      if (!index) return;
      const auto& [providerID, itemID] = self->items_[*index];
      const auto provider = DSExtensionDocSource::providerWithIdentifier(providerID);
      if (!provider) {
        self->answered(*index, DSNotFoundError(providerID));
        return;
      }
      provider->URLForItemID_completionHandler(
          itemID, [self, index = *index, itemID = itemID](const std::optional<qx::Error>& error,
                                                          const std::optional<qx::URL>& url) {
            self->answered(index, error ? qx::Result<qx::URL>(*error)
                                  : url ? qx::Result<qx::URL>(*url)
                                        : qx::Result<qx::URL>(DSNotFoundError(itemID)));
          });
    });
  }

  std::optional<std::size_t> takeIndex() {
    const std::lock_guard lock(mutex_);
    if (!done_ || asked_ == items_.size()) return std::nullopt;
    return asked_++;
  }

  void answered(std::size_t index, qx::Result<qx::URL> url) {
    bool isLast = false;
    {
      const std::lock_guard lock(mutex_);
      if (!done_) return;
      urls_[index] = std::move(url);
      isLast = ++answers_ == items_.size();
    }
    isLast ? finish() : askNext();
  }

  void finish() {
    Done done;
    std::vector<DSItemURL> urls;
    {
      const std::lock_guard lock(mutex_);
      done = std::exchange(done_, nullptr);
      if (done) urls.swap(urls_);
    }
    qx::Clock::current().cancel(timer_);
    if (done) done(std::move(urls));
  }

  const std::vector<DSItem> items_;
  qx::Clock::TimerID timer_ = 0;  // before the first question
  std::mutex mutex_;
  // Guarded by the mutex.
  Done done_;
  std::vector<DSItemURL> urls_;
  std::size_t asked_ = 0;
  std::size_t answers_ = 0;
};

}  // namespace

void dsFindItemURLs(std::vector<DSItem> items, std::chrono::nanoseconds time,
                    std::function<void(std::vector<DSItemURL> urls)> done) {
  std::make_shared<Search>(std::move(items), std::move(done))->begin(time);
}
