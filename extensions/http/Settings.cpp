#include "extensions/http/Settings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

namespace docsource::http {
namespace {

constexpr std::size_t mostBytes = 64UL * 1024;

Error noSecret(const std::string& why) {
  return remoteError(RemoteProblem::notAuthorised, "There is no password: " + why + ".");
}

Result<std::vector<std::string>> linesOf(const std::string& text, const std::string& where) {
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < text.size();) {
    const auto end = text.find_first_of("\r\n", at);
    lines.push_back(text.substr(at, end - at));
    if (end == std::string::npos) break;
    at = end + (text.compare(end, 2, "\r\n") == 0 ? 2 : 1);
  }
  if (lines.empty() || lines.front().empty()) return noSecret(where + " begins with an empty line");
  return lines;
}

}  // namespace

Result<std::vector<std::string>> secretFromCommand(const std::string& command) {
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
  return linesOf(text, "what the command for it prints");
}

Result<std::vector<std::string>> secretFromFile(const std::string& path) {
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
  return linesOf({text.data(), static_cast<std::size_t>(count)}, "the file " + path);
}

std::function<Result<std::vector<std::string>>()> secretFrom(const account::Settings& setting) {
  if (const auto command = setting(account::secretCommandKey)) {
    return [command] { return secretFromCommand(*command); };
  }
  if (const auto file = setting(account::secretFileKey)) {
    return [file] { return secretFromFile(*file); };
  }
  return {};
}

ConnectionOptions connectionFrom(const account::Settings& setting) {
  ConnectionOptions connection;
  connection.user = setting(account::userKey);
  if (const auto lines = secretFrom(setting)) {
    connection.secret = [lines]() -> Result<std::string> {
      auto secret = lines();
      if (!secret) return secret.error();
      return std::move(secret->front());
    };
  }
  connection.isBearer = setting(account::authenticationKey) == "bearer";
  connection.authority = setting(account::authorityKey);
  connection.clientCertificate = setting(account::clientCertificateKey);
  connection.clientKey = setting(account::clientKeyKey);
  connection.proxy = setting(account::proxyKey);
  return connection;
}

}  // namespace docsource::http
