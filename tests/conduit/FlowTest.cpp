// What one peer can make a connection hold, and what it cannot do to the others.

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/conduit/Trial.h"
#include "tests/support/LogCapture.h"

namespace {

using namespace qx::test;
using qx::SharedDescriptor;
using qx::Value;
using qx::conduit::ConduitChannel;
using qx::conduit::Encoder;

constexpr auto limit = static_cast<std::int64_t>(ConduitChannel::maximumUnanswered);

/// Calls until neither end takes any more; the number of the last that was sent whole.
std::int64_t fill(RawPeer& peer) {
  std::int64_t last = limit;
  for (;;) {
    auto frame = holdCall(last + 1);
    if (!peer.sendBytes(frame, {}, MSG_DONTWAIT)) return last;
    ++last;
  }
}

TEST(Flow, AnAnswerLeftToTheGlobalQueueComesWhileItsCallStillRuns) {
  Served served = Served::make();
  served.object->beforeItReturns = [answered = served.object->answeredLater] { answered->wait(); };
  ASSERT_TRUE(served.peer.sendBytes(plainCall(1, "answerLaterCompletion:")));
  EXPECT_EQ(served.peer.readMessage()->id, 1);
}

TEST(Flow, WhoTakesAReplyMayWaitForAnother) {
  const Joined joined;
  const auto proxy = joined.proxy();
  constexpr int count = 8;
  // The last of them are still waiting when the test has seen all.
  const auto replied = std::make_shared<Gate>();
  // Both directions are full of replies before the first is read.
  for (int i = 0; i < count; ++i) {
    proxy->echo_completion("x", [replied](const auto&) {
      replied->pass();
      replied->wait(count);
    });
  }
  joined.callee->resume();
  joined.caller->resume();
  replied->wait(count);
  EXPECT_TRUE(joined.errors->all().empty());
}

TEST(Flow, AFrameOfTheLargestSizeIsTakenAndNoLargerOne) {
  const std::size_t beside = echoCall(1, std::string(1U << 20U, 'x')).size() - (1U << 20U);
  const std::string largest(4 + qx::conduit::maximumFrameSize - beside, 'x');
  Served served = Served::make();
  ASSERT_TRUE(served.peer.sendBytes(echoCall(1, largest)));
  const auto reply = served.peer.readMessage();
  ASSERT_TRUE(reply);
  EXPECT_TRUE(reply->first == Value(largest));
  (void)served.peer.sendBytes(echoCall(2, largest + 'x'));
  served.ended->wait();
}

TEST(Flow, PastTheLimitOfUnansweredCallsNothingIsReadUntilSomeAreAnswered) {
  Served served = Served::make();
  for (std::int64_t i = 1; i <= limit; ++i) ASSERT_TRUE(served.peer.sendBytes(holdCall(i)));
  ASSERT_TRUE(served.object->numbers.waitForCount(static_cast<std::size_t>(limit)));
  // The socket fills up, because nobody reads it.
  const std::int64_t last = fill(served.peer);
  EXPECT_GT(last, limit);
  EXPECT_EQ(served.object->numbers.all().size(), static_cast<std::size_t>(limit));

  // One answered, one never to be answered: two places, taken in order.
  auto held = served.object->takeHeld();
  held[0](1);
  held[0] = nullptr;
  held[1] = nullptr;
  ASSERT_TRUE(served.object->numbers.waitForCount(static_cast<std::size_t>(limit) + 2));
  EXPECT_EQ(served.object->numbers.all().size(), static_cast<std::size_t>(limit) + 2);
  EXPECT_EQ(served.peer.readMessage()->id, 1);

  while (!served.object->numbers.all().empty() && served.object->numbers.all().back() != last) {
    held.clear();
    const auto seen = served.object->numbers.all().size();
    held = served.object->takeHeld();
    held.clear();
    ASSERT_TRUE(served.object->numbers.waitUntil(
        [&](const auto& all) { return all.size() > seen || all.back() == last; }));
  }
  std::vector<std::int64_t> expected;
  for (std::int64_t i = 1; i <= last; ++i) expected.push_back(i);
  EXPECT_EQ(served.object->numbers.all(), expected);
}

TEST(Flow, PastTheLimitOfWhatUnansweredCallsHoldNothingIsReadUntilSomeAreAnswered) {
  Served served = Served::make();
  const std::string large(ConduitChannel::maximumUnansweredSize / 8, 'x');
  for (int i = 1; i <= 8; ++i) {
    ASSERT_TRUE(served.peer.sendBytes(RawPeer::call(i, "keep:completion:", [&](Encoder& to) {
      qx::conduit::encodeList(to, std::optional(large));
    })));
  }
  fill(served.peer);
  ASSERT_TRUE(served.object->numbers.waitForCount(8));
  EXPECT_EQ(served.object->numbers.all(),
            std::vector<std::int64_t>(8, static_cast<std::int64_t>(large.size())));

  served.object->takeHeld().front()(1);
  ASSERT_TRUE(served.object->numbers.waitForCount(9));
  EXPECT_EQ(served.object->numbers.all()[8], limit + 1);
}

TEST(Flow, ThePeerOfAConnectionThatIsNotReadMayGo) {
  Served served = Served::make();
  for (std::int64_t i = 1; i <= limit; ++i) ASSERT_TRUE(served.peer.sendBytes(holdCall(i)));
  fill(served.peer);
  ASSERT_TRUE(served.object->numbers.waitForCount(static_cast<std::size_t>(limit)));
  served.peer.close();
  served.ended->wait();
  EXPECT_TRUE(served.connection->isInvalid());
}

TEST(Flow, APeerThatOnlyStopsSendingGetsItsAnswersAndThenTheEnd) {
  for (int round = 0; round < 20; ++round) {
    const bool waits = round % 2 == 0;
    Served served = Served::make();
    for (std::int64_t i = 1; i <= 2; ++i) ASSERT_TRUE(served.peer.sendBytes(holdCall(i)));
    ASSERT_EQ(::shutdown(served.peer.socket(), SHUT_WR), 0);
    ASSERT_TRUE(served.object->numbers.waitForCount(2));
    auto held = served.object->takeHeld();
    held[1](2);
    EXPECT_EQ(served.peer.readMessage()->id, 2);
    if (waits) {
      held[0](1);
      held.clear();
      EXPECT_EQ(served.peer.readMessage()->id, 1);
      EXPECT_TRUE(served.peer.isClosedByPeer());
    } else {
      served.peer.close();
    }
    served.ended->wait();
  }
}

TEST(Flow, APeerThatDoesNotReadItsRepliesIsDisconnectedAtTheLimit) {
  LogCapture log;
  Served served = Served::make();
  const auto call = [&](int id) { return served.peer.sendBytes(plainCall(id, "listCompletion:")); };
  // Small replies take little more than their bytes.
  constexpr int many = 300'000;
  [[maybe_unused]] const long before = peakMemory();
  for (int i = 0; i < many; ++i) ASSERT_TRUE(call(i));
  served.object->listed.wait(many);
#ifndef __SANITIZE_ADDRESS__             // which keeps what was freed
  EXPECT_LT(peakMemory() - before, 40);  // MiB; each by itself they take 94
#endif
  for (int i = 0; i < many; ++i) ASSERT_EQ(served.peer.readMessage()->id, i);

  served.object->list = qx::Dictionary{{"large", qx::Bytes(1 << 20)}};
  for (int i = 0; i < 60; ++i) ASSERT_TRUE(call(i));
  served.object->listed.wait(many + 60);
  EXPECT_FALSE(served.connection->isInvalid());
  // Below the limit nothing is lost.
  for (int i = 0; i < 60; ++i) {
    ASSERT_EQ(served.peer.readMessage()->first, Value(served.object->list));
  }
  EXPECT_EQ(log.count("Closing the connection"), 0u);

  for (int i = 0; i < 70 && call(i); ++i) continue;
  served.ended->wait();
  EXPECT_EQ(log.count("[NOTICE] Closing the connection to PID "), 1u);
}

TEST(Flow, ABlockedCallDelaysItsOwnConnectionAlone) {
  std::vector<Served> blocked;
  for (int i = 0; i < 12; ++i) {
    blocked.push_back(Served::make());
    blocked.back().peer.sendBytes(
        RawPeer::call(1, "blockCompletion:", [](Encoder& to) { qx::conduit::encodeList(to); }));
    blocked.back().peer.sendBytes(echoCall(2, "behind"));
  }
  for (auto& each : blocked) each.object->entered.wait();
  Served served = Served::make();
  EXPECT_TRUE(echoes(served.peer));
  for (auto& each : blocked) {
    EXPECT_TRUE(each.object->echoed.all().empty());
    each.object->unblock.pass();
  }
  for (auto& each : blocked) {
    EXPECT_EQ(each.peer.readMessage()->id, 1);
    EXPECT_EQ(each.peer.readMessage()->id, 2);
  }
}

/// A pipe whose writing end is given away: end() waits until nobody has it open any more.
class Witness {
 public:
  Witness() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) std::abort();
    reading_.reset(ends[0]);
    writing_.reset(ends[1]);
  }
  int writing() const { return writing_.get(); }
  bool isClosedEverywhere() {
    writing_.reset();
    pollfd source{reading_.get(), 0, 0};
    return poll(&source, 1, static_cast<int>(patience.count() * 1000)) == 1;
  }
  bool isOpenSomewhere() {
    writing_.reset();
    pollfd source{reading_.get(), 0, 0};
    return poll(&source, 1, 0) == 0;
  }

 private:
  qx::FileDescriptor reading_, writing_;
};

/// A call that names the first `count` descriptors of its frame.
std::vector<std::uint8_t> takeCall(std::int64_t id, int count, const std::string& padding = "") {
  return RawPeer::call(id, "take:and:completion:", [&](Encoder& to) {
    to.array(padding.empty() ? 2 : 3);
    for (int i = 0; i < 2; ++i) {
      if (i < count) {
        to.tag(17988);
        to.integer(i);
      } else {
        to.null();
      }
    }
    if (!padding.empty()) to.string(padding);
  });
}

TEST(Descriptors, ArriveWithTheirFrameAndCloseWithTheirLastUser) {
  Served served = Served::make(false);
  served.object->keepDescriptors = true;
  Witness first, second, third;
  auto frames = echoCall(1, "before");
  auto frame = takeCall(2, 2);
  // All of it lies in the socket when it is read first.
  served.peer.sendBytes(frames);
  served.peer.sendBytes(frame, {first.writing(), second.writing()});
  served.peer.sendBytes(takeCall(3, 0));
  served.peer.sendBytes(takeCall(4, 1), {third.writing()});
  served.connection->resume();
  EXPECT_EQ(served.peer.readMessage()->first, Value("before"));
  EXPECT_EQ(served.peer.readMessage()->first, Value(3));
  EXPECT_EQ(served.peer.readMessage()->first, Value(0));
  EXPECT_EQ(served.peer.readMessage()->first, Value(1));
  ASSERT_TRUE(served.object->descriptors.waitForCount(3));
  EXPECT_TRUE(first.isOpenSomewhere());
  EXPECT_TRUE(third.isOpenSomewhere());
  served.object->descriptors.take();
  EXPECT_TRUE(first.isClosedEverywhere());
  EXPECT_TRUE(second.isClosedEverywhere());
  EXPECT_TRUE(third.isClosedEverywhere());
}

TEST(Descriptors, GoWithTheirOwnFrameHoweverManyWaitToBeSent) {
  const Joined joined;
  joined.caller->resume();
  const auto proxy = joined.proxy();
  const auto file = std::make_shared<const qx::FileDescriptor>(dup(STDERR_FILENO));
  Mailbox<std::int64_t> taken;
  // More than the socket holds, so that the rest is sent together when it is read.
  proxy->echo_completion(std::string(4U << 20U, 'x'), nullptr);
  for (int i = 0; i < 3; ++i) {
    proxy->take_and_completion(file, file, [&](const auto& number) { taken.put(*number); });
  }
  joined.callee->resume();
  ASSERT_TRUE(taken.waitForCount(3));
  EXPECT_EQ(taken.all(), (std::vector<std::int64_t>{3, 3, 3}));
}

TEST(Descriptors, ThatAreTooManyOrBelongNowhereCostTheConnectionAndDoNotStay) {
  {
    LogCapture log;
    Served served = Served::make();
    Witness witness;
    served.peer.sendBytes(echoCall(1, "x"), std::vector<int>(17, witness.writing()));
    EXPECT_TRUE(served.peer.isClosedByPeer());
    EXPECT_TRUE(witness.isClosedEverywhere());
    served.ended->wait();
    EXPECT_EQ(log.count("[NOTICE] Closing the connection to PID "), 1u);
  }
  {
    // A descriptor that another frame brought.
    Served served = Served::make();
    Witness witness;
    served.peer.sendBytes(echoCall(1, "x"), {witness.writing()});
    EXPECT_EQ(served.peer.readMessage()->id, 1);
    served.peer.sendBytes(takeCall(2, 1));
    EXPECT_TRUE(served.peer.isClosedByPeer());
    EXPECT_TRUE(witness.isClosedEverywhere());
  }
  {
    // One with every byte of a frame.
    Served served = Served::make();
    Witness witness;
    auto frame = echoCall(1, "a frame that is long enough");
    for (std::uint8_t& byte : frame) {
      if (!served.peer.sendBytes({&byte, 1}, {witness.writing()})) break;
    }
    EXPECT_TRUE(served.peer.isClosedByPeer());
    served.ended->wait();
    served.connection.reset();
    EXPECT_TRUE(witness.isClosedEverywhere());
  }
}

TEST(Descriptors, OfConnectionsDoNotKeepTheseAlive) {
  Served served = Served::make();
  served.peer.sendBytes(takeCall(1, 1), {served.peer.socket()});
  auto failure = served.peer.readMessage();
  ASSERT_TRUE(failure && failure->error);
  EXPECT_EQ(failure->error->code(), 2);
  // A frame that is never complete, with the far end itself.
  const auto frame = takeCall(2, 1);
  served.peer.sendBytes(std::span(frame).first(8), {served.peer.socket()});
  served.peer.close();
  served.ended->wait();
}

TEST(Descriptors, StayWithALargeFrameOverManyReads) {
  Served served = Served::make();
  Witness witness;
  // Three arguments are one too many, which shows that the frame was well-formed.
  served.peer.sendBytes(takeCall(1, 2, std::string(3 << 20, 'x')),
                        {witness.writing(), witness.writing()});
  auto failure = served.peer.readMessage();
  ASSERT_TRUE(failure && failure->error);
  EXPECT_EQ(failure->error->code(), 2);
  EXPECT_TRUE(witness.isClosedEverywhere());
}

}  // namespace
