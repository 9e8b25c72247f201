// The tests of coordination through the kernel. As "<way> <path>" the program is one that knows
// nothing of documents and gets at a file in that way; it says "right" when what it read is the
// content that belongs to the name, else what it got.

#include <sys/mman.h>

#include <cstdio>
#include <random>

#include "tests/kernel/Fixture.h"

namespace {

using namespace qx::test;

std::string verdict(const std::string& path, const std::string& text) {
  if (text == contentOf(fs::path(path).filename(), text.size()) && !text.empty()) return "right";
  const auto zero = text.find('\0');
  return path + ": " + std::to_string(text.size()) + " wrong bytes" +
         (zero == std::string::npos ? "" : ", zeros at " + std::to_string(zero));
}

std::string failure() { return std::strerror(errno); }

std::string readWith(const std::string& way, const std::string& path) {
  const qx::FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status {};
  if (!file || fstat(file.get(), &status) != 0) return failure();
  const auto size = static_cast<std::size_t>(status.st_size);
  if (way == "mmap") {
    void* bytes = mmap(nullptr, size, PROT_READ, MAP_SHARED, file.get(), 0);
    if (bytes == MAP_FAILED) return failure();
    return verdict(path, {static_cast<const char*>(bytes), size});
  }
  std::string text(size, '\0');
  std::size_t at = 0;
  while (at < size) {
    const ssize_t count = read(file.get(), text.data() + at, size - at);
    if (count < 0) return failure();
    if (count == 0) break;
    at += static_cast<std::size_t>(count);
  }
  text.resize(at);
  return verdict(path, text);
}

/// Reads everything in a directory, in an order of its own.
std::string readEach(const std::string& directory) {
  std::vector<std::string> paths;
  for (const auto& entry : fs::directory_iterator(directory)) paths.push_back(entry.path());
  std::shuffle(paths.begin(), paths.end(), std::mt19937(static_cast<unsigned>(getpid())));
  for (const auto& path : paths) {
    if (auto said = readWith("read", path); said != "right") return said;
  }
  return "right";
}

/// As many threads read the file as the last word of the way says ("storm-100"), until all of them
/// have an answer; says before that they wait.
std::string storm(const std::string& way, const std::string& path) {
  const int count = std::atoi(way.substr(way.find('-') + 1).c_str());
  std::vector<std::thread> readers;
  for (int i = 0; i < count; ++i) {
    readers.emplace_back([&] {
      const qx::FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
      char byte = 0;
      (void)!read(file.get(), &byte, 1);
    });
  }
  std::printf("waiting\n");
  std::fflush(stdout);
  for (auto& each : readers) each.join();
  return "answered";
}

/// Changes a file through a mapping that outlives its descriptor.
std::string writeMapped(const std::string& path) {
  qx::FileDescriptor file(open(path.c_str(), O_RDWR | O_CLOEXEC));
  void* bytes = mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  if (bytes == MAP_FAILED) return failure();
  file.reset();
  *static_cast<char*>(bytes) = 'X';
  munmap(bytes, 1);
  return "right";
}

}  // namespace

int main(int count, char** arguments) {
  if (count == 3 && arguments[1][0] != '-') {
    const std::string way = arguments[1];
    const std::string path = arguments[2];
    const std::string said = way == "each"              ? readEach(path)
                             : way == "map-write"       ? writeMapped(path)
                             : way.starts_with("storm") ? storm(way, path)
                                                        : readWith(way, path);
    std::printf("%s\n", said.c_str());
    return 0;
  }
  testing::InitGoogleTest(&count, arguments);
  return RUN_ALL_TESTS();
}
