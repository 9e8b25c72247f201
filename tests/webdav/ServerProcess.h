#pragma once

#include <memory>
#include <string_view>

#include "docsource/remote.h"
#include "extensions/webdav/WebDAVRemote.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TemporaryDirectory.h"

namespace docsource::webdav::test {

/// A server of servers.py or one that is scripted, as an ordinary process. Ended with this object.
class ServerProcess {
 public:
  ServerProcess(const std::string& kind, const std::string& script)
      : process_({"python3", script, kind, directory_.path()}), line_(process_.readLine()) {}
  ~ServerProcess() { process_.wait(); }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  /// Absent when it does not run; says() says why.
  std::optional<std::string> url() const {
    return line_.starts_with("http") ? std::optional(line_) : std::nullopt;
  }
  const std::string& says() const { return line_; }
  std::string files() const { return directory_.path() + "/files"; }
  const std::string& directory() const { return directory_.path(); }

  std::string ask(const std::string& line) { return process_.ask(line); }

  WebDAVOptions options() const {
    WebDAVOptions options;
    options.url = line_;
    options.connection.user = "user";
    options.connection.secret = [] { return Result<std::string>("pass word"); };
    return options;
  }

 private:
  const qx::test::TemporaryDirectory directory_;
  qx::test::ChildProcess process_;
  const std::string line_;
};

/// A content that is uploaded, in pieces of seven bytes where it is short.
class TextSource final : public RemoteSource {
 public:
  explicit TextSource(std::string text, std::optional<Error> end = std::nullopt)
      : text_(std::move(text)), end_(std::move(end)) {}
  Result<std::string_view> read(std::size_t most) override {
    if (position_ == text_.size() && end_) return *end_;
    const auto piece = std::string_view(text_).substr(
        position_, std::min<std::size_t>(most, text_.size() < 1000 ? 7 : 100000));
    position_ += piece.size();
    return piece;
  }
  std::uint64_t size() const override { return text_.size(); }

 private:
  const std::string text_;
  const std::optional<Error> end_;
  std::size_t position_ = 0;
};

/// As a test writes and reads: the content, or the problem in its place.
inline std::string contentOf(Remote& remote, const std::string& path, const std::string& version,
                             std::uint64_t offset = 0, std::uint64_t length = UINT64_MAX) {
  std::string content;
  const auto read = remote.read(path, version, offset, length, [&](std::string_view piece) {
    content += piece;
    return Result<void>();
  });
  return read ? content
              : "error " + std::to_string(read.error().code()) + ": " + read.error().description();
}

template <class Value>
std::optional<RemoteProblem> problemIn(const Result<Value>& result) {
  return result ? std::nullopt : std::optional(remoteProblemOf(result.error()));
}

inline std::string textOf(const Error& error) { return error.text(); }

}  // namespace docsource::webdav::test
