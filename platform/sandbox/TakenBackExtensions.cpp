#include "platform/sandbox/TakenBackExtensions.h"

#include <errno.h>
#include <time.h>

#include <algorithm>
#include <charconv>

#include "platform/base/Errors.h"
#include "platform/files/FileManager.h"
#include "platform/files/Places.h"
#include "platform/sandbox/EncodedPath.h"

namespace qx {
namespace {

constexpr const char* fileName = "sandbox.taken-back";

/// Cuts off what stands before the next separator.
std::string_view cut(std::string_view& rest, char separator) {
  const auto end = std::min(rest.find(separator), rest.size());
  const auto text = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return text;
}

std::optional<std::uint64_t> number(std::string_view text) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

BootTime bootTimeNow() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<BootTime>(now.tv_sec) * 1'000'000'000U + static_cast<BootTime>(now.tv_nsec);
}

std::string TakenBackExtensions::lineOf(const Document& document) {
  const FileIdentity file = document.file.value_or(FileIdentity{});
  return std::to_string(document.takenBack) + " " + std::to_string(file.device) + " " +
         std::to_string(file.inode) + " " + encodedPath(document.path) + "\n";
}

std::string TakenBackExtensions::text() const {
  std::string text = bootIdentifier() + "\n" + std::to_string(everythingBefore_) + "\n";
  for (const auto& document : documents_) text += lineOf(document);
  return text;
}

std::optional<TakenBackExtensions> TakenBackExtensions::parse(std::string_view text) {
  TakenBackExtensions all;
  if (!text.ends_with('\n')) return std::nullopt;
  if (cut(text, '\n') != bootIdentifier()) return all;
  const auto before = number(cut(text, '\n'));
  if (!before) return std::nullopt;
  all.everythingBefore_ = *before;
  while (!text.empty()) {
    auto line = cut(text, '\n');
    const auto time = number(cut(line, ' '));
    const auto device = number(cut(line, ' '));
    const auto inode = number(cut(line, ' '));
    auto path = decodedPath(line);
    if (!time || !device || !inode || !path) return std::nullopt;
    Document document{*time, std::nullopt, std::move(*path)};
    if (*inode != 0) document.file = FileIdentity{*device, *inode};
    all.documents_.push_back(std::move(document));
  }
  return all;
}

Result<TakenBackExtensions> TakenBackExtensions::read(const SandboxKeyStore& store) {
  const auto text = store.readFile(fileName, mostBytes);
  if (!text) return text.error();
  if (!*text) return TakenBackExtensions();
  auto all = parse(**text);
  if (!all) return posixError(EBADMSG, "It is not what was written");
  return std::move(*all);
}

bool TakenBackExtensions::include(BootTime issued, std::string_view path,
                                  const FileIdentity& file) const {
  if (issued <= everythingBefore_) return true;
  return std::any_of(documents_.begin(), documents_.end(), [&](const Document& document) {
    return issued <= document.takenBack && (document.path == path || document.file == file);
  });
}

void TakenBackExtensions::add(const std::string& path, const std::optional<FileIdentity>& file) {
  std::erase_if(documents_, [&](const Document& document) {
    return document.path == path && document.file == file;
  });
  documents_.push_back({bootTimeNow(), file, path});
  std::size_t size = text().size();
  while (documents_.size() > mostDocuments || size > mostBytes) {
    everythingBefore_ = std::max(everythingBefore_, documents_.front().takenBack);
    size -= lineOf(documents_.front()).size();
    documents_.pop_front();
  }
}

void TakenBackExtensions::addEverything() {
  documents_.clear();
  everythingBefore_ = bootTimeNow();
}

std::optional<Error> TakenBackExtensions::write() const {
  return FileManager::replaceFile(Places::runtimeDirectory() + "/" + fileName, text(), 0600);
}

}  // namespace qx
