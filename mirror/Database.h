#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

struct sqlite3;
struct sqlite3_stmt;

namespace docsource::mirror {

/// A failure of the database: the disk is full or broken, or the file is not ours. It is thrown, so
/// that nothing continues with half a decision. The engine catches it where it was entered, after
/// the transaction was rolled back.
struct DatabaseFailure {
  int code = 0;
  std::string text;
};

class Database;

/// One statement that is being carried out: bind, then step through its rows. When it is destroyed
/// it goes back to the database that prepared it. The same text may be used twice at a time.
class Statement {
 public:
  Statement(Statement&& other) noexcept;
  Statement& operator=(Statement&&) = delete;
  ~Statement();

  /// Binds the next parameter, beginning with the first.
  Statement& bind(std::int64_t value);
  Statement& bind(std::string_view text);
  Statement& bindNull();
  template <class T>
  Statement& bind(const std::optional<T>& value) {
    return value ? bind(*value) : bindNull();
  }

  /// Returns whether there is a (further) row.
  bool step();
  /// Runs a statement that returns no rows.
  void run();

  bool isNull(int column) const;
  std::int64_t integer(int column) const;
  std::string text(int column) const;

 private:
  friend class Database;
  Statement(Database& database, std::string text, sqlite3_stmt* statement)
      : database_(&database), text_(std::move(text)), statement_(statement) {}

  Database* database_;
  std::string text_;
  sqlite3_stmt* statement_;
  int parameter_ = 0;
};

/// When what a transaction has changed has to be on disk: when it has ended, or only before
/// anything that is changed after it. `later` is for what would be found out once more.
enum class Durable { now, later };

/// An SQLite database of one process, in WAL mode and with full synchronisation. Used by one thread
/// at a time.
class Database {
 public:
  /// Makes the file where there is none, and locks it against other processes until the end.
  explicit Database(const std::string& path);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  Statement prepare(const std::string& text);
  /// Runs one or more statements without parameters and rows.
  void run(const char* text);
  std::int64_t lastInsertedRow() const;
  /// When it returns, everything that was committed is on disk.
  void sync();

  /// How many transactions were not committed.
  std::uint64_t undone() const { return undone_; }

  /// Everything until its end happens together, by commit(), or not at all. Inner ones belong to
  /// the outermost, which says when they have to be on disk.
  class Transaction {
   public:
    explicit Transaction(Database& database, Durable durable = Durable::now);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void commit();

   private:
    void restore() const;

    Database& database_;
    const Durable durable_;
    bool isOpen_ = true;
  };

 private:
  friend class Statement;
  [[noreturn]] void fail(int code) const;

  sqlite3* handle_ = nullptr;
  std::unordered_multimap<std::string, sqlite3_stmt*> idle_;
  int depth_ = 0;
  std::uint64_t undone_ = 0;
  bool isBroken_ = false;
  /// Something was committed that is not on disk yet.
  bool isBehind_ = false;
};

}  // namespace docsource::mirror
