#include <gtest/gtest.h>

#include <set>

#include "platform/base/Errors.h"
#include "platform/base/Text.h"
#include "tests/conduit/Trial.h"
#include "tests/support/LogCapture.h"

namespace {

using namespace qx::test;
using qx::Dictionary;
using qx::Error;
using qx::Value;
using qx::conduit::Encoder;

using Errors = Mailbox<Error>;

std::vector<std::uint8_t> bytesOf(const std::string& hex) { return *qx::hexDecode(hex); }

/// A reply, or a failure, with one value.
std::vector<std::uint8_t> answer(std::int64_t kind, std::int64_t id, const Value& value) {
  Encoder message;
  message.array(3);
  message.integer(kind);
  message.integer(id);
  qx::conduit::encode(message, value);
  return message.takeFrame();
}

TEST(BadPeer, IsDisconnectedWithOneLineForWhatIsNoMessage) {
  const std::string uuid = "d82550000102030405060708090a0b0c0d0e0f";
  std::vector<std::vector<std::uint8_t>> frames;
  // Lengths, and what is malformed.
  for (const std::string hex :
       {"00000000", "01000001", "ffffffff", "00000001ff", "000000029f01", "00000002f6f6"}) {
    frames.push_back(bytesOf(hex));
  }
  for (const std::string& body : std::vector<std::string>{
           // No messages, messages without a number, calls,
           "f6", "a0", "80", "8101", "8301006178", "840120617880", "84016130617880", "8401000180",
           "8401006178a0", "850100617880f6", "860100617880" + uuid + "f6",
           // replies, failures,
           "820200", "830200a0", "830300f6", "83030080", "8303006178",
           // requests, and other kinds.
           "8104", "82046178", "8204" + uuid, "8205" + uuid, "83060080", "8361310080",
           "83200080"}) {
    frames.push_back(RawPeer::frame(bytesOf(body)));
  }
  for (const auto& frame : frames) {
    SCOPED_TRACE(qx::hexEncode(frame));
    LogCapture log;
    Served served = Served::make();
    served.peer.sendBytes(frame);
    EXPECT_TRUE(served.peer.isClosedByPeer());
    served.ended->wait();
    EXPECT_EQ(log.count("[NOTICE] Closing the connection to PID "), 1u);
    EXPECT_EQ(log.count(""), 1u);
    EXPECT_TRUE(served.object->echoed.all().empty());
  }
}

TEST(BadPeer, HearsOfUnknownOperationsAndWrongArgumentsAndMayGoOn) {
  Served served = Served::make();
  const auto failureOf = [&](std::string_view operation, auto arguments) -> std::int64_t {
    served.peer.sendBytes(RawPeer::call(5, operation, arguments));
    auto message = served.peer.readMessage();
    if (!message || message->kind != 3 || message->id != 5) return 0;
    return message->error->domain() == QXConduitErrorDomain ? message->error->code() : 0;
  };
  const auto with = [](auto... values) {
    return [=](Encoder& to) { qx::conduit::encodeList(to, std::optional(values)...); };
  };
  const std::string text = "x";
  EXPECT_EQ(failureOf("echo:", with(text)), 1);
  EXPECT_EQ(failureOf("", with(text)), 1);
  EXPECT_EQ(failureOf(std::string(1 << 20, 'n') + "\x01", with(text)), 1);
  EXPECT_EQ(failureOf("echo:completion:", with()), 2);
  EXPECT_EQ(failureOf("echo:completion:", with(text, text)), 2);
  EXPECT_EQ(failureOf("echo:completion:", with(std::int64_t{1})), 2);
  EXPECT_EQ(failureOf("echo:completion:", with(qx::URL("file:///x"))), 2);
  EXPECT_EQ(failureOf("listCompletion:", with(text)), 2);
  EXPECT_TRUE(served.object->echoed.all().empty());
  EXPECT_TRUE(echoes(served.peer));
}

TEST(Caller, GetsEachReplyThatDoesNotMatchAsErrorThree) {
  Served served = Served::make();
  auto errors = std::make_shared<Errors>();
  auto proxy = served.proxy(errors);
  Gate answered;
  const auto isRefused = [&](const Value& reply) {
    proxy->listCompletion([&](const auto&...) { answered.pass(); });
    auto call = served.peer.readMessage();
    EXPECT_EQ(call->operation, "listCompletion:");
    served.peer.sendBytes(answer(2, call->id, reply));
    if (!errors->waitForCount(1)) return false;
    return errors->take().front().is(QXConduitErrorDomain, 3);
  };
  EXPECT_TRUE(isRefused(qx::Array{}));
  EXPECT_TRUE(isRefused(qx::Array{Dictionary(), Value(), Value()}));
  EXPECT_TRUE(isRefused(qx::Array{"x", Value()}));
  EXPECT_TRUE(isRefused(qx::Array{Dictionary(), "x"}));
  EXPECT_TRUE(isRefused(qx::Array{Dictionary{{"k", "not allowed in here"}}, Value()}));

  EXPECT_EQ(answered.passed(), 0u);
  served.peer.sendBytes(answer(2, 4711, qx::Array{}));
  served.peer.sendBytes(answer(3, 4711, DSNotPermittedError()));
  EXPECT_TRUE(echoes(served.peer));
  EXPECT_TRUE(errors->all().empty());
}

// An error of many small values, as the reply to nothing at all.
TEST(Caller, BuildsNothingForAnAnswerThatNobodyWaitsFor) {
  Served served = Served::make();
  qx::conduit::Encoder failure;
  failure.array(3);
  failure.integer(3);
  failure.integer(4711);
  failure.tag(17746);
  failure.array(3);
  failure.string("Domain");
  failure.integer(1);
  failure.map(1);
  failure.string("values");
  constexpr std::size_t count = 3'000'000;
  failure.array(count);
  for (std::size_t i = 0; i < count; ++i) failure.null();
  const auto frame = failure.takeFrame();
  const long before = peakMemory();
  ASSERT_TRUE(served.peer.sendBytes(frame));
  EXPECT_TRUE(echoes(served.peer));
  EXPECT_LT(peakMemory() - before, 100);  // MiB; the values alone take 160
}

TEST(Caller, MayAllowClassesInOneReplyArgument) {
  const Joined joined;
  const auto& object = joined.object;
  auto& errors = *joined.errors;
  auto widened = QXConduitInterface::interfaceWithProtocol<Trial>();
  using qx::conduit::ValueClass;
  widened->setClassesForReply({ValueClass::dictionary, ValueClass::url}, "listCompletion:", 0);
  joined.caller->setRemoteObjectInterface(widened);
  object->list = Dictionary{{"a", Dictionary{{"b", qx::URL("file:///c")}}}};
  joined.callee->resume();
  joined.caller->resume();
  Mailbox<Dictionary> replies;
  const auto proxy = joined.proxy();
  proxy->listCompletion([&](const auto& list, const auto&) { replies.put(*list); });
  ASSERT_TRUE(replies.waitForCount(1));
  EXPECT_EQ(replies.all().front(), object->list);

  const std::string large(qx::conduit::maximumFrameSize, 'x');
  for (const auto& [value, code] :
       {std::pair(Value(1), 3), {Value(large), 5}, {Value(qx::Date()), 3}}) {
    object->list = Dictionary{{"k", value}};
    proxy->listCompletion([&](const auto&...) { ADD_FAILURE(); });
    ASSERT_TRUE(errors.waitForCount(1));
    EXPECT_EQ(errors.take().front().code(), code);
  }
  proxy->echo_completion(large, [&](const auto&) { ADD_FAILURE(); });
  ASSERT_TRUE(errors.waitForCount(1));
  EXPECT_EQ(errors.take().front().code(), 5);

  Mailbox<std::string> echoed;
  proxy->echo_completion("once", [&](const auto& text) { echoed.put(*text); });
  proxy->echo_completion("twice", [&](const auto& text) { echoed.put(*text); });
  ASSERT_TRUE(echoed.waitForCount(2));
  const auto texts = echoed.all();
  EXPECT_EQ(std::set<std::string>(texts.begin(), texts.end()),
            (std::set<std::string>{"once", "twice"}));
  EXPECT_TRUE(errors.all().empty());
}

TEST(Caller, HearsOnceForEachCallInFlightThatTheConnectionIsLost) {
  for (bool fromHere : {false, true}) {
    Served served = Served::make();
    auto errors = std::make_shared<Errors>();
    auto proxy = served.proxy(errors);
    Gate answered;
    for (int i = 0; i < 5; ++i) {
      proxy->echo_completion("x", [&](const auto&) { answered.pass(); });
    }
    std::vector<std::int64_t> ids;
    for (int i = 0; i < 5; ++i) ids.push_back(served.peer.readMessage()->id);
    EXPECT_EQ(std::set<std::int64_t>(ids.begin(), ids.end()).size(), 5u);
    served.peer.sendBytes(answer(3, ids[3], DSNotPermittedError()));
    ASSERT_TRUE(errors->waitForCount(1));
    EXPECT_EQ(errors->all().front(), DSNotPermittedError());
    served.peer.sendBytes(answer(2, ids[1], qx::Array{"y"}));
    answered.wait();
    // Half a frame, and no more.
    served.peer.sendBytes(bytesOf("000000108301"));
    if (fromHere) {
      served.connection->invalidate();
    } else {
      served.peer.close();
    }
    served.ended->wait();
    EXPECT_EQ(errors->all().size(), 4u);
    // What is called now is lost as well.
    proxy->echo_completion("x", {});
    ASSERT_TRUE(errors->waitForCount(5));
    for (std::size_t i = 1; i < 5; ++i) EXPECT_EQ(errors->all()[i].code(), 4);
    EXPECT_TRUE(served.connection->isInvalid());
    EXPECT_EQ(served.ended->passed(), 1u);
    EXPECT_EQ(answered.passed(), 1u);
  }
}

TEST(Callee, AnswersOnceAndUnansweredCallsAreFree) {
  Served served = Served::make();
  served.peer.sendBytes(holdCall(1));
  served.peer.sendBytes(holdCall(2));
  ASSERT_TRUE(served.object->numbers.waitForCount(2));
  auto held = served.object->takeHeld();
  held[0](10);
  held[0](11);
  held.clear();
  auto reply = served.peer.readMessage();
  EXPECT_EQ(reply->id, 1);
  EXPECT_EQ(reply->first, Value(10));
  EXPECT_TRUE(echoes(served.peer));
}

TEST(Requests, AreNamedByTheirCallsAndFailAlone) {
  Served served = Served::make();
  auto interface = QXConduitInterface::interfaceWithProtocol<Trial>();
  const auto one = qx::UUID::random();
  const auto two = qx::UUID::random();
  auto errors = std::make_shared<Errors>();
  Mailbox<std::string> echoed;
  const auto call = [&](const qx::UUID& request, const std::string& text) {
    auto auxiliary = served.connection->auxiliaryConnection(request, interface);
    EXPECT_EQ(auxiliary->auditToken(), served.connection->auditToken());
    auxiliary
        ->remoteObjectProxyWithErrorHandler<Trial>([errors](const Error& e) { errors->put(e); })
        ->echo_completion(text, [&](const auto& reply) { echoed.put(*reply); });
  };
  served.connection->beginRequest(one);
  served.connection->beginRequest(two);
  call(one, "1");
  call(two, "2");
  std::vector<std::int64_t> ids;
  for (const auto& [kind, request] : {std::pair(4, one), {4, two}, {1, one}, {1, two}}) {
    auto message = served.peer.readMessage();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->kind, kind);
    EXPECT_TRUE(std::equal(request.bytes.rbegin(), request.bytes.rend(), message->body.rbegin()));
    ids.push_back(message->id);
  }
  served.connection->failRequest(one);
  ASSERT_TRUE(errors->waitForCount(1));
  EXPECT_TRUE(errors->all().front().is(QXConduitErrorDomain, 4));
  served.peer.sendBytes(answer(2, ids[2], qx::Array{"late"}));
  served.peer.sendBytes(answer(2, ids[3], qx::Array{"in time"}));
  ASSERT_TRUE(echoed.waitForCount(1));
  EXPECT_EQ(echoed.all().front(), "in time");
  served.connection->endRequest(two);
  EXPECT_EQ(served.peer.readMessage()->kind, 5);
  EXPECT_TRUE(echoes(served.peer));
  EXPECT_EQ(errors->all().size(), 1u);
}

}  // namespace
