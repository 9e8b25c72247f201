#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "mirror/Database.h"

namespace docsource::mirror {

using ItemNumber = std::int64_t;

/// The directory that everything lies in, on each side.
constexpr ItemNumber rootItem = 1;

enum class Kind : std::int64_t {
  file = 1,
  directory = 2,
  /// A further name of a file that has an item under another one. Here only; it stays here.
  link = 3,
};

/// In Item::tries: nothing failed, and nothing is left to do before somebody else has done
/// something.
constexpr std::int64_t waitsForOthers = -1;

struct Place {
  ItemNumber parent = 0;
  std::string name;
  friend bool operator==(const Place&, const Place&) = default;
};

/// An item as one of the three trees has it.
struct Node {
  Place place;
  Kind kind = Kind::file;
  /// Here the inode with its birth; there what the remote calls it, empty where the remote has no
  /// identifiers.
  std::string identity;
  /// The version of a file: here size, modification and change time of the inode; there the
  /// remote's.
  std::string version;
  std::int64_t size = 0;
  /// Nanoseconds since 1970; absent where the remote keeps none.
  std::optional<std::int64_t> modified;
  std::optional<std::int64_t> mode;
  /// Used only here.
  bool isPlaceholder = false;
  /// Whether it is a placeholder to which somebody gave permissions where nobody guards it; `mode`
  /// has them.
  bool isExposed = false;
};

/// One document or directory in the three trees: what is here, what is there, and what both last
/// agreed on. A tree that does not have the item has no node.
struct Item {
  ItemNumber number = 0;
  std::optional<Node> here;
  /// Place, kind, version, size, time and mode as the remote had them when both agreed. While the
  /// document is a placeholder, it is what the placeholder stands for.
  std::optional<Node> agreed;
  std::optional<Node> there;

  /// The version here that has the content of the agreed one; absent when no content was here.
  std::optional<std::string> agreedHere;
  /// SHA-256 of the agreed content; absent when it never came here.
  std::optional<std::string> hash;
  /// When it has to be looked at, in milliseconds of the engine's clock; absent when all is done.
  std::optional<std::int64_t> due;
  /// How often in a row it failed, or waitsForOthers.
  std::int64_t tries = 0;
  /// Why the last attempt failed, one sentence.
  std::optional<std::string> reason;

  bool isPinned = false;
  /// Whether its content is to come back after it was given up for a newer version.
  bool isWanted = false;
  /// Whether it went to another directory of the file system, instead of being deleted.
  bool movedOut = false;
  /// Whether its removal was confirmed.
  bool isConfirmed = false;
  /// The item whose version is under the name; this one is the copy.
  std::optional<ItemNumber> conflictWith;
  std::int64_t conflictSince = 0;

  bool isRemovedHere() const { return !here && agreed; }
  bool isRemovedThere() const { return !there && agreed; }
};

enum class Side { here, there };

/// The name of the fact that tells which version the last upload of an item has
/// replaced, at a remote that cannot compare in one step with writing; empty where there was
/// nothing. It goes with the item.
inline std::string replacedFact(ItemNumber number) { return "replaced " + std::to_string(number); }

/// The three trees, in a database. It makes no decision. Used by one thread at a time.
class Items {
 public:
  /// `changed` is called with the number of every item that is written or erased.
  explicit Items(
      Database& database, std::function<void(ItemNumber)> changed = [](ItemNumber) {});

  std::optional<Item> load(ItemNumber number);
  /// Writes the whole item, and gives it a number when it has none.
  void save(Item& item);
  void erase(ItemNumber number);
  /// Says that nothing is left to do with the item, unless it is saved again before writeSettled().
  void settled(ItemNumber number) { settled_.insert(number); }
  void writeSettled();

  std::optional<Item> at(Side side, const Place& place);
  /// Returns the item that is not on that side any more, and was agreed to be at that place; of
  /// items that are gone here, only one that is gone there as well.
  std::optional<Item> lastAt(Side side, const Place& place);
  /// Returns the items of that identity; there are several only while files are being exchanged.
  std::vector<Item> withIdentity(Side side, const std::string& identity);
  /// Returns the numbers of the items in a directory, at most `most` with a number greater than
  /// `after`, in their order.
  std::vector<ItemNumber> children(Side side, ItemNumber parent, ItemNumber after = 0,
                                   std::int64_t most = -1);
  /// Returns what is in a directory on that side; absent when that is more than `most`.
  std::optional<std::vector<std::pair<ItemNumber, Node>>> entries(Side side, ItemNumber parent,
                                                                  std::size_t most);
  /// Returns the names from the top down to the item; absent when it is not on that side.
  std::optional<std::string> path(Side side, ItemNumber number);
  /// Returns whether `number` is `directory` or below it.
  bool isBelow(Side side, ItemNumber number, ItemNumber directory);

  /// Returns what is due at `now`: first what appears or changes, in the order in which it became
  /// due, then removals, the latest first. `condition` restricts it.
  std::vector<ItemNumber> due(std::int64_t now, bool removals, const std::string& condition,
                              std::int64_t most);
  /// Returns what is due at `now` of what is here, without going through what is not.
  std::vector<ItemNumber> dueHere(std::int64_t now, const std::string& condition,
                                  std::int64_t most);
  /// Returns the files and directories that are there, were never here and are due, in the order in
  /// which they became due.
  std::vector<ItemNumber> newThere(std::int64_t now, std::int64_t most);
  /// Returns what is in a directory there, is not here and has failed.
  std::vector<Item> failedIn(ItemNumber directory);
  std::optional<std::int64_t> nextDue(const std::string& condition);
  /// Makes everything that waits due now.
  void makeAllDue(std::int64_t now);

  /// Returns how many there are, the root among them.
  std::int64_t count();
  std::int64_t count(const char* condition);
  void forEach(const char* condition, const std::function<void(const Item&)>& visit);

  std::optional<std::string> fact(const std::string& name);
  void setFact(const std::string& name, const std::string& value);
  void forgetFact(const std::string& name);
  /// The value of the first fact whose name begins so and goes on with a digit; all of them.
  std::optional<std::string> firstFact(const std::string& beginning);
  /// The values of all of them.
  std::vector<std::string> facts(const std::string& beginning);
  void forgetFacts(const std::string& beginning);
  /// The item of whose number, behind the beginning of its name, such a fact tells that.
  std::optional<Item> withFact(const std::string& beginning, const std::string& value);
  /// The numbers of which any such fact tells something.
  std::set<ItemNumber> numbersWithFact(const std::string& beginning);

  Database& database() { return database_; }

 private:
  std::vector<ItemNumber> dueBy(const std::string& index, const std::string& condition,
                                std::int64_t now, std::int64_t most);
  static Item read(const Statement& row);

  Database& database_;
  const std::function<void(ItemNumber)> changed_;
  std::set<ItemNumber> settled_;
  std::int64_t count_ = 0;
  /// The value of Database::undone() when count_ was right; absent when it is not.
  std::optional<std::uint64_t> countedAt_;
};

}  // namespace docsource::mirror
