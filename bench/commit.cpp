// What a change of the access-control list costs beside writing the same bytes: the store of
// DOCSOURCE_ROOT, whose file is there already, is granted one item after the other.
// usage: commit ROUNDS

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "acl/DSAccessControlStore.h"
#include "bench/Figures.h"
#include "platform/files/FileManager.h"
#include "platform/files/Places.h"

namespace {

/// write(2), fdatasync(2) and rename(2).
void replace(const std::string& path, const std::string& bytes) {
  const std::string side = path + ".side";
  const int file = open(side.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (file < 0 || write(file, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) ||
      fdatasync(file) != 0 || close(file) != 0 || rename(side.c_str(), path.c_str()) != 0) {
    bench::fail(path + " cannot be replaced");
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) bench::fail("usage: commit ROUNDS");
  const int rounds = std::stoi(argv[1]);
  const std::string list = qx::Places::home() + "/Library/DocSource/AccessControl.plist";
  const std::string copy = list + ".copy";
  const auto store = DSAccessControlStore::sharedStore();
  bench::Figures figures;
  // The first change sorts what was read, once for the life of the process.
  for (int round = -1; round < rounds; ++round) {
    const double ours = bench::secondsOf([&] {
      store->allowProviderWithIdentifier_toProvideItemID_toConsumerWithIdentifier(
          "org.example.bench", "item " + std::to_string(round), "org.example.consumer");
    });
    const auto bytes = qx::FileManager::readFile(list);
    if (!bytes) bench::fail(list + " cannot be read");
    const double floor = bench::secondsOf([&] { replace(copy, *bytes); });
    if (round < 0) continue;
    figures.add("ours", ours);
    figures.add("floor", floor);
  }
}
