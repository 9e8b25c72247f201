#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

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

/// An installation, and the daemon that serves it once it is started.
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
  /// Ends it as a service manager does.
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

  Consumer readerAndWriter(const std::string& identifier = "com.example.app") {
    return installation_.installConsumer(identifier,
                                         {{readEntitlement, true}, {writeEntitlement, true}});
  }

  Installation installation_;
  std::optional<Daemon> daemon_;
};

}  // namespace qx::test
