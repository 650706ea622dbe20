#pragma once

#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

/// The part of SQLite that the store needs. Errors are exceptions: StoreError, one line.
namespace agent::store {

class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Whether a committed row must survive a power cut (kFull) or a killed process only (kNormal).
enum class Durability { kFull, kNormal };

/// One connection in WAL mode. Every use of the connection or of its statements holds mutex().
class Database {
 public:
  /// Opens or makes the file (0600) and checks its integrity.
  Database(std::string path, Durability durability);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  void run(const char* sql);             ///< one or more statements without results
  std::int64_t number(const char* sql);  ///< the first column of the first row
  std::mutex& mutex() { return mutex_; }
  sqlite3* handle() { return handle_; }
  const std::string& path() const { return path_; }
  [[noreturn]] void fail(int code);

 private:
  std::string path_;
  sqlite3* handle_ = nullptr;
  std::mutex mutex_;
};

/// A prepared statement for repeated use: bind() all parameters, step(), read columns. The next bind() or
/// reset() resets the statement.
class Statement {
 public:
  Statement(Database& database, const char* sql);
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  /// Parameters in their order: integers, and texts as bytes of any encoding.
  template <class... Values>
  Statement& bind(const Values&... values) {
    reset();
    int index = 0;
    (bindOne(++index, values), ...);
    return *this;
  }
  bool step();  ///< true: a row can be read
  void run();   ///< step to the end, and reset
  void reset();
  std::int64_t number(int column) const;
  std::string text(int column) const;

 private:
  void bindOne(int index, std::int64_t value);
  void bindOne(int index, std::uint64_t value) { bindOne(index, static_cast<std::int64_t>(value)); }
  void bindOne(int index, int value) { bindOne(index, std::int64_t{value}); }
  void bindOne(int index, unsigned value) { bindOne(index, std::int64_t{value}); }
  void bindOne(int index, const std::string& value);

  Database& database_;
  sqlite3_stmt* handle_ = nullptr;
};

/// All changes between construction and commit() happen, or none. Lives under the database's mutex.
class Transaction {
 public:
  explicit Transaction(Database& database);
  ~Transaction();  ///< undoes changes that were not committed
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  void commit();

 private:
  Database& database_;
  bool done_ = false;
};

}  // namespace agent::store
