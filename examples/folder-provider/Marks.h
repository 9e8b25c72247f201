#pragma once

#include <optional>
#include <string>

#include "Tree.h"

namespace folder {

/// Short texts that belong to an item: extended attributes "user.docsource.<mark>" of the file
/// (xattr(7)); where the file system has none, or they are switched off, small files in the
/// provider's own hidden directory, each naming the inode it is meant for, so that it says nothing
/// about a file that took the item's place.
class Marks {
 public:
  /// When what is set is certain to be kept: at once, or after Tree::syncAll().
  enum class Durable { now, later };

  Marks(const Tree& hidden, bool useAttributes, Durable durable = Durable::now)
      : hidden_(hidden), useAttributes_(useAttributes), durable_(durable) {}

  std::optional<std::string> get(int file, const std::string& relative,
                                 const std::string& mark) const;
  /// False, with errno set, when the mark could not be set.
  bool set(int file, const std::string& relative, const std::string& mark,
           const std::string& value) const;
  bool clear(int file, const std::string& relative, const std::string& mark) const;
  /// Around a rename of an item: before it the marks are known under both paths, so that a crash
  /// between loses none, after it under the new one.
  bool copy(const std::string& from, const std::string& to) const;
  void forget(const std::string& relative) const;

 private:
  const Tree& hidden_;
  const bool useAttributes_;
  const Durable durable_;
};

/// The extended attribute of the mark alone; absent where there is none.
std::optional<std::string> attribute(int file, const std::string& mark);
bool setAttribute(int file, const std::string& mark, const std::string& value);

/// Reads or writes a whole small file; sets errno when it fails.
bool writeAll(int file, const char* bytes, std::size_t count);

/// `count` random bytes as hexadecimal text (getrandom(2)).
std::string randomText(std::size_t count);

}  // namespace folder
