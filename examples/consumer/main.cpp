// A consumer that was handed a bookmarkable string (by the program that granted it the document):
// resolves the string, redeems the token that comes with the document, and copies the document to
// standard output. The coordinated read before has the provider bring the content in; it takes a
// program that may read the file by its path, so one that may not is content with its token.

#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>

#include "docsource/client.h"

namespace {

int fail(const char* what, const docsource::Error& error) {
  std::fprintf(stderr, "%s: %s\n", what, error.text().c_str());
  return error.isConnectionFailure() ? 3 : 1;
}

bool copyToStandardOutput(int from) {
  std::array<char, 1U << 16U> buffer{};
  while (true) {
    const ssize_t count = ::read(from, buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return count == 0 && std::fflush(stdout) == 0;
    const auto size = static_cast<std::size_t>(count);
    if (std::fwrite(buffer.data(), 1, size, stdout) != size) return false;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s BOOKMARK\n", argv[0]);
    return 2;
  }
  docsource::Client client(std::chrono::seconds(20));

  const auto document = client.resolveBookmark(argv[1]);
  if (!document) return fail("The bookmark leads nowhere", document.error());
  std::fprintf(stderr, "%s\n", document->url.c_str());

  const auto ready = client.coordinateReading(document->url);
  if (!ready) std::fprintf(stderr, "Not coordinated: %s\n", ready.error().text().c_str());

  if (!document->extension.token) {
    std::fprintf(stderr, "The document is not there.\n");
    return 1;
  }
  const auto file = client.redeem(*document->extension.token);
  if (!file) return fail("The token was refused", file.error());
  if (!copyToStandardOutput(file->get())) {
    std::perror("The document cannot be copied");
    return 1;
  }
  return 0;
}
