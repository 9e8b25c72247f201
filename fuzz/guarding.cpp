// What the guard of placeholders reads: its own list, line by line and whole, the lists of programs
// that users write, and the messages between its two processes. The first byte says which.

#include <fcntl.h>
#include <sys/socket.h>

#include <array>
#include <fstream>

#include "fuzz/Fuzz.h"
#include "platform/platformd/kernel/EventChannel.h"
#include "platform/platformd/kernel/GuardList.h"
#include "platform/platformd/kernel/Programs.h"
#include "tests/support/TemporaryDirectory.h"

using namespace qx;
using fuzz::require;

namespace {

void readEntry(std::string_view line) {
  const auto guarded = kernel::parseGuarded(line);
  if (!guarded) return;
  require(guarded->path.starts_with('/'), "what is guarded has a path");
  require(guarded->path.find('\0') == std::string::npos, "a path holds no zero byte");
  require(guarded->kind == kernel::Guarded::Kind::tree || guarded->handle.has_value(),
          "what was moved is found by its handle");
  const std::string text = kernel::textOf(*guarded);
  require(text.find('\n') == std::string::npos, "an entry is one line");
  require(kernel::parseGuarded(text) == guarded, "an entry is read as it was written");
}

/// Every line that says something is kept, whatever stands around it and whatever is added.
void readList(std::string_view text) {
  static const auto& directory = *new test::TemporaryDirectory;
  const auto list = [] {
    return kernel::GuardList(
        FileDescriptor(open(directory.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
  };
  std::ofstream(directory / "guarded", std::ofstream::binary) << text;
  kernel::GuardList read = list();
  auto expected = read.all();
  require(list().all() == expected, "the same list is read again");
  const auto own = kernel::parseGuarded("tree 4294967294 - /added");
  if (!read.add(*own)) return;
  expected.insert(*own);
  require(list().all() == expected, "what is added is added to the rest");
}

void readPrograms(std::string_view text) {
  std::size_t problems = 0;
  const auto programs = kernel::ProgramList::parse(text, [&](std::size_t line) {
    require(line > 0, "lines are counted from one");
    ++problems;
  });
  require(problems <= text.size() + 1, "a line is complained of once");
  require(programs.kindOf("") == kernel::ProgramKind::ordinary, "nobody without a name is listed");
  require(programs.kindOf("a/b") == kernel::ProgramKind::ordinary, "a name has no slash");
}

/// Whatever comes over the socket is a message, or the end.
void receive(std::string_view bytes) {
  std::array<int, 2> ends{};
  require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) == 0, "sockets exist");
  const FileDescriptor peer(ends[0]);
  const kernel::EventChannel channel{FileDescriptor(ends[1])};
  const bool isSent = send(peer.get(), bytes.data(), bytes.size(), MSG_DONTWAIT) >= 0;
  kernel::EventChannel::Received received;
  const auto state = channel.receive(received);
  const bool isWhole = bytes.size() == sizeof(kernel::Message);
  require(!isSent || (state == kernel::EventChannel::State::message) == isWhole,
          "a message is of its own size");
  require(!received.descriptor, "no descriptor comes from nowhere");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::muteLog();
  fuzz::Input input(data, size);
  const auto kind = input.byte() % 4;
  const auto text = fuzz::textOf(input.rest());
  if (kind == 0) readEntry(text);
  if (kind == 1) readPrograms(text);
  if (kind == 2) receive(text);
  if (kind == 3) readList(text);
  return 0;
}
