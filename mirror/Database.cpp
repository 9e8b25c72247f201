// A thin owner of an SQLite connection and its prepared statements (sqlite.org/c3ref).

#include "mirror/Database.h"

#include <sqlite3.h>

#include <utility>

namespace docsource::mirror {

Statement::Statement(Statement&& other) noexcept
    : database_(other.database_),
      text_(std::move(other.text_)),
      statement_(std::exchange(other.statement_, nullptr)),
      parameter_(other.parameter_) {}

Statement::~Statement() {
  if (!statement_) return;
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
  database_->idle_.emplace(std::move(text_), statement_);
}

Statement& Statement::bind(std::int64_t value) {
  sqlite3_bind_int64(statement_, ++parameter_, value);
  return *this;
}

Statement& Statement::bind(std::string_view text) {
  // A null pointer would bind NULL.
  const char* bytes = text.data() ? text.data() : "";
  sqlite3_bind_text(statement_, ++parameter_, bytes, static_cast<int>(text.size()),
                    SQLITE_TRANSIENT);
  return *this;
}

Statement& Statement::bindNull() {
  sqlite3_bind_null(statement_, ++parameter_);
  return *this;
}

bool Statement::step() {
  const int code = sqlite3_step(statement_);
  if (code == SQLITE_ROW) return true;
  if (code != SQLITE_DONE) database_->fail(code);
  return false;
}

void Statement::run() {
  while (step()) {
  }
}

bool Statement::isNull(int column) const {
  return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

std::int64_t Statement::integer(int column) const {
  return sqlite3_column_int64(statement_, column);
}

std::string Statement::text(int column) const {
  const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement_, column));
  const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
  return bytes ? std::string(bytes, size) : std::string();
}

Database::Database(const std::string& path) {
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  const int code = sqlite3_open_v2(path.c_str(), &handle_, flags, nullptr);
  try {
    if (code != SQLITE_OK) fail(code);
    sqlite3_extended_result_codes(handle_, 1);
    // The account's last process may still be at its end, when what started it has died.
    constexpr int patience = 10'000;  // milliseconds
    sqlite3_busy_timeout(handle_, patience);
    // Exclusive: the lock is kept, and the index of the log stays in memory instead of a file.
    run("PRAGMA locking_mode=EXCLUSIVE; PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;"
        "PRAGMA temp_store=MEMORY; PRAGMA cache_size=-8000; PRAGMA foreign_keys=OFF;"
        "BEGIN IMMEDIATE; COMMIT");
  } catch (...) {
    sqlite3_close(handle_);
    throw;
  }
}

Database::~Database() {
  for (const auto& [text, statement] : idle_) sqlite3_finalize(statement);
  sqlite3_close(handle_);
}

Statement Database::prepare(const std::string& text) {
  if (const auto found = idle_.find(text); found != idle_.end()) {
    sqlite3_stmt* statement = found->second;
    idle_.erase(found);
    return {*this, text, statement};
  }
  sqlite3_stmt* statement = nullptr;
  const int code = sqlite3_prepare_v3(handle_, text.data(), static_cast<int>(text.size()),
                                      SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
  if (code != SQLITE_OK) fail(code);
  return {*this, text, statement};
}

void Database::run(const char* text) {
  const int code = sqlite3_exec(handle_, text, nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) fail(code);
}

std::int64_t Database::lastInsertedRow() const { return sqlite3_last_insert_rowid(handle_); }

void Database::fail(int code) const {
  throw DatabaseFailure{code, handle_ ? sqlite3_errmsg(handle_) : sqlite3_errstr(code)};
}

void Database::sync() {
  if (!isBehind_) return;
  // A commit of any change syncs the log, and so everything that is in it.
  run("PRAGMA user_version=1");
  isBehind_ = false;
}

Database::Transaction::Transaction(Database& database, Durable durable)
    : database_(database), durable_(database.depth_ == 0 ? durable : Durable::now) {
  if (database_.depth_ == 0) {
    database_.isBroken_ = false;
    // The log stays in order: what is in it is there after a power failure, or all that came later
    // is not.
    if (durable_ == Durable::later) database_.run("PRAGMA synchronous=NORMAL");
    try {
      database_.run("BEGIN IMMEDIATE");
    } catch (...) {
      restore();
      throw;
    }
  }
  ++database_.depth_;
}

Database::Transaction::~Transaction() {
  if (!isOpen_) return;
  --database_.depth_;
  database_.isBroken_ = true;
  if (database_.depth_ == 0 && sqlite3_get_autocommit(database_.handle_) == 0) {
    sqlite3_exec(database_.handle_, "ROLLBACK", nullptr, nullptr, nullptr);
    ++database_.undone_;
  }
  restore();
}

void Database::Transaction::restore() const {
  if (durable_ == Durable::later) {
    sqlite3_exec(database_.handle_, "PRAGMA synchronous=FULL", nullptr, nullptr, nullptr);
  }
}

void Database::Transaction::commit() {
  if (database_.depth_ == 1) {
    if (database_.isBroken_) throw DatabaseFailure{SQLITE_ABORT, "an inner transaction failed"};
    database_.run("COMMIT");
    database_.isBehind_ = durable_ == Durable::later;
  }
  isOpen_ = false;
  --database_.depth_;
  restore();
}

}  // namespace docsource::mirror
