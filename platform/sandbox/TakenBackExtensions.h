#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Error.h"
#include "platform/base/Result.h"
#include "platform/identity/ProcessDirectory.h"
#include "platform/sandbox/SandboxKey.h"

namespace qx {

/// The time at which a sandbox extension was issued or taken back, in nanoseconds of CLOCK_BOOTTIME
/// (clock_gettime(2)).
using BootTime = std::uint64_t;
BootTime bootTimeNow();

/// The sandbox extensions of a user that were taken back in this boot: the file
/// "sandbox.taken-back" beside the key. Its first line is the boot. Its second is a time before
/// which every extension counts as taken back. Each further line is a document: when it was taken
/// back, its device and inode if it existed, and its path.
///
/// The file is bounded. When there are too many documents, the oldest go, and everything that was
/// issued before the last of those counts as taken back with them. Whoever still has a grant gets a
/// new extension. Used by one thread at a time.
class TakenBackExtensions {
 public:
  static constexpr std::size_t mostDocuments = 1000;
  static constexpr std::size_t mostBytes = 256U << 10U;

  /// Empty where there is no file, or one of another boot. A file that cannot be read or understood
  /// is an error, because nobody knows what it would have forbidden.
  static Result<TakenBackExtensions> read(const SandboxKeyStore& store);

  /// Returns whether an extension of that age for the path is taken back, given the file to which
  /// the path leads.
  bool include(BootTime issued, std::string_view path, const FileIdentity& file) const;

  void add(const std::string& path, const std::optional<FileIdentity>& file);
  /// Takes back everything that was issued up to now.
  void addEverything();
  /// Writes it to the runtime directory of this process's places, durably.
  std::optional<Error> write() const;

 private:
  struct Document {
    BootTime takenBack = 0;
    std::optional<FileIdentity> file;
    std::string path;
  };

  static std::string lineOf(const Document& document);
  std::string text() const;
  static std::optional<TakenBackExtensions> parse(std::string_view text);

  BootTime everythingBefore_ = 0;
  std::deque<Document> documents_;  // in the order of their times
};

}  // namespace qx
