// Reading one bundle directory: Info.plist, Entitlements.plist and the executable.

#include "platform/identity/BundleReader.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string_view>

#include "platform/base/Errors.h"
#include "platform/plist/PropertyList.h"

namespace qx {
namespace {

constexpr off_t largestList = off_t{16} << 20;

Error broken(std::string_view what) {
  return Error(std::string(QXStandardErrorDomain), fileUnknownError, what);
}

struct ListFile {
  Dictionary content;
  struct stat status;
};

/// A property list whose value is a dictionary, with the state of the very file that was read.
Result<ListFile> readList(const std::string& path) {
  auto failure = [&](int errnum) { return fileError(errnum, URL::fileURL(path)); };
  // Only what is known to be a regular file is opened: a pipe may wait for its other end, and a
  // device do anything.
  const FileDescriptor found(open(path.c_str(), O_PATH | O_CLOEXEC));
  struct stat status;
  if (!found || fstat(found.get(), &status) != 0) return failure(errno);
  if (!S_ISREG(status.st_mode)) return broken(path + " is not a regular file.");
  if (status.st_size > largestList) return broken(path + " is too large.");
  const FileDescriptor file(open(("/proc/self/fd/" + std::to_string(found.get())).c_str(),
                                 O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file) return failure(errno);
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  std::size_t length = 0;
  while (length < text.size()) {
    ssize_t count = read(file.get(), text.data() + length, text.size() - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return failure(errno);
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
  }
  text.resize(length);
  auto value = PropertyList::read(std::string_view(text));
  if (!value) return broken(path + ": " + value.error().description());
  auto* dictionary = value->as<Dictionary>();
  if (!dictionary) return broken(path + " does not hold a dictionary.");
  return ListFile{std::move(*dictionary), status};
}

const std::string* nonEmptyString(const Dictionary& dictionary, std::string_view key) {
  auto* text = find<std::string>(dictionary, key);
  return text && !text->empty() && text->find('\0') == std::string::npos ? text : nullptr;
}

std::optional<std::string> resolved(const std::string& path) {
  char* text = realpath(path.c_str(), nullptr);
  if (!text) return std::nullopt;
  std::string result(text);
  free(text);
  return result;
}

Bundle::InfoStamp stampOf(const struct stat& status) {
  return {status.st_dev, status.st_ino, static_cast<std::uint64_t>(status.st_size),
          std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec};
}

}  // namespace

std::string executablePath(const std::string& bundle, const std::string& declared) {
  return declared.starts_with('/') ? declared : bundle + "/" + declared;
}

BundleInspection inspectBundle(BundleKind kind, const std::string& path) {
  auto info = readList(path + "/Info.plist");
  if (!info) return {info.error(), {}, {}, false};
  auto* executable = nonEmptyString(info->content, "QXBundleExecutable");
  if (!executable) return {broken("Info.plist has no QXBundleExecutable."), {}, {}, false};
  BundleInspection found{broken("Info.plist has no QXBundleIdentifier."), *executable, {}, false};
  auto* identifier = nonEmptyString(info->content, "QXBundleIdentifier");
  if (!identifier) return found;

  auto program = executablePath(path, *executable);
  struct stat status;
  if (stat(program.c_str(), &status) != 0) {
    found.bundle = fileError(errno, URL::fileURL(program));
    return found;
  }
  if (!S_ISREG(status.st_mode) || !(status.st_mode & 0111)) {
    found.bundle = broken(program + " is not an executable file.");
    return found;
  }

  Bundle bundle{kind, BundleStanding::user, path, *identifier, program, {},
                {},   stampOf(info->status)};
  auto entitlements = readList(path + "/Entitlements.plist");
  if (entitlements) {
    bundle.entitlements = std::move(entitlements->content);
  } else if (!entitlements.error().is(QXStandardErrorDomain, fileNoSuchFileError)) {
    found.bundle = entitlements.error();
    return found;
  }
  auto directory = resolved(path);
  found.executableIsOutside = !directory || executable->starts_with('/') ||
                              resolved(program) != *directory + "/" + *executable;
  found.executable = identityOf(status);
  bundle.info = std::move(info->content);
  found.bundle = std::move(bundle);
  return found;
}

Result<Bundle> readBundle(BundleKind kind, const std::string& path) {
  return inspectBundle(kind, path).bundle;
}

}  // namespace qx
