#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "mirror/Engine.h"
#include "platform/queue/Clock.h"
#include "tests/mirror/Calls.h"

/// A storage here, a directory there, and engines between them that the test moves by hand.
namespace docsource::test {

namespace fs = std::filesystem;

/// Whoever is root is an ordinary user until the end of the block, who cannot read everything.
class OrdinaryUser {
 public:
  OrdinaryUser() { become(::getuid() == 0 ? 23118 : ::geteuid()); }
  ~OrdinaryUser() { become(::getuid()); }
  OrdinaryUser(const OrdinaryUser&) = delete;
  OrdinaryUser& operator=(const OrdinaryUser&) = delete;
  static void become(uid_t user) { (void)!::seteuid(user); }
};
/// In such a block: sees everything again, where that is permitted.
class AllSeeing {
 public:
  AllSeeing() { OrdinaryUser::become(::getuid()); }
  ~AllSeeing() { OrdinaryUser::become(user_); }
  AllSeeing(const AllSeeing&) = delete;
  AllSeeing& operator=(const AllSeeing&) = delete;

 private:
  const uid_t user_ = ::geteuid();
};

/// In memory where that has extended attributes, and gone at the end.
class Scratch {
 public:
  Scratch() {
    for (const std::string where : {"/dev/shm", "/tmp"}) {
      std::string name = where + "/docsource-mirror-XXXXXX";
      if (!::mkdtemp(name.data())) continue;
      path_ = name;
      if (::setxattr(name.c_str(), "user.docsource.test", "1", 1, 0) == 0) return;
      fs::remove_all(name);
    }
  }
  ~Scratch() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline void write(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ofstream::binary | std::ofstream::trunc) << text;
}
inline std::string read(const std::string& path) {
  std::ifstream file(path, std::ofstream::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}
/// As editors save: beside, and renamed over.
inline void save(const std::string& path, const std::string& text) {
  write(path + ".new", text);
  ::rename((path + ".new").c_str(), path.c_str());
}

/// A clock of a test's own, which threads that end late may still look at.
inline qx::ManualClock& newClock() {
  static auto& clocks = *new std::vector<std::unique_ptr<qx::ManualClock>>;
  return *clocks.emplace_back(std::make_unique<qx::ManualClock>());
}

/// How the machine keeps programs from reading placeholders: "access", or "cooperative". A process
/// looks for its places once, so that they are the same in all of its tests.
inline void coordinate(const std::string& mechanism) {
  const AllSeeing all;
  static const Scratch root;
  ::setenv("DOCSOURCE_ROOT", (root / "").c_str(), 1);
  fs::create_directories(root / "run");
  ::chmod((root / "").c_str(), 0755);
  write(root / "run/coordination", mechanism + "\n");
}

/// An engine whose transfers run at once, on the thread of the test.
class Machine {
 public:
  Machine(const std::string& base, std::unique_ptr<Remote> remote, std::string host = "host")
      : storage(base + "/storage"), remote_(std::move(remote)) {
    options_.storage = storage;
    options_.state = base + "/state";
    options_.host = std::move(host);
    options_.rest = std::chrono::milliseconds(0);
    fs::create_directories(base);
  }

  Result<void> start() {
    engine_ = std::make_unique<mirror::Engine>(
        options_, *remote_, [](const std::function<void()>& work) { work(); }, [] {});
    return engine_->open();
  }
  void stop() { engine_.reset(); }
  mirror::Engine& engine() { return *engine_; }
  MirrorOptions& options() { return options_; }
  Remote& remote() { return *remote_; }

  /// Until nothing is left to do, time passing as fast as need be; false when there is no end to
  /// it.
  bool settle(qx::ManualClock& clock) {
    constexpr int most = 3000;
    for (int round = 0; round < most; ++round) {
      if (engine_->step()) continue;
      if (engine_->isQuiet() && !engine_->step()) return true;
      const auto idle = engine_->idleFor();
      clock.advance(
          std::chrono::milliseconds(std::clamp<std::int64_t>(idle.value_or(0), 1, 60'000)));
    }
    return false;
  }

  const std::string storage;

 private:
  MirrorOptions options_;
  const std::unique_ptr<Remote> remote_;
  std::unique_ptr<mirror::Engine> engine_;
};

inline bool isPlaceholder(const std::string& path) {
  const AllSeeing all;
  const auto entry = mirror::lookAt(AT_FDCWD, path);
  return entry && entry->isPlaceholder;
}

}  // namespace docsource::test
