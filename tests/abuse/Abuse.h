#pragma once

#include <sys/resource.h>

#include <random>

#include "tests/support/Daemons.h"
#include "tests/support/Grants.h"
#include "tests/support/Operations.h"
#include "tests/support/SelfProvider.h"
#include "tests/support/TemporaryRoot.h"
#include "tests/support/Wire.h"

namespace qx::test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool isSanitized = true;
#else
inline constexpr bool isSanitized = false;
#endif

/// Whether the long forms are to run (`./dev soak`), and not those that every run of the tests has
/// time for.
bool isSoak();

/// A number of tries: that of the long form or of the short one, of which a sanitizer gets a
/// quarter.
std::size_t tries(std::size_t soak, std::size_t brief);

/// What a run came to: printed as one line at its end, which `./dev soak` collects. A fault is an
/// answer that should not have been given, a loss something that was promised and is gone.
struct Tally {
  explicit Tally(std::string what) : name(std::move(what)) {}
  Tally(const Tally&) = delete;
  Tally& operator=(const Tally&) = delete;
  /// Fails the test where there were faults or losses.
  ~Tally();

  const std::string name;
  std::size_t tries = 0;
  std::size_t faults = 0;
  std::size_t losses = 0;
  /// What else is worth knowing.
  std::string note;
};

/// The random numbers of a test: another seed each time, which is printed; DOCSOURCE_SEED repeats
/// one.
std::mt19937_64& randomness();
std::size_t randomBelow(std::size_t limit);

/// What a process holds at a moment (proc(5)).
struct Usage {
  std::size_t residentKiB = 0;
  std::size_t descriptors = 0;
  std::size_t threads = 0;
  std::size_t children = 0;

  static Usage of(pid_t process);
  std::string text() const;
};

/// The installed system under attack: the test program is its clients, and its providers in other
/// processes.
class Abuse : public testing::Test {
 protected:
  static constexpr const char* app = "com.example.app";

  Abuse();

  /// Starts docsourced and waits until it serves; what it logs below `level` nobody wants.
  void start(const std::string& level = "fault");
  /// platformd, which redeems tokens.
  std::unique_ptr<Daemon> startRedeemer() const;
  void kill() { EXPECT_EQ(daemon_->end(SIGKILL), -SIGKILL); }

  static Wire connect() { return connectTo(docSourceService); }

  std::string grant(Wire& wire, const std::string& name) const {
    return wire.call(extendSandbox, {provider_.url(name), "com.example.p", app}).outcome();
  }
  std::string use(Wire& wire, const std::string& name) const {
    return wire.call(startProviding, {provider_.url(name), "com.example.p", app}).outcome();
  }

  static std::string accessControlFile() { return accessControlFileOf(temporaryRoot()); }
  /// What the file grants, as "com.example.p com.example.app item"; absent when it cannot be
  /// parsed.
  static std::optional<std::set<std::string>> grantsOnDisk() {
    return grantsIn(accessControlFile());
  }
  static std::string grantOf(const std::string& item) {
    return "com.example.p com.example.app " + item;
  }

  // First of all: the places are under it.
  const std::string root_ = temporaryRoot();
  ProviderBundle provider_{"com.example.p"};
  std::optional<Daemon> daemon_;
};

}  // namespace qx::test
