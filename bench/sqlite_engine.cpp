#include <sqlite3.h>

#include <cstring>
#include <stdexcept>

#include "engine.h"

namespace {

class SqliteEngine final : public Engine {
 public:
  ~SqliteEngine() override {
    for (sqlite3_stmt* statement : {add_, update_, remove_, byId_, byKey_, scan_})
      sqlite3_finalize(statement);
    sqlite3_close(db_);
  }

  void create(const std::string& folder) override {
    connect(folder);
    run("CREATE TABLE items(id INTEGER PRIMARY KEY, number INTEGER, value REAL, x INTEGER, y "
        "INTEGER,"
        " key TEXT NOT NULL UNIQUE, text TEXT)");
    prepare();
  }
  void open(const std::string& folder) override {
    connect(folder);
    prepare();
  }

  void beginWrite() override { run("BEGIN IMMEDIATE"); }
  void beginRead() override { run("BEGIN"); }
  void commit() override { run("COMMIT"); }
  void endRead() override { run("COMMIT"); }

  void add(const Item& item) override {
    sqlite3_bind_int64(add_, 1, item.number);
    sqlite3_bind_double(add_, 2, item.value);
    sqlite3_bind_int(add_, 3, item.x);
    sqlite3_bind_int(add_, 4, item.y);
    sqlite3_bind_text(add_, 5, item.key.data(), static_cast<int>(item.key.size()), SQLITE_STATIC);
    sqlite3_bind_text(add_, 6, item.text.data(), static_cast<int>(item.text.size()), SQLITE_STATIC);
    if (sqlite3_step(add_) != SQLITE_DONE) fail();
    sqlite3_reset(add_);
  }

  void update(std::int64_t id, const Item& item) override {
    sqlite3_bind_double(update_, 1, item.value);
    sqlite3_bind_int(update_, 2, item.x);
    sqlite3_bind_int(update_, 3, item.y);
    sqlite3_bind_text(update_, 4, item.text.data(), static_cast<int>(item.text.size()),
                      SQLITE_STATIC);
    sqlite3_bind_int64(update_, 5, id);
    changeOne(update_);
  }
  void remove(std::int64_t id) override {
    sqlite3_bind_int64(remove_, 1, id);
    changeOne(remove_);
  }

  std::int64_t readById(std::int64_t id) override {
    sqlite3_bind_int64(byId_, 1, id);
    return one(byId_);
  }
  std::int64_t readByKey(const std::string& key) override {
    sqlite3_bind_text(byKey_, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    return one(byKey_);
  }
  std::int64_t scan() override {
    std::int64_t count = 0;
    for (; sqlite3_step(scan_) == SQLITE_ROW; ++count) row(scan_);
    sqlite3_reset(scan_);
    return count;
  }

 private:
  void connect(const std::string& folder) {
    if (sqlite3_open((folder + "/bench.db").c_str(), &db_) != SQLITE_OK) fail();
    run("PRAGMA journal_mode=WAL");
    run("PRAGMA synchronous=FULL");
    sqlite3_busy_timeout(db_, 60000);
  }
  void prepare() {
    add_ = statement("INSERT INTO items(number, value, x, y, key, text) VALUES(?, ?, ?, ?, ?, ?)");
    update_ = statement("UPDATE items SET value = ?, x = ?, y = ?, text = ? WHERE id = ?");
    remove_ = statement("DELETE FROM items WHERE id = ?");
    byId_ = statement("SELECT number, value, x, y, key, text FROM items WHERE id = ?");
    byKey_ = statement("SELECT number, value, x, y, key, text FROM items WHERE key = ?");
    scan_ = statement("SELECT number, value, x, y, key, text FROM items ORDER BY key");
  }
  sqlite3_stmt* statement(const char* sql) {
    sqlite3_stmt* out = nullptr;
    if (sqlite3_prepare_v2(db_, sql, -1, &out, nullptr) != SQLITE_OK) fail();
    return out;
  }
  void run(const char* sql) {
    if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail();
  }
  std::int64_t row(sqlite3_stmt* s) {
    const std::int64_t number = sqlite3_column_int64(s, 0);
    sqlite3_column_double(s, 1);
    sqlite3_column_int(s, 2);
    sqlite3_column_int(s, 3);
    sqlite3_column_text(s, 4);
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(s, 5));
    if (std::strlen(text) != 70) throw std::runtime_error("a text is damaged");
    return number;
  }
  std::int64_t one(sqlite3_stmt* s) {
    if (sqlite3_step(s) != SQLITE_ROW) fail();
    const std::int64_t number = row(s);
    sqlite3_reset(s);
    return number;
  }
  void changeOne(sqlite3_stmt* s) {
    if (sqlite3_step(s) != SQLITE_DONE || sqlite3_changes(db_) != 1) fail();
    sqlite3_reset(s);
  }
  [[noreturn]] void fail() { throw std::runtime_error(sqlite3_errmsg(db_)); }

  sqlite3* db_ = nullptr;
  sqlite3_stmt *add_ = nullptr, *update_ = nullptr, *remove_ = nullptr;
  sqlite3_stmt *byId_ = nullptr, *byKey_ = nullptr, *scan_ = nullptr;
};

}  // namespace

std::unique_ptr<Engine> makeSqlite() { return std::make_unique<SqliteEngine>(); }
