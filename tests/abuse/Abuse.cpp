#include "tests/abuse/Abuse.h"

#include <iterator>

namespace qx::test {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t divisor = isSanitized ? 4 : 1;

std::size_t entries(const std::string& directory) {
  std::error_code gone;
  const fs::directory_iterator all(directory, gone);
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

}  // namespace

bool isSoak() {
  static const bool soak = std::getenv("DOCSOURCE_SOAK") != nullptr;
  return soak;
}

std::size_t tries(std::size_t soak, std::size_t brief) {
  return std::max<std::size_t>((isSoak() ? soak : brief) / divisor, 1);
}

Tally::~Tally() {
  std::printf("soak: %s: %zu tries, %zu faults, %zu losses%s%s\n", name.c_str(), tries, faults,
              losses, note.empty() ? "" : "; ", note.c_str());
  EXPECT_GT(tries, 0U);
  EXPECT_EQ(faults, 0U);
  EXPECT_EQ(losses, 0U);
}

std::mt19937_64& randomness() {
  static std::mt19937_64 numbers([] {
    const char* given = std::getenv("DOCSOURCE_SEED");
    const auto seed = given ? std::strtoull(given, nullptr, 10) : std::random_device()();
    std::printf("DOCSOURCE_SEED=%llu\n", static_cast<unsigned long long>(seed));
    return seed;
  }());
  return numbers;
}

std::size_t randomBelow(std::size_t limit) {
  return std::uniform_int_distribution<std::size_t>(0, limit - 1)(randomness());
}

Usage Usage::of(pid_t process) {
  const std::string place = "/proc/" + std::to_string(process);
  Usage usage;
  std::ifstream status(place + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) usage.residentKiB = std::stoul(line.substr(6));
  }
  usage.descriptors = entries(place + "/fd");
  usage.threads = entries(place + "/task");
  std::error_code gone;
  for (const auto& task : fs::directory_iterator(place + "/task", gone)) {
    std::ifstream children(task.path() / "children");
    usage.children += static_cast<std::size_t>(
        std::distance(std::istream_iterator<pid_t>(children), std::istream_iterator<pid_t>()));
  }
  return usage;
}

std::string Usage::text() const {
  return std::to_string(residentKiB) + " KiB, " + std::to_string(descriptors) + " descriptors, " +
         std::to_string(threads) + " threads, " + std::to_string(children) + " extensions";
}

Abuse::Abuse() {
  // For the thousands of connections of the clients, here, and of the daemon, which inherits it.
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  beApplication(app, {{readEntitlement, true}, {writeEntitlement, true}});
  provider_.install();
}

void Abuse::start(const std::string& level) {
  daemon_.reset();
  daemon_.emplace("docsourced", root_,
                  std::map<std::string, std::string>{{"DOCSOURCE_LOG", level}});
  if (!eventually([] { return connect().call(wakeUp, {}).outcome() == "success"; })) {
    for (const auto& line : daemon_->log().all()) std::printf("%s\n", line.c_str());
    FAIL() << "the daemon does not serve";
  }
}

std::unique_ptr<Daemon> Abuse::startRedeemer() const {
  auto redeemer = std::make_unique<Daemon>(
      "platformd", root_, std::map<std::string, std::string>{{"DOCSOURCE_LOG", "fault"}});
  EXPECT_TRUE(eventually([] { return connectTo(sandboxService).socket() >= 0; }));
  return redeemer;
}

}  // namespace qx::test
