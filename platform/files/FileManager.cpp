#include "platform/files/FileManager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <istream>
#include <streambuf>
#include <system_error>
#include <vector>

#include "platform/base/Errors.h"

namespace qx::FileManager {
namespace {

/// Reads, however often a signal gets in between. Less than 0 is an error (errno).
ssize_t readSome(const FileDescriptor& file, char* to, std::size_t size) {
  ssize_t count;
  do {
    count = ::read(file.get(), to, size);
  } while (count < 0 && errno == EINTR);
  return count;
}

class FileBuffer final : public std::streambuf {
 public:
  FileBuffer(FileDescriptor file, std::istream& stream)
      : file_(std::move(file)), stream_(stream), buffer_(32768) {}

 private:
  int_type underflow() override {
    const ssize_t count = readSome(file_, buffer_.data(), buffer_.size());
    // To the stream an error looks like the end of the file, unless it is told.
    if (count < 0) stream_.setstate(std::istream::badbit);
    if (count <= 0) return traits_type::eof();
    setg(buffer_.data(), buffer_.data(), buffer_.data() + count);
    return traits_type::to_int_type(*gptr());
  }

  FileDescriptor file_;
  std::istream& stream_;
  std::vector<char> buffer_;
};

/// Unlike std::ifstream, not open in the programs that this process starts.
class FileStream final : public std::istream {
 public:
  explicit FileStream(FileDescriptor file)
      : std::istream(nullptr), buffer_(std::move(file), *this) {
    rdbuf(&buffer_);
  }

 private:
  FileBuffer buffer_;
};

FileDescriptor openForReading(const std::string& path) {
  return FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
}

bool isDirectory(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

bool fileExists(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0;
}

std::optional<Error> createDirectory(const std::string& path) {
  if (isDirectory(path)) return std::nullopt;
  std::size_t end = 0;
  do {
    end = std::min(path.find('/', end + 1), path.size());
    const std::string parent = path.substr(0, end);
    if (::mkdir(parent.c_str(), 0777) == 0) continue;
    // What is there already may be a directory that this process could not have made; what is
    // there and is none fails the next step, if this is not the last.
    const int failed = errno;
    if (failed == EEXIST && end != path.size()) continue;
    if (!isDirectory(parent)) return fileError(failed, URL::fileURL(path, true));
  } while (end != path.size());
  return std::nullopt;
}

std::unique_ptr<std::istream> inputStream(const std::string& path) {
  FileDescriptor file = openForReading(path);
  if (!file) return nullptr;
  return std::make_unique<FileStream>(std::move(file));
}

std::optional<Error> removeTree(const std::string& path) {
  std::error_code error;
  std::filesystem::remove_all(path, error);
  if (!error || error == std::errc::no_such_file_or_directory) return std::nullopt;
  return fileError(error.value(), URL::fileURL(path));
}

Result<std::string> readFile(const std::string& path) {
  const auto failed = [&path] { return fileError(errno, URL::fileURL(path)); };
  const FileDescriptor file = openForReading(path);
  struct stat status;
  if (!file || ::fstat(file.get(), &status) != 0) return failed();
  // One byte more than the size tells the end apart; files of /proc have no size.
  std::string text;
  std::size_t length = 0;
  text.resize(static_cast<std::size_t>(S_ISREG(status.st_mode) ? status.st_size : 0) + 1);
  for (;;) {
    const ssize_t count = readSome(file, text.data() + length, text.size() - length);
    if (count < 0) return failed();
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
    if (length == text.size()) text.resize(length + std::max<std::size_t>(length, 4096));
  }
  text.resize(length);
  return text;
}

}  // namespace qx::FileManager
