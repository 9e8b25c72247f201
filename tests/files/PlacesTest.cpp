#include "platform/files/Places.h"

#include <gtest/gtest.h>

#include "tests/support/InChild.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

namespace Places = qx::Places;
using qx::test::TemporaryDirectory;

// The environment is read once in the life of a process.
void inProcessOfItsOwn(const std::function<void()>& body) {
  EXPECT_EQ(qx::test::inChild([&body] {
              body();
              return testing::Test::HasFailure() ? 1 : 0;
            }),
            0);
}

TEST(PlacesTest, WithoutARootTheUserDecides) {
  for (const bool isNamed : {true, false}) {
    inProcessOfItsOwn([isNamed] {
      ::unsetenv("DOCSOURCE_ROOT");
      EXPECT_TRUE(qx::test::dropPrivileges());
      ::setenv("HOME", "/home/user", 1);
      ::setenv("XDG_DATA_HOME", isNamed ? "/data/" : "relative", 1);
      ::setenv("XDG_RUNTIME_DIR", isNamed ? "/runtime" : "", 1);
      EXPECT_EQ(Places::root(), isNamed ? "/data/docsource" : "/home/user/.local/share/docsource");
      EXPECT_EQ(Places::runtimeDirectory(),
                isNamed ? "/runtime/docsource"
                        : "/run/user/" + std::to_string(::geteuid()) + "/docsource");
    });
  }
}

TEST(PlacesTest, TheMachineIsWhatTheVariableSays) {
  inProcessOfItsOwn([] {
    TemporaryDirectory directory;
    ::setenv("DOCSOURCE_MACHINE", directory.path().c_str(), 1);
    ::setenv("DOCSOURCE_ROOT", (directory / "user").c_str(), 1);
    const auto program = std::filesystem::read_symlink("/proc/self/exe");
    EXPECT_EQ(Places::machineBundles(),
              (std::vector{directory / "lib",
                           (program.parent_path().parent_path() / "lib/docsource").string()}));
    EXPECT_EQ(Places::notifications(), directory / "user/run/notify");
    // What is there already is closed to others.
    for (const char* path : {"run", "state", "user/run"}) {
      std::filesystem::create_directories(directory / path);
      std::filesystem::permissions(directory / path, std::filesystem::perms(0777));
    }
    EXPECT_EQ(Places::prepareRuntime(), 0);
    EXPECT_EQ(std::filesystem::status(directory / "user/run").permissions(),
              std::filesystem::perms(0700));
    EXPECT_EQ(Places::prepareMachine(), 0);
    EXPECT_EQ(Places::notifications(), directory / "run/notify");
    EXPECT_EQ(Places::keyState(), directory / "run/key-state");
    EXPECT_EQ(std::filesystem::status(directory / "run").permissions(),
              std::filesystem::perms(0755));
    EXPECT_EQ(std::filesystem::status(directory / "state").permissions(),
              std::filesystem::perms(0700));
    EXPECT_EQ(Places::servesMachine(), ::geteuid() == 0);
  });
}

}  // namespace
