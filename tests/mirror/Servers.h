#pragma once

#include "extensions/s3/S3Remote.h"
#include "tests/webdav/ServerProcess.h"

/// Real servers, reached on two ways: directly, and through a proxy that is as slow and as broken
/// as a test wants it.
namespace docsource::test {

class Server {
 public:
  /// One of servers.py; moto and s3rver are stores.
  explicit Server(const std::string& kind)
      : isStore_(kind == "moto" || kind == "s3rver"),
        server_(kind, isStore_ ? S3_SERVERS : WEBDAV_SERVERS) {
    if (!runs()) return;
    const auto& address = server_.says();
    direct_ = address.substr(0, address.find('/', std::string_view("http://").size()));
    proxy_.emplace(
        std::vector<std::string>{"python3", PROXY, direct_.substr(direct_.rfind(':') + 1)});
    throughProxy_ = proxy_->readLine();
  }
  ~Server() {
    if (proxy_) proxy_->wait();
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  bool runs() const { return server_.url().has_value(); }
  const std::string& says() const { return server_.says(); }
  bool isStore() const { return isStore_; }
  std::string files() const { return server_.files(); }

  /// The documents below a path that begins with a slash; through the proxy what would wait does
  /// not. Twice the same for the same one. Null when there is no such server.
  std::unique_ptr<Remote> documents(const std::string& base, bool isDirect) const {
    if (!runs()) return nullptr;
    const auto& way = isDirect ? direct_ : throughProxy_;
    http::ConnectionOptions connection;
    if (!isDirect) {
      connection.wait = [](std::chrono::milliseconds) { return true; };
      connection.patience = std::chrono::seconds(1);
    }
    if (isStore_) {
      s3::S3Options options;
      options.url = "s3://docs" + base;
      options.endpoint = way;
      options.connection = connection;
      options.credentials = [] {
        return Result<s3::Credentials>({"S3RVER", "S3RVER", std::nullopt});
      };
      return *s3::makeS3Remote(std::move(options));
    }
    auto options = server_.options();
    std::filesystem::create_directories(server_.files() + base);
    // Some servers work as another user.
    std::filesystem::permissions(server_.files() + base, std::filesystem::perms::all);
    options.url = way + base;
    options.connection.wait = connection.wait;
    options.connection.patience = connection.patience;
    return *webdav::makeWebDAVRemote(std::move(options));
  }

  /// What the proxy does from now on (proxy.py).
  void tell(const std::string& settings) { proxy_->ask(settings); }

 private:
  const bool isStore_;
  const webdav::test::ServerProcess server_;
  std::optional<qx::test::ChildProcess> proxy_;
  std::string direct_;
  std::string throughProxy_;
};

}  // namespace docsource::test
