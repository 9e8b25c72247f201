#pragma once

#include <gtest/gtest.h>

#include <sys/un.h>

#include <csignal>
#include <iterator>
#include <sstream>

#include "platform/files/FileManager.h"
#include "tests/support/BundleMaker.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Daemons.h"
#include "tests/support/Installation.h"
#include "tests/support/Operations.h"

namespace qx::test {

/// Whether bubblewrap is there and can make what it needs.
inline bool canSandbox() {
  ChildProcess probe({"bwrap", "--unshare-user", "--disable-userns", "--unshare-pid",
                      "--unshare-net", "--ro-bind", "/", "/", "--proc", "/proc", "true"});
  return probe.wait() == 0;
}

/// What a file holds, or why that cannot be told.
inline std::string contentOf(const std::string& path) {
  const auto text = FileManager::readFile(path);
  return text ? *text : text.error().text();
}

/// Listens at an address, which is abstract where it begins with '@'.
inline FileDescriptor listenAt(const std::string& path) {
  FileDescriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (path[0] == '@') address.sun_path[0] = '\0';
  const auto size = offsetof(sockaddr_un, sun_path) + path.size() + (path[0] == '@' ? 0 : 1);
  const bool isGood = bind(listener.get(), reinterpret_cast<sockaddr*>(&address),
                           static_cast<socklen_t>(size)) == 0 &&
                      listen(listener.get(), 64) == 0;
  return isGood ? std::move(listener) : FileDescriptor();
}

/// An installation, and the daemons that serve it once they are started.
class Broker : public testing::Test {
 protected:
  /// Starts docsourced and waits until it serves its clients.
  void start(const std::map<std::string, std::string>& environment = {}) {
    launch(environment);
    ASSERT_TRUE(installation_.becomesServed(docSourceService));
  }
  void launch(const std::map<std::string, std::string>& environment = {}) {
    daemon_.emplace("docsourced", installation_.root(), environment);
  }
  void startPlatform(const std::map<std::string, std::string>& environment = {}) {
    platform_.reset();
    platform_.emplace("platformd", installation_.root(), environment);
    ASSERT_TRUE(installation_.becomesServed(sandboxService));
    ASSERT_TRUE(installation_.becomesServed(coordinationService));
  }
  /// Ends docsourced as a service manager does.
  void stop() {
    EXPECT_EQ(daemon_->end(SIGTERM), 0);
    EXPECT_TRUE(daemon_->everyProcessEnds());
  }

  /// The processes of extensions, whichever thread of the daemon started them.
  std::vector<pid_t> extensions() const {
    std::vector<pid_t> all;
    for (const auto& thread :
         std::filesystem::directory_iterator("/proc/" + std::to_string(daemon_->id()) + "/task")) {
      std::ifstream children(thread.path() / "children");
      all.insert(all.end(), std::istream_iterator<pid_t>(children), {});
    }
    return all;
  }

  /// Waits until a provider is registered (again).
  bool isRegistered(const ScriptedProvider& provider, std::size_t times = 1) const {
    return daemon_->logs("[INFO] Registered doc source extension " + provider.identifier() + " ",
                         times);
  }

  /// How a command of the shell ended, in which the tool is `docsource` and HOME is home_.
  struct Outcome {
    int status = -1;
    std::string output, errors;
    std::string text() const { return output + errors; }
  };
  Outcome shell(const std::string& command) const {
    const std::string output = installation_ / "output", errors = installation_ / "errors";
    ChildProcess process(
        {"env", "HOME=" + home_, "DOCSOURCE_ROOT=" + installation_.root(),
         "PATH=" + builtProgram("") + ":/usr/bin:/bin", "GIT_CONFIG_GLOBAL=/dev/null", "sh", "-c",
         "{ " + command + "; } < /dev/null > '" + output + "' 2> '" + errors + "'"});
    const int status = process.wait();
    return {status, contentOf(output), contentOf(errors)};
  }
  /// The output of one that must succeed.
  std::string ask(const std::string& command) const {
    const auto outcome = shell(command);
    EXPECT_EQ(outcome.status, 0) << command << ": " << outcome.text();
    return outcome.output;
  }

  /// An application with the library that it needs beside its program, for sandboxes.
  void installSandboxed(const std::string& identifier, const Dictionary& entitlements = {}) {
    const std::string staged = installation_.staging();
    makeBundle(staged + "/bundle", identifier, builtProgram("sandboxed-consumer"), entitlements);
    std::filesystem::copy_file(CLIENT_LIBRARY, staged + "/bundle/" + CLIENT_LIBRARY_NAME);
    installation_.put(staged + "/bundle", installation_ / ("Applications/" + identifier + ".app"));
  }

  Consumer readerAndWriter(const std::string& identifier = "com.example.app") {
    return installation_.installConsumer(identifier,
                                         {{readEntitlement, true}, {writeEntitlement, true}});
  }

  Installation installation_;
  const TemporaryDirectory places_;
  const std::string home_ = places_ / "home";
  std::optional<Daemon> daemon_;
  std::optional<Daemon> platform_;
};

/// And somebody who grants a provider's documents to applications in sandboxes.
class SandboxBroker : public Broker {
 protected:
  static constexpr const char* p = "com.example.p";

  /// The bookmarkable string of a document that was granted to an application.
  std::string grant(const std::string& name, const std::string& identifier) {
    const auto made = grantor_.connect().call(extendBookmark, {provider_.url(name), identifier});
    EXPECT_EQ(made.outcome(), "success");
    const auto* string = made.at<std::string>(0);
    return string ? *string : "";
  }

  struct Resolved {
    /// Or the error.
    std::string url;
    std::string token, siblingURL, siblingToken;
  };
  static Resolved resolve(ChildProcess& sandboxed, const std::string& bookmark) {
    std::istringstream answer(sandboxed.ask("resolve\t" + bookmark));
    Resolved resolved;
    for (auto* part :
         {&resolved.url, &resolved.token, &resolved.siblingURL, &resolved.siblingToken}) {
      std::getline(answer, *part, '\t');
    }
    return resolved;
  }

  ScriptedProvider provider_ = installation_.installProvider(p);
  Consumer grantor_ = readerAndWriter("com.example.grantor");
};

}  // namespace qx::test
