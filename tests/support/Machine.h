#pragma once

#include <grp.h>
#include <gtest/gtest.h>

#include <fstream>

#include "platform/files/FileManager.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Daemons.h"
#include "tests/support/InChild.h"
#include "tests/support/Installation.h"
#include "tests/support/Operations.h"

namespace qx::test {

/// A user of the machine: a number that nobody else has, a root, and in it the example provider
/// with documents of the user's own.
class MachineUser {
 public:
  MachineUser(uid_t number, const std::string& machine) : number_(number), machine_(machine) {
    origin_ = installation_ / "Origin";
    std::filesystem::create_directories(origin_);
    for (const char* name : {"letter", "diary", "plan"}) {
      std::ofstream(origin_ + "/" + name) << content(name);
    }
    storage_ = installation_.installExampleProvider(origin_);
    give(installation_.root());
    std::filesystem::permissions(installation_.root(), std::filesystem::perms(0700));
  }

  uid_t number() const { return number_; }
  const std::string& root() const { return installation_.root(); }
  std::string document(const std::string& name) const { return storage_ + "/" + name; }
  std::string storage() const { return storage_; }
  std::string content(const std::string& name) const {
    return name + " of " + std::to_string(number_) + std::string(5000, '.') + "\n";
  }
  std::map<std::string, std::string> environment() const {
    return {{"DOCSOURCE_MACHINE", machine_}, {"HOME", root()}};
  }

  /// Starts the user's daemon and waits until it serves.
  void start() {
    daemon_ = std::make_unique<Daemon>("docsourced", root(), environment(), number_);
    EXPECT_TRUE(daemon_->logs("[INFO] Registered doc source extension com.example.provider"));
  }
  Daemon& daemon() { return *daemon_; }
  void stop() { daemon_.reset(); }

  /// Runs a body with this user's identity and places, in a process of its own.
  int run(const std::function<int()>& body) const {
    return inChild([&] {
      ::setenv("DOCSOURCE_ROOT", root().c_str(), 1);
      ::setenv("DOCSOURCE_MACHINE", machine_.c_str(), 1);
      if (::setgroups(0, nullptr) != 0 || ::setresgid(number_, number_, number_) != 0 ||
          ::setresuid(number_, number_, number_) != 0) {
        return 99;
      }
      return body();
    });
  }
  /// Whether a coordinated read of the user's own document gives its content.
  bool reads(const std::string& name) const {
    return run([&] {
             const auto url = URL::fileURL(document(name));
             if (connectTo(coordinationService).call(coordinateReading, {url}).outcome() !=
                 "success") {
               return 1;
             }
             const auto text = FileManager::readFile(document(name));
             return text && *text == content(name) ? 0 : 2;
           }) == 0;
  }
  /// What a program of the user's prints, and "status N" where that is not 0.
  std::string output(std::vector<std::string> words) const {
    ChildProcess program(asUser(number_, words));
    std::string text;
    for (std::string line = program.readLine(); !line.empty(); line = program.readLine()) {
      text += line + "\n";
    }
    const int status = program.wait();
    return status == 0 ? text : text + "status " + std::to_string(status);
  }

  /// Makes everything below a path this user's.
  void give(const std::string& path) const {
    (void)::lchown(path.c_str(), number_, number_);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
      (void)::lchown(entry.path().c_str(), number_, number_);
    }
  }

 private:
  const uid_t number_;
  const std::string machine_;
  Installation installation_;
  std::string origin_, storage_;
  std::unique_ptr<Daemon> daemon_;
};

/// One platformd for all, run by root, and three users.
class MachineTest : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root, to be several users";
    std::filesystem::permissions(machine_.path(), std::filesystem::perms(0755));
    for (const uid_t number : {41001U, 41002U, 41003U}) {
      users_.push_back(std::make_unique<MachineUser>(number, machine_.path()));
    }
    startPlatform();
  }
  void startPlatform() {
    platform_.emplace("platformd", machine_ / "nobody's",
                      std::map<std::string, std::string>{{"DOCSOURCE_MACHINE", machine_.path()}});
    EXPECT_TRUE(
        eventually([&] { return std::filesystem::exists(machine_ / "run/com.veltro.Sandbox"); }));
    EXPECT_TRUE(eventually([&] { return std::filesystem::exists(machine_ / "run/coordination"); }));
  }
  bool coordinatesEverybody() const {
    std::string mechanism;
    std::ifstream(machine_ / "run/coordination") >> mechanism;
    return mechanism != "cooperative";
  }

  MachineUser& alice() { return *users_[0]; }
  MachineUser& mallory() { return *users_[1]; }

  TemporaryDirectory machine_;
  std::optional<Daemon> platform_;
  std::vector<std::unique_ptr<MachineUser>> users_;
};

}  // namespace qx::test
