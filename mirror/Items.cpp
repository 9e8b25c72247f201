// The three trees as one table: a row for each item, with the columns of each tree side by side.
// Children name their parent by number, so that a directory that moves changes one row.

#include "mirror/Items.h"

#include <array>
#include <cstdlib>
#include <utility>

namespace docsource::mirror {
namespace {

constexpr const char* schema =
    "CREATE TABLE IF NOT EXISTS fact (name TEXT PRIMARY KEY, value TEXT) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS item (number INTEGER PRIMARY KEY AUTOINCREMENT,"
    " hereParent, hereName, hereKind, hereIdentity, hereVersion, hereSize, hereModified, hereMode,"
    " herePlaceholder,"
    " agreedParent, agreedName, agreedKind, agreedIdentity, agreedVersion, agreedSize,"
    " agreedModified, agreedMode, agreedPlaceholder,"
    " thereParent, thereName, thereKind, thereIdentity, thereVersion, thereSize, thereModified,"
    " thereMode, therePlaceholder,"
    " agreedHere, hash, due, tries, reason, pinned, wanted, movedOut, confirmed, "
    "conflictWith,"
    " conflictSince);"
    "CREATE INDEX IF NOT EXISTS itemHere ON item (hereParent, hereName)"
    " WHERE hereParent IS NOT NULL;"
    "CREATE INDEX IF NOT EXISTS itemThere ON item (thereParent, thereName)"
    " WHERE thereParent IS NOT NULL;"
    "CREATE INDEX IF NOT EXISTS itemHereIdentity ON item (hereIdentity)"
    " WHERE hereIdentity IS NOT NULL;"
    "CREATE INDEX IF NOT EXISTS itemThereIdentity ON item (thereIdentity)"
    " WHERE thereIdentity <> '';"
    "CREATE INDEX IF NOT EXISTS itemDue ON item (due) WHERE due IS NOT NULL;"
    "CREATE INDEX IF NOT EXISTS itemNew ON item (due)"
    " WHERE hereKind IS NULL AND agreedKind IS NULL AND thereKind IN (1, 2);"
    // What health tells of, as often as somebody asks.
    "CREATE INDEX IF NOT EXISTS itemDueHere ON item (due) WHERE due IS NOT NULL AND hereKind IS "
    "NOT NULL;"
    "CREATE INDEX IF NOT EXISTS itemFailed ON item (tries) WHERE reason IS NOT NULL;"
    "CREATE INDEX IF NOT EXISTS itemConflict ON item (conflictWith)"
    " WHERE conflictWith IS NOT NULL;"
    "CREATE INDEX IF NOT EXISTS itemGone ON item (agreedParent, agreedName)"
    " WHERE agreedKind IS NOT NULL AND thereKind IS NULL;"
    // What waits for a removal, counted at every removal.
    "CREATE INDEX IF NOT EXISTS itemRemoved ON item (confirmed)"
    " WHERE agreedKind IS NOT NULL AND (hereKind IS NULL OR thereKind IS NULL);"
    "INSERT OR IGNORE INTO item (number, hereParent, hereName, hereKind, hereIdentity,"
    " hereVersion, thereParent, thereName, thereKind, thereIdentity, thereVersion, agreedParent,"
    " agreedName, agreedKind, agreedIdentity, agreedVersion, tries)"
    " VALUES (1, 0, '', 2, '', '', 0, '', 2, '', '', 0, '', 2, '', '', 0)";

constexpr int nodeColumns = 9;
/// In herePlaceholder.
constexpr std::int64_t present = 0;
constexpr std::int64_t placeholder = 1;
constexpr std::int64_t exposed = 2;
/// The character that comes after all digits.
constexpr const char* afterDigits = ":";
constexpr const char* removal =
    "agreedKind IS NOT NULL AND (hereKind IS NULL OR thereKind IS NULL)";

std::optional<Node> readNode(const Statement& row, int first) {
  if (row.isNull(first + 2)) return std::nullopt;
  Node node;
  node.place = {row.integer(first), row.text(first + 1)};
  node.kind = static_cast<Kind>(row.integer(first + 2));
  node.identity = row.text(first + 3);
  node.version = row.text(first + 4);
  node.size = row.integer(first + 5);
  if (!row.isNull(first + 6)) node.modified = row.integer(first + 6);
  if (!row.isNull(first + 7)) node.mode = row.integer(first + 7);
  node.isPlaceholder = row.integer(first + 8) != present;
  node.isExposed = row.integer(first + 8) == exposed;
  return node;
}

void bindNode(Statement& statement, const std::optional<Node>& node) {
  if (!node) {
    for (int column = 0; column < nodeColumns; ++column) statement.bindNull();
    return;
  }
  statement.bind(node->place.parent).bind(node->place.name);
  statement.bind(static_cast<std::int64_t>(node->kind)).bind(node->identity).bind(node->version);
  statement.bind(node->size).bind(node->modified).bind(node->mode);
  statement.bind(!node->isPlaceholder ? present : node->isExposed ? exposed : placeholder);
}

std::string column(Side side, const char* name) {
  return (side == Side::here ? "here" : "there") + std::string(name);
}

const std::optional<Node>& nodeOf(const Item& item, Side side) {
  return side == Side::here ? item.here : item.there;
}

}  // namespace

Items::Items(Database& database, std::function<void(ItemNumber)> changed)
    : database_(database), changed_(std::move(changed)) {
  database_.run(schema);
}

Item Items::read(const Statement& row) {
  Item item;
  int at = 0;
  item.number = row.integer(at++);
  for (auto* node : {&item.here, &item.agreed, &item.there}) {
    *node = readNode(row, at);
    at += nodeColumns;
  }
  for (auto* text : {&item.agreedHere, &item.hash}) {
    if (!row.isNull(at)) *text = row.text(at);
    ++at;
  }
  if (!row.isNull(at)) item.due = row.integer(at);
  item.tries = row.integer(++at);
  if (!row.isNull(++at)) item.reason = row.text(at);
  for (auto* flag : {&item.isPinned, &item.isWanted, &item.movedOut, &item.isConfirmed}) {
    *flag = row.integer(++at) != 0;
  }
  if (!row.isNull(++at)) item.conflictWith = row.integer(at);
  item.conflictSince = row.integer(++at);
  return item;
}

std::optional<Item> Items::load(ItemNumber number) {
  auto row = database_.prepare("SELECT * FROM item WHERE number=?");
  row.bind(number);
  return row.step() ? std::optional(read(row)) : std::nullopt;
}

void Items::save(Item& item) {
  static const std::string values = [] {
    std::string text = "INSERT OR REPLACE INTO item VALUES (?";
    for (int column = 0; column < 3 * nodeColumns + 11; ++column) text += ",?";
    return text + ")";
  }();
  settled_.erase(item.number);
  auto statement = database_.prepare(values);
  statement.bind(item.number == 0 ? std::nullopt : std::optional(item.number));
  bindNode(statement, item.here);
  bindNode(statement, item.agreed);
  bindNode(statement, item.there);
  statement.bind(item.agreedHere).bind(item.hash).bind(item.due).bind(item.tries).bind(item.reason);
  for (const bool flag : {item.isPinned, item.isWanted, item.movedOut, item.isConfirmed}) {
    statement.bind(static_cast<std::int64_t>(flag));
  }
  statement.bind(item.conflictWith).bind(item.conflictSince);
  statement.run();
  if (item.number == 0) {
    item.number = database_.lastInsertedRow();
    ++count_;
  }
  changed_(item.number);
}

void Items::writeSettled() {
  if (settled_.empty()) return;
  // What is settled would be found so once more.
  Database::Transaction transaction(database_, Durable::later);
  for (const ItemNumber number : std::exchange(settled_, {})) {
    database_.prepare("UPDATE item SET due=NULL, reason=NULL, tries=0 WHERE number=?")
        .bind(number)
        .run();
  }
  transaction.commit();
}

void Items::erase(ItemNumber number) {
  settled_.erase(number);
  database_.prepare("DELETE FROM item WHERE number=?").bind(number).run();
  countedAt_.reset();
  database_.prepare("UPDATE item SET conflictWith=NULL WHERE conflictWith=?").bind(number).run();
  forgetFact(replacedFact(number));
  changed_(number);
}

std::optional<Item> Items::at(Side side, const Place& place) {
  auto row = database_.prepare("SELECT * FROM item WHERE " + column(side, "Parent") + "=? AND " +
                               column(side, "Name") + "=?");
  row.bind(place.parent).bind(place.name);
  return row.step() ? std::optional(read(row)) : std::nullopt;
}

std::optional<Item> Items::lastAt(Side side, const Place& place) {
  auto row = database_.prepare(
      "SELECT * FROM item WHERE agreedKind IS NOT NULL AND thereKind IS NULL AND agreedParent=? AND"
      " agreedName=?" +
      std::string(side == Side::here ? " AND hereKind IS NULL" : ""));
  row.bind(place.parent).bind(place.name);
  return row.step() ? std::optional(read(row)) : std::nullopt;
}

std::vector<Item> Items::withIdentity(Side side, const std::string& identity) {
  std::vector<Item> found;
  if (identity.empty()) return found;
  const std::string name = column(side, "Identity");
  auto row = database_.prepare("SELECT * FROM item WHERE " + name + "=? AND " + name + "<>''");
  row.bind(identity);
  while (row.step()) found.push_back(read(row));
  return found;
}

std::vector<ItemNumber> Items::children(Side side, ItemNumber parent, ItemNumber after,
                                        std::int64_t most) {
  std::vector<ItemNumber> found;
  auto row = database_.prepare("SELECT number FROM item WHERE " + column(side, "Parent") +
                               "=? AND number>? ORDER BY number LIMIT ?");
  row.bind(parent).bind(after).bind(most);
  while (row.step()) found.push_back(row.integer(0));
  return found;
}

std::optional<std::vector<std::pair<ItemNumber, Node>>> Items::entries(Side side, ItemNumber parent,
                                                                       std::size_t most) {
  std::string columns = "number";
  for (const char* name : {"Parent", "Name", "Kind", "Identity", "Version", "Size", "Modified",
                           "Mode", "Placeholder"}) {
    columns += "," + column(side, name);
  }
  auto row = database_.prepare("SELECT " + columns + " FROM item WHERE " + column(side, "Parent") +
                               "=? LIMIT ?");
  row.bind(parent).bind(static_cast<std::int64_t>(most) + 1);
  std::vector<std::pair<ItemNumber, Node>> found;
  while (row.step()) {
    if (found.size() == most) return std::nullopt;
    found.emplace_back(row.integer(0), *readNode(row, 1));
  }
  return found;
}

std::optional<std::string> Items::path(Side side, ItemNumber number) {
  constexpr int deepest = 4096;
  std::string path;
  for (int depth = 0; number != rootItem; ++depth) {
    const auto item = load(number);
    if (depth == deepest || !item || !nodeOf(*item, side)) return std::nullopt;
    const Place& place = nodeOf(*item, side)->place;
    path.insert(0, path.empty() ? place.name : place.name + "/");
    number = place.parent;
  }
  return path;
}

bool Items::isBelow(Side side, ItemNumber number, ItemNumber directory) {
  while (number != directory) {
    const auto item = number == rootItem ? std::nullopt : load(number);
    if (!item || !nodeOf(*item, side)) return false;
    number = nodeOf(*item, side)->place.parent;
  }
  return true;
}

std::vector<ItemNumber> Items::due(std::int64_t now, bool removals, const std::string& condition,
                                   std::int64_t most) {
  std::vector<ItemNumber> found;
  // With the plus it is the few that are due which are gone through, and sorted, and not all items
  // from the last one on (SQLite: The SQLite Query Optimizer Overview, 2.1).
  auto row =
      database_.prepare(std::string("SELECT number FROM item WHERE due<=? AND ") +
                        (removals ? "" : "NOT ") + "(" + removal + ") AND (" + condition +
                        ") ORDER BY " + (removals ? "+number DESC" : "due, number") + " LIMIT ?");
  row.bind(now).bind(most);
  while (row.step()) found.push_back(row.integer(0));
  return found;
}

std::vector<ItemNumber> Items::dueHere(std::int64_t now, const std::string& condition,
                                       std::int64_t most) {
  return dueBy("itemDueHere", "hereKind IS NOT NULL AND (" + condition + ")", now, most);
}

std::vector<ItemNumber> Items::newThere(std::int64_t now, std::int64_t most) {
  return dueBy("itemNew", "hereKind IS NULL AND agreedKind IS NULL AND thereKind IN (1, 2)", now,
               most);
}

std::vector<ItemNumber> Items::dueBy(const std::string& index, const std::string& condition,
                                     std::int64_t now, std::int64_t most) {
  std::vector<ItemNumber> found;
  auto row = database_.prepare("SELECT number FROM item INDEXED BY " + index +
                               " WHERE due<=? AND " + condition + " ORDER BY due, number LIMIT ?");
  row.bind(now).bind(most);
  while (row.step()) found.push_back(row.integer(0));
  return found;
}

std::optional<std::int64_t> Items::nextDue(const std::string& condition) {
  auto row = database_.prepare("SELECT due FROM item WHERE due IS NOT NULL AND (" + condition +
                               ") ORDER BY due LIMIT 1");
  return row.step() && !row.isNull(0) ? std::optional(row.integer(0)) : std::nullopt;
}

void Items::makeAllDue(std::int64_t now) {
  database_.prepare("UPDATE item SET due=?, tries=0 WHERE due IS NOT NULL").bind(now).run();
}

std::int64_t Items::count() {
  if (countedAt_ != database_.undone()) {
    count_ = count("1");
    countedAt_ = database_.undone();
  }
  return count_;
}

std::int64_t Items::count(const char* condition) {
  auto row = database_.prepare(std::string("SELECT count(*) FROM item WHERE ") + condition);
  return row.step() ? row.integer(0) : 0;
}

void Items::forEach(const char* condition, const std::function<void(const Item&)>& visit) {
  auto row = database_.prepare(std::string("SELECT * FROM item WHERE ") + condition);
  while (row.step()) visit(read(row));
}

std::vector<Item> Items::failedIn(ItemNumber directory) {
  auto row = database_.prepare(
      "SELECT * FROM item WHERE reason IS NOT NULL AND hereKind IS NULL AND +thereParent=?");
  row.bind(directory);
  std::vector<Item> items;
  while (row.step()) items.push_back(read(row));
  return items;
}

std::optional<std::string> Items::fact(const std::string& name) {
  auto row = database_.prepare("SELECT value FROM fact WHERE name=?");
  row.bind(name);
  return row.step() ? std::optional(row.text(0)) : std::nullopt;
}

void Items::setFact(const std::string& name, const std::string& value) {
  database_.prepare("INSERT OR REPLACE INTO fact VALUES (?,?)").bind(name).bind(value).run();
}

void Items::forgetFact(const std::string& name) {
  database_.prepare("DELETE FROM fact WHERE name=?").bind(name).run();
}

std::optional<std::string> Items::firstFact(const std::string& beginning) {
  auto row = database_.prepare("SELECT value FROM fact WHERE name>? AND name<? LIMIT 1");
  row.bind(beginning).bind(beginning + afterDigits);
  return row.step() ? std::optional(row.text(0)) : std::nullopt;
}

std::vector<std::string> Items::facts(const std::string& beginning) {
  std::vector<std::string> values;
  auto row = database_.prepare("SELECT value FROM fact WHERE name>? AND name<?");
  row.bind(beginning).bind(beginning + afterDigits);
  while (row.step()) values.push_back(row.text(0));
  return values;
}

void Items::forgetFacts(const std::string& beginning) {
  auto facts = database_.prepare("DELETE FROM fact WHERE name>? AND name<?");
  facts.bind(beginning).bind(beginning + afterDigits).run();
}

std::optional<Item> Items::withFact(const std::string& beginning, const std::string& value) {
  auto row = database_.prepare("SELECT name FROM fact WHERE name>? AND name<? AND value=?");
  row.bind(beginning).bind(beginning + afterDigits).bind(value);
  while (row.step()) {
    auto item = load(std::atoll(row.text(0).c_str() + beginning.size()));
    if (item) return item;
  }
  return std::nullopt;
}

std::set<ItemNumber> Items::numbersWithFact(const std::string& beginning) {
  std::set<ItemNumber> numbers;
  auto row = database_.prepare("SELECT name FROM fact WHERE name>? AND name<?");
  row.bind(beginning).bind(beginning + afterDigits);
  while (row.step()) numbers.insert(std::atoll(row.text(0).c_str() + beginning.size()));
  return numbers;
}

}  // namespace docsource::mirror
