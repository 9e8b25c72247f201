// Names that change places again and again, a directory's with a link's to another one, a file's
// with another file's, while the daemons are asked about them: what is opened and granted is what
// was checked.

#include <sys/mount.h>

#include <atomic>
#include <cstdio>

#include "tests/abuse/Abuse.h"
#include "tests/support/Installation.h"

namespace qx::test {
namespace {

namespace fs = std::filesystem;

class LinkSwap : public Abuse {
 protected:
  /// Two entries change places, again and again, for as long as this lives.
  class Swapping {
   public:
    Swapping(std::string one, std::string other) : one_(std::move(one)), other_(std::move(other)) {
      thread_ = std::thread([this] {
        while (!over_) {
          if (renameat2(AT_FDCWD, one_.c_str(), AT_FDCWD, other_.c_str(), RENAME_EXCHANGE) != 0) {
            std::abort();
          }
          for (auto pause = pause_.load(); pause > 0; --pause) over_.load();
        }
      });
    }
    ~Swapping() {
      over_ = true;
      thread_.join();
    }
    Swapping(const Swapping&) = delete;
    Swapping& operator=(const Swapping&) = delete;

    /// Another rhythm.
    void change() { pause_ = randomBelow(30000); }

   private:
    const std::string one_;
    const std::string other_;
    std::atomic<bool> over_ = false;
    std::atomic<std::size_t> pause_ = 0;
    std::thread thread_;
  };

  /// The daemon, and a client that may only what the permissions of files let it.
  Consumer startWithPowerless() {
    const auto bundle = Places::applications() + "/powerless.app";
    makeBundle(bundle, "com.example.powerless", builtProgram("scripted-consumer"));
    start();
    return {root_, "com.example.powerless", bundle + "/program", true};
  }

  /// A link to somebody else's directory beside the client's own.
  std::string linkTo(const std::string& target) const {
    fs::create_directories(folder_);
    fs::create_directory_symlink(target, place_ + "/link");
    return place_ + "/link";
  }

  static void put(const std::string& path, const char* text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << text;
  }

  const std::string place_ = root_ + "/place";
  const std::string folder_ = place_ + "/folder";
  const std::string victim_ = root_ + "/victim";
};

TEST_F(LinkSwap, ATokenOpensTheFileThatItWasIssuedFor) {
  Tally tally("links swapped in while tokens are issued and redeemed");
  put(place_ + "/folder/document", "mine");
  put(victim_ + "/document", "secret");
  start();
  const auto redeemer = startRedeemer();
  Wire asking = connect();
  Wire redeeming = connectTo(sandboxService);
  const URL url = URL::fileURL(place_ + "/folder/document");
  // Issued while nothing moves.
  const auto granted = asking.call(extendSandbox, {url, "com.example.p", app});
  const auto* token = granted.at<Bytes>(1);
  ASSERT_TRUE(token);
  std::size_t opened = 0;
  {
    Swapping swapping(folder_, linkTo(victim_));
    for (std::size_t i = 0; i < tries(100000, 1000); ++i) {
      if (i % 100 == 0) swapping.change();
      const auto answer = redeeming.call(consumeExtension, {*token});
      ++tally.tries;
      const auto* file = answer.at<SharedDescriptor>(1);
      if (!file) continue;
      std::array<char, 4> text{};
      if (pread((*file)->get(), text.data(), text.size(), 0) != 4 ||
          std::string_view(text.data(), 4) != "mine") {
        ++tally.faults;
      }
      ++opened;
    }
  }
  EXPECT_GT(opened, 0U);
  tally.note = std::to_string(opened) + " opened";
}

TEST_F(LinkSwap, ABookmarkIsForTheDocumentThatTheClientMayWrite) {
  Tally tally("links swapped in while bookmarks are extended");
  if (geteuid() != 0) GTEST_SKIP() << "needs root to have a client that may not open everything";
  // The provider's directory is closed to the client, which has a document of the same name.
  put(provider_.storage() + "/document", "secret");
  put(place_ + "/folder/document", "mine");
  fs::permissions(provider_.storage(), fs::perms::none);
  fs::permissions(place_ + "/folder/document", fs::perms(0600));
  const Consumer powerless = startWithPowerless();
  Wire wire = powerless.connect();
  ASSERT_EQ(wire.call(extendBookmark, {provider_.url("document"), app}).outcome(),
            "DSErrorDomain 3");
  const URL url = URL::fileURL(place_ + "/folder/document");
  {
    Swapping swapping(folder_, linkTo(provider_.storage()));
    for (std::size_t i = 0; i < tries(100000, 3000); ++i) {
      if (i % 100 == 0) swapping.change();
      const auto answer = wire.call(extendBookmark, {url, app});
      ++tally.tries;
      if (answer.outcome() == "success") ++tally.faults;
    }
  }
  const auto held = grantsOnDisk();
  if (!held || !held->empty()) ++tally.losses;
}

TEST_F(LinkSwap, ABookmarkIsForTheFileThatTheClientMayWrite) {
  Tally tally("files exchanged while bookmarks are extended");
  if (geteuid() != 0) GTEST_SKIP() << "needs root to have a client that may not open everything";
  // Both are the provider's; the client may write one of them and exchange their names.
  const auto mine = provider_.storage() + "/mine", secret = provider_.storage() + "/secret";
  put(mine, "mine");
  put(secret, "secret");
  fs::permissions(mine, fs::perms(0600));
  fs::permissions(secret, fs::perms::none);
  std::ofstream(provider_.path() + "/by-inode").put(' ');
  const auto own = SelfProvider::inodeOf(mine);
  const Consumer powerless = startWithPowerless();
  Wire wire = powerless.connect();
  ASSERT_TRUE(eventually([&] {
    return wire.call(extendBookmark, {URL::fileURL(mine), app}).outcome() == "success";
  }));
  ASSERT_EQ(wire.call(extendBookmark, {URL::fileURL(secret), app}).outcome(), "DSErrorDomain 3");
  // Reached over a bind mount they are the same files.
  fs::create_directories(folder_);
  if (mount(provider_.storage().c_str(), folder_.c_str(), nullptr, MS_BIND, nullptr) == 0) {
    const auto reached = wire.call(extendBookmark, {URL::fileURL(folder_ + "/mine"), app});
    EXPECT_EQ(reached.values, (Array{"docsource:com.example.p/" + own, Value()}));
    EXPECT_EQ(wire.call(extendBookmark, {URL::fileURL(folder_ + "/secret"), app}).outcome(),
              "DSErrorDomain 3");
    umount2(folder_.c_str(), MNT_DETACH);
  }
  {
    Swapping swapping(mine, secret);
    for (std::size_t i = 0; i < tries(100000, 3000); ++i) {
      if (i % 100 == 0) swapping.change();
      const auto answer = wire.call(extendBookmark, {URL::fileURL(mine), app});
      ++tally.tries;
      const auto* bookmark = answer.at<std::string>(0);
      if (bookmark && *bookmark != "docsource:com.example.p/" + own) ++tally.faults;
    }
  }
  const auto held = grantsOnDisk();
  if (!held || held->size() != 1) ++tally.losses;
}

}  // namespace
}  // namespace qx::test
