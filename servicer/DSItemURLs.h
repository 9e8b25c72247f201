#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Result.h"
#include "platform/base/URL.h"

/// One item of one provider.
struct DSItem {
  std::string providerID;
  std::string itemID;
};

/// The outcome of asking for the URL of an item; absent when the provider did not answer in time.
using DSItemURL = std::optional<qx::Result<qx::URL>>;

/// Asks the providers where the items are, a few at a time. Hands over the answers, in the order of
/// the items, when all are there or when the time (of Clock::current()) has passed. The error of a
/// provider that is not installed is DSNotFoundError. Any thread may call this; it returns at once.
/// `done` is called once: on the calling thread when there is nothing to ask, otherwise on a thread
/// of the providers' callbacks or of the global queue.
void dsFindItemURLs(std::vector<DSItem> items, std::chrono::nanoseconds time,
                    std::function<void(std::vector<DSItemURL> urls)> done);
