// Clients that send what they should not, or go away when they should not: they lose their
// connection at most, and everybody else nothing.

#include <sys/socket.h>

#include "platform/conduit/Codec.h"
#include "tests/endtoend/Broker.h"

namespace qx::test {
namespace {

const char* const app = "com.example.app";

class HostileClients : public Broker {
 protected:
  void SetUp() override {
    start();
    bystander_ = consumer_.connect();
  }

  std::string startDocument(Wire& wire) {
    return wire.call(startProviding, {provider_.url("A.txt"), provider_.identifier(), app})
        .outcome();
  }

  ScriptedProvider provider_ = installation_.installProvider("com.example.p");
  Consumer consumer_ = readerAndWriter();
  Wire bystander_{FileDescriptor()};
};

TEST_F(HostileClients, LoseTheConnectionForWhatIsNoMessage) {
  using Frame = std::vector<std::uint8_t>;
  const std::vector<Frame> frames{{0, 0, 0, 0},                          // no length
                                  {1, 0, 0, 1, 0x80},                    // beyond 16 MiB
                                  {0, 0, 0, 2, 0xff, 0xff},              // no CBOR
                                  {0, 0, 0, 3, 0x9f, 0x01, 0xff},        // indefinite length
                                  {0, 0, 0, 2, 0x80, 0x80},              // two items
                                  {0, 0, 0, 1, 0x01},                    // no array
                                  {0, 0, 0, 2, 0x81, 0x09},              // no such kind
                                  {0, 0, 0, 4, 0x83, 0x01, 0x01, 0x60},  // a call cut short
                                  {'G', 'E', 'T', ' ', '/', '\r', '\n', '\r', '\n'}};
  const std::string closing =
      "[NOTICE] Closing the connection to PID " + std::to_string(consumer_.id()) + ": ";
  std::size_t count = 0;
  for (const Frame& frame : frames) {
    SCOPED_TRACE(++count);
    Wire wire = consumer_.connect();
    EXPECT_TRUE(wire.sendBytes(frame));
    EXPECT_TRUE(wire.isClosedByPeer());
    EXPECT_TRUE(daemon_->logs(closing, count));
    Wire next = consumer_.connect();
    EXPECT_EQ(next.call(wakeUp, {}).outcome(), "success");
    EXPECT_EQ(bystander_.call(wakeUp, {}).outcome(), "success");
  }

  EXPECT_EQ(daemon_->count(closing), frames.size());

  // Half a frame, and then nothing: waited for as long as the client stays, read by nobody after.
  Wire half = consumer_.connect();
  const Frame start{0, 0, 0, 9, 0x84};
  EXPECT_TRUE(half.sendBytes(start));
  EXPECT_EQ(bystander_.call(listProviders, {}).outcome(), "success");
  EXPECT_FALSE(half.hasInput());
  half.finish();
  EXPECT_TRUE(half.isClosedByPeer());
}

TEST_F(HostileClients, GetFailuresForCallsThatTheInterfaceDoesNotHave) {
  Wire wire = consumer_.connect();
  const URL url = provider_.url("A.txt");
  for (const char* operation : {"", "wakeUpCompletion", "wakeupcompletion:", "syncQueue",
                                "_performInitialSetupWithCompletion:"}) {
    EXPECT_EQ(wire.call(operation, {}).outcome(), "failure QXConduitErrorDomain 1") << operation;
  }
  const std::vector<std::pair<const char*, Array>> wrong{
      {wakeUp, {1}},
      {listProviders, {Value()}},
      {documentURL, {}},
      {documentURL, {7}},
      {documentURL, {Value(Array{"x"})}},
      {bookmarkableString, {"file:///a"}},
      {extendSandbox, {url, provider_.identifier()}},
      {extendSandbox, {url, provider_.identifier(), app, app}},
      {startProviding, {url, Bytes{1}, app}},
      {startProviding, {url, provider_.identifier(), Dictionary()}}};
  for (const auto& [operation, arguments] : wrong) {
    EXPECT_EQ(wire.call(operation, arguments).outcome(), "failure QXConduitErrorDomain 2")
        << operation << " " << describe(arguments);
  }
  EXPECT_EQ(provider_.calls(vendorIdentifier), 0U);
  EXPECT_EQ(wire.call(wakeUp, {}).outcome(), "success");

  // Replies and requests that nobody waits for change nothing.
  wire.send({2, 99, Array()});
  wire.send({3, 99, Error("Nobody", 1, "Nothing.")});
  EXPECT_EQ(wire.call(wakeUp, {}).outcome(), "success");
}

TEST_F(HostileClients, MayLeaveWithCallsInFlight) {
  ASSERT_EQ(bystander_.call(extendSandbox, {provider_.url("A.txt"), provider_.identifier(), app})
                .outcome(),
            "success");
  provider_.behave({{vendorStart, "hold"}});
  {
    Wire leaving = consumer_.connect();
    leaving.begin(startProviding, {provider_.url("A.txt"), provider_.identifier(), app});
    for (int i = 0; i < 200; ++i) leaving.begin(listProviders, {});
    ASSERT_TRUE(eventually([&] { return provider_.calls(vendorStart) == 1; }));
  }
  EXPECT_EQ(bystander_.call(listProviders, {}).outcome(), "success");
  // What was begun is carried through, its answer dropped.
  provider_.behave({});
  EXPECT_TRUE(daemon_->logs("[DEBUG] Successfully provided item at URL " +
                            provider_.url("A.txt").absoluteString()));
  EXPECT_EQ(startDocument(bystander_), "success");

  // So too when the program itself is gone: its calls that come after are nobody's.
  auto mortal = installation_.installConsumer("com.example.mortal", {{readEntitlement, true}});
  EXPECT_TRUE(
      eventually([&] { return mortal.connect().call(listProviders, {}).outcome() == "success"; }));
  Wire inherited = mortal.connect();
  EXPECT_EQ(inherited.call(wakeUp, {}).outcome(), "success");
  mortal.end();
  EXPECT_EQ(inherited.call(listProviders, {}).outcome(), "DSErrorDomain 6");
  EXPECT_EQ(inherited.call(documentURL, {"docsource:com.example.p/item/a"}).outcome(),
            "DSErrorDomain 3");
}

TEST_F(HostileClients, HoldUpNobodyWhenTheyDoNotReadTheirReplies) {
  Wire flood = consumer_.connect();
  conduit::Encoder call;
  conduit::encode(call, Array{1, 1, "wakeUpCompletion:", Array()});
  const auto frame = call.takeFrame();
  // Fills what the two sockets hold both ways; past that the daemon reads no more of it.
  std::vector<std::uint8_t> frames;
  for (int i = 0; i < 20000; ++i) frames.insert(frames.end(), frame.begin(), frame.end());
  send(flood.socket(), frames.data(), frames.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(bystander_.call(wakeUp, {}).outcome(), "success");
  flood.close();
  EXPECT_EQ(bystander_.call(listProviders, {}).outcome(), "success");
  stop();
}

}  // namespace
}  // namespace qx::test
