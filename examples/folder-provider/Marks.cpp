// What the provider remembers of an item, kept with the item where the file system can.

#include "Marks.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

namespace folder {
namespace {

constexpr const char* markNames[] = {"placeholder", "identifier", "provided", "origin"};

std::string attributeName(const std::string& mark) { return "user.docsource." + mark; }
std::string fileFor(const std::string& relative, const std::string& mark) {
  return "marks/" + mark + "/" + relative;
}

/// What ties a mark file to the inode it was made for.
std::string inodeLine(int file) {
  struct stat status {};
  if (::fstat(file, &status) != 0) return {};
  return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) + "\n";
}

bool unsupported() { return errno == ENOTSUP || errno == EPERM || errno == ENOSYS; }

}  // namespace

std::optional<std::string> attribute(int file, const std::string& mark) {
  std::array<char, 1024> value{};
  const ssize_t size = ::fgetxattr(file, attributeName(mark).c_str(), value.data(), value.size());
  if (size < 0) return std::nullopt;
  return std::string(value.data(), static_cast<std::size_t>(size));
}

bool setAttribute(int file, const std::string& mark, const std::string& value) {
  return ::fsetxattr(file, attributeName(mark).c_str(), value.data(), value.size(), 0) == 0;
}

bool writeAll(int file, const char* bytes, std::size_t count) {
  while (count > 0) {
    const ssize_t written = ::write(file, bytes, count);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes += written;
    count -= static_cast<std::size_t>(written);
  }
  return true;
}

std::string randomText(std::size_t count) {
  std::string bytes(count, '\0');
  // Whole for so few (getrandom(2)).
  while (::getrandom(bytes.data(), count, 0) != static_cast<ssize_t>(count)) {
  }
  std::string text;
  for (const char each : bytes) {
    const auto byte = static_cast<unsigned char>(each);
    std::array<char, 3> digits{};
    std::snprintf(digits.data(), digits.size(), "%02x", byte);
    text += digits.data();
  }
  return text;
}

std::optional<std::string> Marks::get(int file, const std::string& relative,
                                      const std::string& mark) const {
  if (useAttributes_) {
    if (auto value = attribute(file, mark)) return value;
    if (!unsupported()) return std::nullopt;
  }
  const auto kept = hidden_.openFile(fileFor(relative, mark), O_RDONLY);
  if (!kept) return std::nullopt;
  std::array<char, 1024> bytes{};
  const ssize_t size = ::read(kept.get(), bytes.data(), bytes.size());
  if (size < 0) return std::nullopt;
  const std::string text(bytes.data(), static_cast<std::size_t>(size));
  const std::string inode = inodeLine(file);
  if (inode.empty() || !text.starts_with(inode)) return std::nullopt;
  return text.substr(inode.size());
}

bool Marks::set(int file, const std::string& relative, const std::string& mark,
                const std::string& value) const {
  if (useAttributes_) {
    if (setAttribute(file, mark, value)) return true;
    if (!unsupported()) return false;
  }
  const std::string kept = fileFor(relative, mark);
  if (!hidden_.makeDirectories(parentOf(kept))) return false;
  const std::string side = "side-" + randomText(8);
  const std::string text = inodeLine(file) + value;
  const auto written = hidden_.openItem(side, O_WRONLY | O_CREAT | O_EXCL, 0600);
  const bool isNow = durable_ == Durable::now;
  if (written && writeAll(written.get(), text.data(), text.size()) &&
      (!isNow || ::fsync(written.get()) == 0) && hidden_.move(side, hidden_, kept, true) &&
      (!isNow || hidden_.syncParent(kept))) {
    return true;
  }
  const int problem = errno;
  if (written) hidden_.remove(side);
  errno = problem;
  return false;
}

bool Marks::clear(int file, const std::string& relative, const std::string& mark) const {
  if (useAttributes_) {
    if (::fremovexattr(file, attributeName(mark).c_str()) == 0 || errno == ENODATA) return true;
    if (!unsupported()) return false;
  }
  const std::string kept = fileFor(relative, mark);
  if (hidden_.remove(kept)) return hidden_.syncParent(kept);
  return errno == ENOENT;
}

bool Marks::copy(const std::string& from, const std::string& to) const {
  for (const char* mark : markNames) {
    const std::string source = fileFor(from, mark);
    const std::string target = fileFor(to, mark);
    if (!hidden_.openItem(source, O_PATH)) continue;
    if (!hidden_.makeDirectories(parentOf(target))) return false;
    hidden_.remove(target);
    if (!hidden_.link(source, target) || !hidden_.syncParent(target)) return false;
  }
  return true;
}

void Marks::forget(const std::string& relative) const {
  for (const char* mark : markNames) hidden_.remove(fileFor(relative, mark));
}

}  // namespace folder
