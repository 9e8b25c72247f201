// Many clients at once, some of them without manners: everybody is answered, nobody waits for
// another, and when they are gone nothing of them is left.

#include <sched.h>

#include <atomic>

#include "tests/abuse/Abuse.h"
#include "tests/abuse/Bystander.h"

namespace qx::test {
namespace {

class Load : public Abuse {
 protected:
  /// Puts the calling thread before those of other programs, by its priority; in the long form
  /// only, which has the machine for itself.
  static bool goAhead(int priority) {
    const sched_param parameters{priority};
    return isSoak() && sched_setscheduler(0, SCHED_RR, &parameters) == 0;
  }

  /// One of the operations that clients mix, and what it must come to.
  struct Operation {
    const char* name;
    Array arguments;
    const char* outcome;
  };
  std::vector<Operation> mixed() const {
    const Value p = "com.example.p";
    const URL granted = provider_.url("granted");
    return {{wakeUp, {}, "success"},
            {listProviders, {}, "success"},
            {startProviding, {granted, p, app}, "success"},
            {stopProviding, {granted, p, app}, "success"},
            {providePlaceholder, {granted, p, app}, "success"},
            {extendSandbox, {granted, p, app}, "success"},
            {bookmarkableString, {granted}, "success"},
            {documentURL, {"docsource:com.example.p/granted"}, "success"},
            {startProviding, {provider_.url("other"), p, app}, "DSErrorDomain 3"},
            {startProviding,
             {provider_.url("fail"), p, app},
             "DSErrorDomain 8 (DSErrorDomain 8 (ProviderDomain 7))"},
            {startProviding, {URL("file:///nowhere"), p, app}, "DSErrorDomain 1"},
            {documentURL, {"docsource:com.example.p/other"}, "DSErrorDomain 3"},
            {documentURL, {"no bookmark"}, "DSErrorDomain 5"},
            {"noSuchOperation:", {}, "failure QXConduitErrorDomain 1"},
            {documentURL, {7}, "failure QXConduitErrorDomain 2"}};
  }

  /// `count` operations over these connections, from one thread; one in flight on each.
  static std::size_t run(std::vector<Wire>& wires, std::size_t count,
                         const std::vector<Operation>& operations) {
    std::size_t faults = 0;
    std::mt19937_64 random(count);
    std::vector<std::pair<std::int64_t, const Operation*>> flying(wires.size());
    for (std::size_t done = 0; done < count; done += wires.size()) {
      for (std::size_t i = 0; i < wires.size(); ++i) {
        const auto& next = operations[random() % operations.size()];
        flying[i] = {wires[i].begin(next.name, next.arguments), &next};
      }
      for (std::size_t i = 0; i < wires.size(); ++i) {
        const auto outcome = wires[i].answer(flying[i].first).outcome();
        if (outcome == flying[i].second->outcome) continue;
        if (++faults == 1) ADD_FAILURE() << flying[i].second->name << " came to " << outcome;
      }
    }
    return faults;
  }

  /// Waits until the daemon holds what it held, without extensions.
  bool returnsTo(const Usage& before) const {
    return eventually([&] {
      const Usage now = Usage::of(daemon_->id());
      return now.descriptors <= before.descriptors && now.threads <= before.threads &&
             now.children <= before.children;
    });
  }
};

TEST_F(Load, LeavesNothingBehind) {
  Tally tally("mixed operations of busy clients beside idle ones");
  start();
  {
    Wire wire = connect();
    ASSERT_EQ(grant(wire, "granted"), "success");
  }
  const auto operations = mixed();
  const auto storm = [&](std::size_t idleClients, std::size_t busyClients, std::size_t count) {
    std::vector<Wire> idle;
    for (std::size_t i = 0; i < idleClients; ++i) {
      idle.push_back(connect());
      if (idle.back().call(wakeUp, {}).outcome() != "success") ++tally.faults;
    }
    constexpr std::size_t threads = 4;
    std::atomic<std::size_t> faults = 0;
    std::vector<std::thread> running;
    for (std::size_t thread = 0; thread < threads; ++thread) {
      running.emplace_back([&] {
        std::vector<Wire> wires;
        for (std::size_t i = 0; i < busyClients / threads; ++i) wires.push_back(connect());
        faults += run(wires, count / threads, operations);
      });
    }
    for (auto& thread : running) thread.join();
    for (Wire& wire : idle) {
      if (wire.call(wakeUp, {}).outcome() != "success") ++tally.losses;
    }
    tally.faults += faults;
    tally.tries += count;
  };
  // Once for what is kept for good, pools and tables among it. In the long form the extension and
  // idle threads are given the ten seconds after which they end.
  storm(tries(5000, 200), 200, tries(100000, 2000));
  const Usage most{0, 24, isSoak() ? 10U : 1000U, isSoak() ? 0U : 1U};
  ASSERT_TRUE(returnsTo(most));
  if (isSoak() && !isSanitized) {
    EXPECT_TRUE(eventually([&] { return Usage::of(daemon_->id()).residentKiB <= 12 << 10; }));
  }
  const Usage before = Usage::of(daemon_->id());
  const auto began = std::chrono::steady_clock::now();
  storm(tries(5000, 200), 200, tries(1000000, 4000));
  const auto took = std::chrono::steady_clock::now() - began;
  EXPECT_TRUE(returnsTo(isSoak() ? before : most));
  // What the crowd needed is given back some seconds after it has gone. (A sanitizer keeps all.)
  if (isSoak() && !isSanitized) {
    EXPECT_TRUE(eventually(
        [&] { return Usage::of(daemon_->id()).residentKiB <= before.residentKiB + 2048; }));
  }
  const Usage after = Usage::of(daemon_->id());
  if (!isSanitized) {
    EXPECT_LE(after.residentKiB, before.residentKiB + 8192);
  }
  tally.note = "before " + before.text() + "; after " + after.text() + "; " +
               std::to_string(std::chrono::duration_cast<std::chrono::seconds>(took).count()) +
               " s";
}

TEST_F(Load, HoldsNobodyUp) {
  Tally tally("calls beside a flood, replies never read, and a provider that hangs");
  // How long a call takes is then up to the daemon and those it serves. Those without manners come
  // next.
  const bool isAhead = goAhead(2);
  start();
  Wire wire = connect();
  for (const char* name : {"granted", "hang"}) ASSERT_EQ(grant(wire, name), "success");

  std::atomic<bool> over = false;
  std::atomic<std::size_t> flooded = 0;
  std::thread flood([&] {
    goAhead(1);
    Wire flooding = connect();
    while (!over) {
      std::vector<std::int64_t> calls;
      for (int i = 0; i < 1000; ++i) calls.push_back(flooding.begin(wakeUp, {}));
      for (const auto call : calls) flooding.answer(call);
      flooded += calls.size();
    }
  });
  std::atomic<std::size_t> ignored = 0;
  std::thread silent([&] {
    goAhead(1);
    while (!over) {
      Wire deaf = connect();
      while (!over && deaf.send({1, 1, listProviders, Array()})) ++ignored;
    }
  });
  Wire hanging = connect();
  for (int i = 0; i < 500; ++i) {
    hanging.begin(startProviding, {provider_.url("hang"), "com.example.p", app});
  }
  Bystander bystander(connect());
  bystander.measure(wakeUp, {}, tries(50000, 2000));
  const auto calls = bystander.finish();
  bystander.measure(startProviding, {provider_.url("granted"), "com.example.p", app},
                    tries(20000, 500));
  const auto forwarded = bystander.finish();
  over = true;
  flood.join();
  silent.join();
  for (const auto& each : {calls, forwarded}) {
    tally.tries += each.count;
    tally.losses += each.failures;
    if (!each.isEven()) ++tally.faults;
  }
  tally.note = "wakeUp " + calls.text() + "; start providing " + forwarded.text() + "; " +
               std::to_string(flooded) + " calls of the flood, " + std::to_string(ignored) +
               " of the client that does not read" + (isAhead ? "" : "; not ahead of others");
}

}  // namespace
}  // namespace qx::test
