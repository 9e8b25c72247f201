// A hostile user beside an honest one, on a machine with one platformd: he holds as many
// connections, descriptors, bytes and calls as he is let.

#include <fcntl.h>

#include <atomic>
#include <thread>

#include "tests/abuse/Abuse.h"
#include "tests/abuse/Bystander.h"
#include "tests/support/Machine.h"

namespace qx::test {
namespace {

/// Everything that one user can have the service hold, until a file appears.
int hoard(const MachineUser& user, const std::string& stop) {
  const std::string trap = user.root() + "/trap";
  std::filesystem::create_directories(trap);
  Wire source = connectTo(coordinationService);
  source.call("addDocSource:providedItemsURL:completion:", {"trap", URL::fileURL(trap, true)});
  // Reads that nobody will ever answer.
  std::vector<Wire> readers;
  for (int i = 0; i < 4; ++i) {
    readers.push_back(connectTo(coordinationService));
    for (int item = 0; item < 1000; ++item) {
      const auto name = std::to_string(i) + "-" + std::to_string(item);
      readers.back().begin(coordinateReading, {URL::fileURL(trap + "/" + name)});
    }
  }
  const FileDescriptor null(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const std::vector<int> sixteen(16, null.get());
  const std::vector<std::uint8_t> begun{1, 0, 0, 0, 0};
  const std::vector<std::uint8_t> more(1 << 20, 0);
  std::vector<Wire> held;
  std::size_t next = 0;
  while (!std::filesystem::exists(stop)) {
    // Frames of 16 MiB that never end, with descriptors; dropped ones are replaced at once.
    const char* service = next % 2 == 0 ? coordinationService : sandboxService;
    Wire wire = connectTo(service);
    wire.sendBytes(begun, sixteen, MSG_DONTWAIT);
    wire.sendBytes(more, {}, MSG_DONTWAIT);
    if (held.size() < 2000) {
      held.push_back(std::move(wire));
    } else {
      held[next % held.size()] = std::move(wire);
    }
    ++next;
  }
  return 0;
}

TEST_F(MachineTest, AHostileUserHoldsUpNobodyElse) {
  Tally tally("reads beside a user who holds what he can");
  alice().start();
  const std::size_t count = tries(20000, 200);
  const std::string stop = machine_ / "stop";
  std::thread attack([&] { EXPECT_EQ(mallory().run([&] { return hoard(mallory(), stop); }), 0); });
  // Once he has begun to be refused, he has all that he gets.
  EXPECT_TRUE(platform_->logs("user " + std::to_string(mallory().number()) + " has too many"));
  EXPECT_EQ(alice().run([&] {
    const Value letter = URL::fileURL(alice().document("letter"));
    if (connectTo(coordinationService).call(coordinateReading, {letter}).outcome() != "success") {
      return 1;
    }
    Bystander bystander(connectTo(coordinationService));
    bystander.measure(coordinateReading, {letter}, count);
    const auto latency = bystander.finish();
    std::printf("%s\n", latency.text().c_str());
    // Every connection of her own is taken, too.
    for (int i = 0; i < 3; ++i) {
      if (connectTo(sandboxService).call(consumeExtension, {Bytes()}).outcome() !=
          "QXPOSIXErrorDomain 74") {
        return 2;
      }
    }
    return latency.failures == 0 && latency.isEven() ? 0 : 3;
  }),
            0);
  tally.tries += count;
  // She keeps her own provider, and he has not even slowed it to a stand.
  EXPECT_EQ(alice().run([&] {
    const auto url = URL::fileURL(alice().document("plan"));
    Wire wire = connectTo(coordinationService);
    return wire.call(coordinateReading, {url}).outcome() == "success" ? 0 : 1;
  }),
            0);
  const auto usage = Usage::of(platform_->id());
  tally.note = usage.text();
  std::ofstream(stop).flush();
  attack.join();
}

}  // namespace
}  // namespace qx::test
