// Parts of the daemon, each beside its floor in one program: a grant query, a synchronous
// submission, a guarded read. With a list in DOCSOURCE_ROOT the query is measured on it.

#include <benchmark/benchmark.h>

#include <mutex>
#include <random>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "acl/DSAccessControlStore.h"
#include "platform/files/Places.h"
#include "platform/plist/PropertyList.h"
#include "platform/queue/WorkQueue.h"
#include "providers/DSExtensionDocSource.h"

namespace {

struct Grant {
  std::string provider, consumer, item;
};

/// The same grants in hash tables within one another, behind a mutex.
struct HashTables {
  std::mutex mutex;
  std::unordered_map<std::string, std::unordered_map<std::string, std::unordered_set<std::string>>>
      grants;

  bool isAllowed(const Grant& grant) {
    const std::lock_guard lock(mutex);
    const auto provider = grants.find(grant.provider);
    if (provider == grants.end()) return false;
    const auto consumer = provider->second.find(grant.consumer);
    return consumer != provider->second.end() && consumer->second.contains(grant.item);
  }
};

/// What a list holds, taken from its file.
class ListReader final : public qx::PropertyList::Handler {
 public:
  explicit ListReader(std::vector<Grant>& grants) : grants_(grants) {}
  void beginDictionary() override { ++depth_; }
  void endDictionary() override { --depth_; }
  void beginArray() override {}
  void endArray() override {}
  void key(std::string_view text) override {
    if (depth_ == 1) provider_ = text;
    if (depth_ == 2) consumer_ = text;
  }
  void string(std::string_view text) override {
    grants_.push_back({provider_, consumer_, std::string(text)});
  }
  void scalar(qx::Value&&) override {}

 private:
  std::vector<Grant>& grants_;
  int depth_ = 0;
  std::string provider_, consumer_;
};

/// The list of DOCSOURCE_ROOT, in the store and in hash tables, and queries of it in an order that
/// no cache foresees.
struct Lists {
  std::shared_ptr<DSAccessControlStore> store = DSAccessControlStore::sharedStore();
  HashTables tables;
  std::vector<Grant> queries;

  Lists() {
    std::vector<Grant> grants;
    ListReader reader(grants);
    qx::PropertyList::parseFile(qx::Places::home() + "/Library/DocSource/AccessControl.plist",
                                reader);
    for (const Grant& grant : grants) {
      tables.grants[grant.provider][grant.consumer].insert(grant.item);
    }
    constexpr std::size_t count = 1U << 16U;
    std::minstd_rand random(1);
    for (std::size_t i = 0; i < count && !grants.empty(); ++i) {
      queries.push_back(grants[random() % grants.size()]);
    }
  }
  static Lists& shared() {
    static auto& lists = *new Lists;
    return lists;
  }
};

template <class Query>
void runQueries(benchmark::State& state, Query query) {
  const auto& queries = Lists::shared().queries;
  if (queries.empty()) {
    state.SkipWithError("no list");
    return;
  }
  std::size_t next = 0;
  while (state.KeepRunning()) {
    if (!query(queries[next])) {
      state.SkipWithError("a grant is missing");
      return;
    }
    next = next + 1 == queries.size() ? 0 : next + 1;
  }
}

void queryOurs(benchmark::State& state) {
  runQueries(state, [&store = *Lists::shared().store](const Grant& grant) {
    return store.isProviderWithIdentifier_allowedToProvideItemID_toConsumerWithIdentifier(
        grant.provider, grant.item, grant.consumer);
  });
}
BENCHMARK(queryOurs);

void queryFloor(benchmark::State& state) {
  runQueries(state, [&tables = Lists::shared().tables](const Grant& grant) {
    return tables.isAllowed(grant);
  });
}
BENCHMARK(queryFloor);

void lockFloor(benchmark::State& state) {
  std::mutex mutex;
  int value = 0;
  while (state.KeepRunning()) {
    const std::lock_guard lock(mutex);
    benchmark::DoNotOptimize(++value);
  }
}
BENCHMARK(lockFloor);

void syncOurs(benchmark::State& state) {
  const auto queue = qx::WorkQueue::serial("bench");
  int value = 0;
  while (state.KeepRunning()) {
    queue->sync([&value] { benchmark::DoNotOptimize(++value); });
  }
}
BENCHMARK(syncOurs);

class NoExtension final : public QXExtension {
  std::optional<std::string> identifier() const override { return "org.example.none"; }
  std::string bundlePath() const override { return "/none"; }
  bool isEqual(const QXExtension& other) const override { return this == &other; }
  void beginExtensionRequestWithInputItems_completion(
      const std::optional<qx::Array>&, qx::Completion<qx::UUID, qx::Error>) override {}
  void cancelExtensionRequestWithIdentifier(const std::optional<qx::UUID>&) override {}
  std::shared_ptr<QXExtensionContext> _extensionContextForUUID(
      const std::optional<qx::UUID>&) override {
    return nullptr;
  }
};

void guardedOurs(benchmark::State& state) {
  static const auto provider =
      DSExtensionDocSource::initWithExtension(std::make_shared<NoExtension>());
  while (state.KeepRunning()) benchmark::DoNotOptimize(provider->extension());
}
BENCHMARK(guardedOurs);

}  // namespace

BENCHMARK_MAIN();
