#include "extensions/webdav/Settings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

namespace docsource::webdav {
namespace {

constexpr std::size_t mostBytes = 64UL * 1024;

Error noSecret(const std::string& why) {
  return remoteError(RemoteProblem::notAuthorised, "There is no password: " + why + ".");
}

Result<std::string> firstLineOf(const std::string& text, const std::string& where) {
  const auto line = text.substr(0, text.find_first_of("\r\n"));
  if (line.empty()) return noSecret(where + " begins with an empty line");
  return line;
}

}  // namespace

Result<std::string> secretFromCommand(const std::string& command) {
  // Nobody is there to be asked by it.
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> output(
      ::popen(("exec </dev/null; " + command).c_str(), "re"), &::pclose);
  if (!output) return noSecret("the command for it cannot be run");
  std::string text;
  std::array<char, 4096> piece{};
  while (const auto count = std::fread(piece.data(), 1, piece.size(), output.get())) {
    if (text.size() < mostBytes) text.append(piece.data(), count);
  }
  if (::pclose(output.release()) != 0) return noSecret("the command for it failed");
  return firstLineOf(text, "what the command for it prints");
}

Result<std::string> secretFromFile(const std::string& path) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) {
    return noSecret(Error::file(errno, path).description());
  }
  if ((status.st_mode & 077) != 0) {
    return noSecret("others may use the file " + path + " as well; its mode has to be 0600");
  }
  std::array<char, 4096> text{};
  const auto count = ::read(file.get(), text.data(), text.size());
  if (count < 0) return noSecret(Error::file(errno, path).description());
  return firstLineOf({text.data(), static_cast<std::size_t>(count)}, "the file " + path);
}

Result<std::unique_ptr<Remote>> makeWebDAVRemote(
    const std::function<std::optional<std::string>(const std::string&)>& setting) {
  WebDAVOptions options;
  options.url = setting(urlKey).value_or("");
  auto& connection = options.connection;
  connection.user = setting(userKey);
  if (const auto command = setting(passwordCommandKey)) {
    connection.secret = [command] { return secretFromCommand(*command); };
  } else if (const auto file = setting(passwordFileKey)) {
    connection.secret = [file] { return secretFromFile(*file); };
  }
  connection.isBearer = setting(authenticationKey) == "bearer";
  connection.authority = setting(authorityKey);
  connection.clientCertificate = setting(clientCertificateKey);
  connection.clientKey = setting(clientKeyKey);
  connection.proxy = setting(proxyKey);
  return makeWebDAVRemote(std::move(options));
}

}  // namespace docsource::webdav
