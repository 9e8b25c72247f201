#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <iterator>

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

}  // namespace qx::test
