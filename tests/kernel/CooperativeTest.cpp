// Where nobody can keep readers waiting, a placeholder has no permissions.

#include "tests/kernel/Fixture.h"

namespace {

using namespace qx::test;
using qx::Error;

class CooperativeTest : public testing::Test {};

TEST_F(CooperativeTest, APlaceholderHasNoPermissionsWhileItIsOne) {
  temporaryRoot();
  beApplication("com.example.tests", {{fileCoordinationHostEntitlement, true}});
  const std::string items = temporaryRoot() + "/Items";
  fs::create_directories(items + "/below");
  makePlaceholder(items + "/below/there", 5000, Mark::named);
  std::ofstream(items + "/content") << "content\n";
  std::optional<Daemon> platformd(
      std::in_place, "platformd", temporaryRoot(),
      std::map<std::string, std::string>{{"DOCSOURCE_COORDINATION", "cooperative"}});
  ASSERT_TRUE(platformd->logs("Only programs that ask for it are coordinated"));
  const auto source = std::make_shared<TestSource>("com.example.source", items);
  QXFileCoordinator::_addDocSource(source);
  const auto modeOf = [](const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? int(status.st_mode & 07777U) : -1;
  };
  EXPECT_TRUE(eventually([&] { return modeOf(items + "/below/there") == 0; }));
  fs::create_directories(items + "/later");
  makePlaceholder(items + "/later/come", 5000, Mark::named);
  EXPECT_TRUE(eventually([&] { return modeOf(items + "/later/come") == 0; }));
  EXPECT_EQ(modeOf(items + "/content"), 0644);

  // Who asks has it provided, as a file of its own in the place of the placeholder.
  source->behave([](const std::string& path, qx::Completion<Error> completion) {
    std::ofstream(path + ".new") << contentOf(fs::path(path).filename(), 5000);
    fs::rename(path + ".new", path);
    completion(std::nullopt);
  });
  EXPECT_EQ(run({builtProgram("docsource"), "read", items + "/below/there"}).line,
            contentOf("there", 5000));
  EXPECT_EQ(modeOf(items + "/below/there"), 0644);
  QXFileCoordinator::_removeDocSource(source);
}

}  // namespace
