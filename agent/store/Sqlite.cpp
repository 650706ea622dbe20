#include "store/Sqlite.h"

#include <fcntl.h>
#include <sqlite3.h>

#include <cerrno>

#include "platform/Posix.h"
#include "platform/Text.h"

namespace agent::store {
namespace {

/// Makes the file with mode 0600: the journal files inherit the mode.
void makeFile(const std::string& path) {
  const platform::Descriptor fd(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd) {
    throw StoreError("cannot open " + platform::quoted(path) + ": " + platform::errnoText(errno));
  }
}

}  // namespace

Database::Database(std::string path, Durability durability) : path_(std::move(path)) {
  makeFile(path_);
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW;
  const int code = sqlite3_open_v2(path_.c_str(), &handle_, flags, nullptr);
  try {
    if (code != SQLITE_OK) {
      fail(code);
    }
    sqlite3_extended_result_codes(handle_, 1);
    sqlite3_busy_timeout(handle_, 5000);
    run("PRAGMA journal_mode=WAL");
    run(durability == Durability::kFull ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
    run("PRAGMA trusted_schema=OFF");
    Statement check(*this, "PRAGMA quick_check(1)");
    const std::string state = check.step() ? check.text(0) : "no answer";
    if (state != "ok") {
      throw StoreError(platform::quoted(path_) + " is damaged: " + platform::visibleText(state));
    }
  } catch (...) {
    sqlite3_close_v2(handle_);
    throw;
  }
}

Database::~Database() {
  sqlite3_close_v2(handle_);
}

void Database::fail(int code) {
  const std::string what = handle_ != nullptr ? sqlite3_errmsg(handle_) : sqlite3_errstr(code);
  const int primary = code & 0xFF;
  if (primary == SQLITE_NOTADB || primary == SQLITE_CORRUPT) {
    throw StoreError(platform::quoted(path_) + " is damaged: " + what);
  }
  throw StoreError(platform::quoted(path_) + ": " + what);
}

void Database::run(const char* sql) {
  const int code = sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) {
    fail(code);
  }
}

std::int64_t Database::number(const char* sql) {
  Statement statement(*this, sql);
  return statement.step() ? statement.number(0) : 0;
}

Statement::Statement(Database& database, const char* sql) : database_(database) {
  const int code =
      sqlite3_prepare_v3(database.handle(), sql, -1, SQLITE_PREPARE_PERSISTENT, &handle_, nullptr);
  if (code != SQLITE_OK) {
    database.fail(code);
  }
}

Statement::~Statement() {
  sqlite3_finalize(handle_);
}

bool Statement::step() {
  const int code = sqlite3_step(handle_);
  if (code == SQLITE_ROW) {
    return true;
  }
  if (code != SQLITE_DONE) {
    sqlite3_reset(handle_);
    database_.fail(code);
  }
  return false;
}

void Statement::run() {
  while (step()) {
  }
  reset();
}

void Statement::reset() {
  sqlite3_reset(handle_);
}

std::int64_t Statement::number(int column) const {
  return sqlite3_column_int64(handle_, column);
}

std::string Statement::text(int column) const {
  const void* bytes = sqlite3_column_blob(handle_, column);
  const int size = sqlite3_column_bytes(handle_, column);
  return bytes == nullptr ? std::string()
                          : std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(size));
}

void Statement::bindOne(int index, std::int64_t value) {
  const int code = sqlite3_bind_int64(handle_, index, value);
  if (code != SQLITE_OK) {
    database_.fail(code);
  }
}

void Statement::bindOne(int index, const std::string& value) {
  const int code = sqlite3_bind_blob64(handle_, index, value.data(), value.size(), SQLITE_TRANSIENT);
  if (code != SQLITE_OK) {
    database_.fail(code);
  }
}

Transaction::Transaction(Database& database) : database_(database) {
  database_.run("BEGIN IMMEDIATE");
}

Transaction::~Transaction() {
  if (!done_) {
    sqlite3_exec(database_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
  }
}

void Transaction::commit() {
  database_.run("COMMIT");
  done_ = true;
}

}  // namespace agent::store
