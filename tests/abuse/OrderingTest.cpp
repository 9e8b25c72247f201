// The queues, the store and the registry, with their threads disturbed at random: whatever the
// order in which they come to run, what was promised about order holds. `./dev soak` runs this
// under the thread sanitizer too.

#include "acl/DSAccessControlStore.h"
#include "platform/queue/WorkQueue.h"
#include "tests/abuse/Abuse.h"
#include "tests/abuse/Shaking.h"

namespace qx::test {
namespace {

namespace fs = std::filesystem;

class Ordering : public Abuse {
 protected:
  static constexpr std::size_t threads = 4;

  /// Calls body(number, random numbers) on several threads at once.
  template <class Body>
  static void together(std::uint64_t seed, Body body) {
    std::vector<std::thread> running;
    for (std::size_t number = 0; number < threads; ++number) {
      running.emplace_back([&, number] {
        std::mt19937_64 random(seed + number);
        body(number, random);
      });
    }
    for (auto& each : running) each.join();
  }

  static void useQueues(std::size_t rounds, std::size_t count, bool isDisturbed, Tally& tally);
};

/// A mixture of all that can be submitted to queues, by several threads.
void Ordering::useQueues(std::size_t rounds, std::size_t count, bool isDisturbed, Tally& tally) {
  for (std::size_t round = 0; round < rounds; ++round) {
    const auto seed = randomness()();
    const auto shaking = isDisturbed ? std::make_unique<Shaking>(getpid(), seed) : nullptr;
    const auto pause = [isDisturbed](std::uint64_t chance) {
      if (isDisturbed && chance % 4 == 3) std::this_thread::yield();
    };
    const auto serial = WorkQueue::serial("serial");
    const auto concurrent = WorkQueue::concurrent("concurrent");
    // Plain variables: what the queues do not keep apart the sanitizer sees.
    std::array<std::size_t, threads> last{};
    std::size_t first = 0;
    std::size_t second = 0;
    std::atomic<std::size_t> faults = 0;
    std::atomic<std::size_t> ran = 0;
    together(seed, [&](std::size_t number, std::mt19937_64& random) {
      for (std::size_t i = 1; i <= count; ++i) {
        const auto ordered = [&, number, i, chance = random()] {
          if (last[number] + 1 != i) ++faults;
          pause(chance);
          last[number] = i;
          ++ran;
        };
        const auto write = [&, chance = random()] {
          ++first;
          pause(chance);
          ++second;
        };
        const auto read = [&] {
          if (first != second) ++faults;
        };
        random() % 3 == 0 ? serial->sync(ordered) : serial->async(ordered);
        switch (random() % 4) {
          case 0:
            concurrent->barrierAsync(write);
            break;
          case 1:
            concurrent->async(read);
            break;
          default:
            concurrent->sync(read);
        }
        if (random() % 16 == 0) {
          serial->suspend();
          pause(random());
          serial->resume();
        }
      }
    });
    serial->sync([] {});
    Gate written;
    concurrent->barrierAsync([&] { written.pass(); });
    written.wait();
    tally.faults += faults;
    tally.losses += threads * count - ran;
    tally.tries += threads * count;
  }
}

TEST_F(Ordering, QueuesKeepItWhateverTheSchedule) {
  Tally tally("queues under random schedules");
  useQueues(tries(500, 12), 200, true, tally);
}

TEST_F(Ordering, QueuesKeepItAtFullSpeed) {
  Tally tally("queues at full speed");
  useQueues(tries(100, 4), 5000, false, tally);
}

TEST_F(Ordering, TheStoreLosesNoChangeWhateverTheSchedule) {
  Tally tally("changes of grants under random schedules");
  const auto store = DSAccessControlStore::sharedStore();
  std::array<std::set<std::string>, threads> granted;
  for (std::size_t round = 0; round < tries(100, 4); ++round) {
    const auto seed = randomness()();
    const Shaking shaking(getpid(), seed);
    std::atomic<std::size_t> faults = 0;
    together(seed, [&](std::size_t number, std::mt19937_64& random) {
      auto& mine = granted[number];
      for (std::size_t i = 0; i < 50; ++i) {
        const auto item = std::to_string(number) + "-" + std::to_string(random() % 20);
        const auto isAllowed = [&] {
          return store->isProviderWithIdentifier_allowedToProvideItemID_toConsumerWithIdentifier(
              "com.example.p", item, app);
        };
        if (isAllowed() != mine.contains(item)) ++faults;
        if (random() % 8 == 0) store->rereadAccessControl();
        if (random() % 2 == 0) {
          store->allowProviderWithIdentifier_toProvideItemID_toConsumerWithIdentifier(
              "com.example.p", item, app);
          mine.insert(item);
        } else {
          store->disallowProviderWithIdentifier_fromProvidingItemWithID_toConsumerWithIdentifier(
              "com.example.p", item, app);
          mine.erase(item);
        }
        if (isAllowed() != mine.contains(item)) ++faults;
      }
    });
    tally.tries += threads * 50;
    tally.faults += faults;
    std::set<std::string> expected;
    for (const auto& each : granted) {
      for (const auto& item : each) expected.insert(grantOf(item));
    }
    if (grantsOnDisk() != expected) ++tally.losses;
  }
}

TEST_F(Ordering, ExtensionsComeAndGoWhileClientsAsk) {
  Tally tally("changes of the extensions while clients list, resolve and request");
  const ProviderBundle changing("com.example.x");
  fs::create_directories(changing.storage());
  changing.install();
  start();
  Wire wire = connect();
  const auto request = [&](Wire& by, const char* operation) {
    return by.call(operation, {changing.url("a"), "com.example.x", app}).outcome();
  };
  ASSERT_TRUE(eventually([&] { return request(wire, extendSandbox) == "success"; }));
  ASSERT_EQ(grant(wire, "a"), "success");
  const auto isListed = [&](Wire& by, const std::string& identifier) {
    const auto listing = by.call(listProviders, {});
    const auto* all = listing.at<Dictionary>(1);
    return all && all->contains(identifier);
  };
  const auto seed = randomness()();
  const Shaking shaking(daemon_->id(), seed);
  std::atomic<bool> over = false;
  std::atomic<std::size_t> asked = 0;
  std::atomic<std::size_t> served = 0;
  std::atomic<std::size_t> faults = 0;
  std::thread changes([&] {
    Wire looking = connect();
    std::mt19937_64 random(seed);
    const std::size_t count = tries(1000, 24);
    for (std::size_t i = 0; i < count; ++i, ++tally.tries) {
      const bool goes = i % 2 == 0;
      const std::size_t before = served;
      goes ? changing.remove() : changing.install();
      // Now and then the next change comes before this one was noticed, and another in its place.
      if (random() % 16 == 0) continue;
      if (!goes && random() % 4 == 0) changing.install();
      const bool noticed = eventually(
          [&] { return isListed(looking, "com.example.x") != goes && (goes || served > before); });
      if (!noticed) ++faults;
    }
    over = true;
  });
  together(seed, [&](std::size_t number, std::mt19937_64&) {
    Wire mine = connect();
    const auto check = [&](bool holds, const std::string& what) {
      ++asked;
      if (!holds && ++faults < 5) ADD_FAILURE() << what;
    };
    while (!over) {
      // Who stays is there all the time.
      check(isListed(mine, "com.example.p"), "not listed");
      const auto used = use(mine, "a");
      check(used == "success", "start providing: " + used);
      const auto resolved = mine.call(number % 2 ? bookmarkableString : listProviders,
                                      number % 2 ? Array{changing.url("a")} : Array());
      check(resolved.kind == Wire::Answer::Kind::reply, "resolving: " + resolved.outcome());
      const auto outcome = request(mine, startProviding);
      served += outcome == "success";
      check(outcome == "success" || outcome.starts_with("DSErrorDomain "), outcome);
    }
  });
  changes.join();
  changing.install();
  EXPECT_TRUE(eventually([&] { return request(wire, startProviding) == "success"; }));
  EXPECT_TRUE(eventually([&] { return Usage::of(daemon_->id()).children <= 2; }));
  EXPECT_GT(served, 0U);
  tally.faults += faults;
  tally.note = std::to_string(asked) + " calls, " + std::to_string(served) +
               " served by the extension that came and went";
}

}  // namespace
}  // namespace qx::test
