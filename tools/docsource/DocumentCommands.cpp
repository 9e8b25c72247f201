// The commands that end with a document's content on standard output: as it is, or with --json as
// base64 in one object, a piece at a time, since a document can be larger than memory.

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <future>
#include <memory>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/base/Text.h"
#include "tools/docsource/ArrivalWatch.h"
#include "tools/docsource/Command.h"
#include "tools/docsource/Location.h"
#include "tools/docsource/Output.h"

namespace tool {
namespace {

/// A multiple of three, so that pieces in base64 make one whole.
constexpr std::size_t pieceSize = std::size_t{3} << 16U;

/// Fills the buffer as far as the file goes; negative when it cannot be read.
ssize_t readPiece(int file, std::span<std::uint8_t> buffer) {
  std::size_t size = 0;
  while (size < buffer.size()) {
    const ssize_t count = ::read(file, buffer.data() + size, buffer.size() - size);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return -1;
    if (count == 0) break;
    size += static_cast<std::size_t>(count);
  }
  return static_cast<ssize_t>(size);
}

/// `name` is what a person calls the document.
int copy(const Arguments& arguments, const docsource::Result<docsource::Descriptor>& document,
         const std::string& name) {
  if (!document) return fail(arguments, document.error());
  std::vector<std::uint8_t> buffer(pieceSize);
  std::int64_t size = 0;
  bool printed = true;
  while (printed) {
    const ssize_t count = readPiece(document->get(), buffer);
    if (count < 0) {
      return fail(arguments, docsource::Error::posix(errno, name + " cannot be read"));
    }
    // What cannot be read at all begins no object.
    if (arguments.json && size == 0) printed = print(R"({"content": ")");
    if (count == 0) break;
    size += count;
    const auto piece = std::span(buffer).first(static_cast<std::size_t>(count));
    printed = printed &&
              (arguments.json ? print(qx::base64Encode(piece))
                              : print({reinterpret_cast<const char*>(piece.data()), piece.size()}));
  }
  if (arguments.json && printed) {
    printed = print(R"(", "encoding": "base64", "size": )" + std::to_string(size) + "}\n");
  }
  return printed ? success : operationFailed;
}

}  // namespace

int consume(const Arguments& arguments) {
  return copy(arguments, docsource::Client(arguments.timeout).redeem(arguments.subject),
              "The document");
}

int read(const Arguments& arguments) {
  const auto url = urlFromArgument(arguments.subject);
  docsource::Client client(arguments.timeout);
  const auto answered = std::make_shared<std::promise<docsource::Result<docsource::Descriptor>>>();
  auto opened = answered->get_future();
  client.openForReading(
      url,
      [answered](docsource::Result<docsource::Descriptor> document) {
        answered->set_value(std::move(document));
      },
      docsource::Client::noTimeout);
  ArrivalWatch arriving(url, arguments.timeout);
  constexpr std::chrono::milliseconds between(100);
  while (opened.wait_for(between) == std::future_status::timeout) {
    if (!arriving.goesOn()) {
      return fail(arguments, docsource::Error(docsource::LibraryError::timedOut,
                                              "Nothing of " + readable(url) + " arrives."));
    }
  }
  return copy(arguments, opened.get(), arguments.subject);
}

}  // namespace tool
