// Clients that want to do harm. None gets what it may not have, and none slows another client down
// by more than the load test allows: a bystander calls all the while.

#include <atomic>

#include "tests/abuse/Abuse.h"
#include "tests/abuse/Bystander.h"

namespace qx::test {
namespace {

class Hostile : public Abuse {
 protected:
  void SetUp() override {
    start();
    Wire wire = connect();
    ASSERT_EQ(grant(wire, "granted"), "success");
  }

  /// Attacks, with a bystander beside, and looks afterwards whether anything of it is left.
  void attack(Tally& tally, const std::function<void()>& attackers) {
    Bystander bystander(connect());
    for (int i = 0; i < 100; ++i) bystander.once(wakeUp, {});
    bystander.finish();
    std::atomic<bool> over = false;
    std::thread calling([&] {
      while (!over) bystander.once(wakeUp, {});
    });
    const Usage before = Usage::of(daemon_->id());
    attackers();
    over = true;
    calling.join();
    const auto latency = bystander.finish();
    EXPECT_EQ(latency.failures, 0U);
    tally.losses += latency.failures;
    // What the processors do is the concern of the load test; here nobody may stand still.
    if (latency.slowest > 1'000'000) ++tally.faults;
    EXPECT_TRUE(
        eventually([&] { return Usage::of(daemon_->id()).descriptors <= before.descriptors + 2; }));
    // Connections that wait to be accepted may still bring descriptors that take up all there are;
    // who connects meanwhile may be turned away.
    const bool isServed = eventually([&] {
      Wire wire = connect();
      return use(wire, "granted") == "success";
    });
    if (!isServed) ++tally.losses;
    const Usage after = Usage::of(daemon_->id());
    tally.note =
        "bystander " + latency.text() + "; before " + before.text() + "; after " + after.text();
    if (!isSanitized) {
      EXPECT_LE(after.residentKiB, before.residentKiB + (32U << 10U));
    }
  }

  static std::vector<std::uint8_t> frameOf(const Array& message) {
    conduit::Encoder encoder;
    conduit::encode(encoder, message);
    return encoder.takeFrame();
  }
};

TEST_F(Hostile, FramesCostTheirConnectionAlone) {
  Tally tally("frames that are none, and more of them than are read");
  const std::string megabyte(1 << 20, 'x');
  // An array of as many nulls as fit, where one string belongs; nested as deep as it may be, and
  // one deeper.
  const auto nulls = RawPeer::call(1, documentURL, [](conduit::Encoder& message) {
    constexpr std::size_t most = (16U << 20U) - 64;
    message.array(1);
    message.array(most);
    for (std::size_t i = 0; i < most; ++i) message.null();
  });
  const auto nested = [](std::size_t depth) {
    std::vector<std::uint8_t> bytes(depth, 0x81);
    bytes.push_back(0x01);
    return bytes;
  };
  const std::vector<std::pair<std::vector<std::uint8_t>, bool>> frames{
      {nulls, false},
      {RawPeer::frame(nested(31)), true},
      {RawPeer::frame(nested(33)), true},
      {RawPeer::frame(nested(1 << 20)), true},
      {{0xff, 0xff, 0xff, 0xff}, true},
      {RawPeer::frame(std::vector<std::uint8_t>(1 << 20)), true},
      {frameOf({1, 1, megabyte, Array()}), false}};
  attack(tally, [&] {
    for (std::size_t round = 0; round < tries(60, 1); ++round) {
      for (const auto& [frame, closes] : frames) {
        Wire peer = connect();
        peer.sendBytes(frame);
        ++tally.tries;
        if (closes ? !peer.isClosedByPeer() : !peer.readMessage()->error) ++tally.faults;
      }
      // Half a frame of the full length, for as long as the others go on.
      Wire half = connect();
      half.sendBytes(std::span(frames.front().first).first(1 << 20));
    }
  });
}

TEST_F(Hostile, DescriptorsAreNotKept) {
  Tally tally("descriptors that nobody asked for, until there are none left");
  // Few enough to run out of.
  const auto most = Usage::of(daemon_->id()).descriptors + 100;
  const rlimit few{most, most};
  ASSERT_EQ(prlimit(daemon_->id(), RLIMIT_NOFILE, &few, nullptr), 0);
  const FileDescriptor null(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const std::vector<int> sixteen(conduit::maximumDescriptors, null.get());
  const auto call = frameOf({1, 1, wakeUp, Array()});
  attack(tally, [&] {
    for (std::size_t round = 0; round < tries(200, 5); ++round) {
      // With frames that do not speak of them, and with the first bytes of frames that never end.
      Wire careless = connect();
      for (int i = 0; i < 50 && careless.sendBytes(call, sixteen); ++i) ++tally.tries;
      std::vector<Wire> bombs;
      for (int i = 0; i < 20; ++i) {
        bombs.push_back(connect());
        bombs.back().sendBytes(std::span(call).first(5), sixteen, MSG_DONTWAIT);
        for (int more = 0; more < 3; ++more) {
          bombs.back().sendBytes(std::span(call).subspan(5U + static_cast<unsigned>(more), 1),
                                 sixteen, MSG_DONTWAIT);
        }
        tally.tries += 4;
      }
    }
  });
}

TEST_F(Hostile, ProvidersThatAreNotInstalledCostNothing) {
  Tally tally("calls to a provider that is not installed");
  // Granted once, and gone: such a string is never answered. And what was never there is refused.
  ProviderBundle gone("com.example.gone");
  gone.install();
  ASSERT_TRUE(eventually([&] {
    return connect().call(extendSandbox, {gone.url("a"), "com.example.gone", app}).outcome() ==
           "success";
  }));
  gone.remove();
  ASSERT_TRUE(eventually([&] {
    Wire wire = connect();
    const auto listing = wire.call(listProviders, {});
    const auto* all = listing.at<Dictionary>(1);
    return all && !all->contains("com.example.gone");
  }));
  attack(tally, [&] {
    Wire wire = connect();
    const std::size_t calls = tries(100000, 2000);
    constexpr std::size_t window = 500;
    for (std::size_t done = 0; done < calls; done += window) {
      for (std::size_t i = 0; i < window; ++i) {
        wire.begin(documentURL, {"docsource:com.example.gone/a"});
      }
      std::vector<std::int64_t> refused;
      for (std::size_t i = 0; i < window; ++i) {
        refused.push_back(wire.begin(startProviding, {gone.url("a"), "com.example.gone", app}));
      }
      for (const auto id : refused) {
        if (wire.answer(id).outcome() != "DSErrorDomain 1") ++tally.faults;
      }
      tally.tries += 2 * window;
    }
    EXPECT_FALSE(wire.hasInput());
  });
}

TEST_F(Hostile, TokensPathsAndIdentifiersMayBeLong) {
  Tally tally("tokens, paths and identifiers of 1 MiB");
  const auto redeemer = startRedeemer();
  const std::string x(1 << 20, 'x');
  std::string deep;
  while (deep.size() < x.size()) deep += "/..";
  const std::string root = "file://" + provider_.storage();
  const Value p = "com.example.p";
  struct Call {
    const char* operation;
    Array arguments;
    const char* outcome;
  };
  const std::vector<Call> calls{
      {startProviding, {URL(root + "/" + x), p, app}, "DSErrorDomain 1"},
      {startProviding, {URL(root + deep), p, app}, "DSErrorDomain 1"},
      {startProviding, {provider_.url("granted"), x, app}, "DSErrorDomain 1"},
      {startProviding, {provider_.url("granted"), p, x}, "DSErrorDomain 3"},
      {providePlaceholder, {URL(root + "/" + x), p, app}, "DSErrorDomain 3"},
      {extendSandbox, {provider_.url("granted"), x, app}, "DSErrorDomain 1"},
      {extendBookmark, {URL(root + "/" + x), app}, "DSErrorDomain 3"},
      {extendBookmark, {URL(root + deep), app}, "DSErrorDomain 3"},
      {bookmarkableString, {URL("file:///" + x)}, "success"},
      {documentURL, {"docsource:" + x + "/" + x}, "DSErrorDomain 3"},
      {documentURL, {"docsource:com.example.p/" + x}, "DSErrorDomain 3"},
      {documentURL, {x}, "DSErrorDomain 5"}};
  attack(tally, [&] {
    for (std::size_t round = 0; round < tries(50, 1); ++round) {
      Wire wire = connect();
      for (const auto& [operation, arguments, outcome] : calls) {
        const auto found = wire.call(operation, arguments).outcome();
        ++tally.tries;
        if (found != outcome) ++tally.faults;
        EXPECT_EQ(found, outcome) << operation << " " << describe(Value(arguments)).substr(0, 60);
      }
      Wire redeeming = connectTo(sandboxService);
      for (const auto& token : {x, "2:com.veltro.sandbox.read-write:00:1:/" + x + ":00"}) {
        const auto answer = redeeming.call(consumeExtension, {Bytes(token.begin(), token.end())});
        ++tally.tries;
        if (answer.outcome() != "QXPOSIXErrorDomain 74" || !answer.isAbsent(1)) ++tally.faults;
      }
    }
  });
}

}  // namespace
}  // namespace qx::test
