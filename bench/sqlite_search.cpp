#include <sqlite3.h>

#include <stdexcept>
#include <vector>

#include "search_engine.h"

namespace {

/// Each content in the tables that serve it best: boxes and spans lie in nothing but an R*Tree,
/// which has the number beside them; texts in a full-text table, and once more in one of trigrams
/// for "contains".
class SqliteSearch final : public SearchEngine {
 public:
  ~SqliteSearch() override {
    for (sqlite3_stmt* s : adding_) sqlite3_finalize(s);
    for (sqlite3_stmt* s : {search_, read_, searchContains_, readContains_}) sqlite3_finalize(s);
    sqlite3_close(db_);
  }

  void create(const std::string& folder, Content content) override {
    connect(folder, content);
    switch (content) {
      case Content::boxes:
        run("CREATE VIRTUAL TABLE boxes USING rtree_i32(id, x1, x2, y1, y2, +number INTEGER)");
        break;
      case Content::spans:
        run("CREATE VIRTUAL TABLE spans USING rtree_i32(id, begin, end, +number INTEGER)");
        break;
      case Content::texts:
        run("CREATE VIRTUAL TABLE texts USING fts5(number UNINDEXED, text, detail=none)");
        break;
      case Content::all:
        run("CREATE TABLE items(id INTEGER PRIMARY KEY, number INTEGER, x1 INTEGER, y1 INTEGER,"
            " x2 INTEGER, y2 INTEGER, begin INTEGER, end INTEGER, name TEXT NOT NULL UNIQUE,"
            " text TEXT);"
            "CREATE INDEX numbers ON items(number);"
            "CREATE VIRTUAL TABLE boxes USING rtree_i32(id, x1, x2, y1, y2);"
            "CREATE VIRTUAL TABLE spans USING rtree_i32(id, begin, end);"
            "CREATE VIRTUAL TABLE texts USING fts5(text, content='items', content_rowid='id',"
            " detail=none)");
        break;
    }
    prepare();
  }
  void open(const std::string& folder, Content content) override {
    connect(folder, content);
    prepare();
  }

  void beginWrite() override { run("BEGIN IMMEDIATE"); }
  void beginRead() override { run("BEGIN"); }
  void commit() override { run("COMMIT"); }
  void endRead() override { run("COMMIT"); }

  void add(const Item& item) override {
    switch (content_) {
      case Content::boxes:
        return insert(adding_[0],
                      {++id_, item.box[0], item.box[2], item.box[1], item.box[3], item.number});
      case Content::spans:
        return insert(adding_[0], {++id_, item.span[0], item.span[1], item.number});
      case Content::texts:
        bindText(adding_[0], 2, item.text);
        return insert(adding_[0], {item.number});
      case Content::all:
        bindText(adding_[0], 8, item.name);
        bindText(adding_[0], 9, item.text);
        insert(adding_[0], {item.number, item.box[0], item.box[1], item.box[2], item.box[3],
                            item.span[0], item.span[1]});
        ++id_;
        insert(adding_[1], {id_, item.box[0], item.box[2], item.box[1], item.box[3]});
        insert(adding_[2], {id_, item.span[0], item.span[1]});
        bindText(adding_[3], 2, item.text);
        return insert(adding_[3], {id_});
    }
  }

  std::int64_t search(const Query& query) override { return run(query, false, {}); }
  std::int64_t read(const Query& query, const std::function<void(std::int64_t)>& take) override {
    return run(query, true, take);
  }

 private:
  void connect(const std::string& folder, Content content) {
    content_ = content;
    if (sqlite3_open((folder + "/bench.db").c_str(), &db_) != SQLITE_OK) fail();
    run("PRAGMA journal_mode=WAL");
    run("PRAGMA synchronous=FULL");
  }

  void prepare() {
    const std::string within = " FROM boxes WHERE x1 <= ? AND x2 >= ? AND y1 <= ? AND y2 >= ?";
    const std::string during = " FROM spans WHERE begin <= ? AND end >= ?";
    const std::string matching = " FROM texts WHERE texts MATCH ?";
    switch (content_) {
      case Content::boxes:
        adding_ = {statement("INSERT INTO boxes VALUES(?, ?, ?, ?, ?, ?)")};
        search_ = statement("SELECT id" + within);
        read_ = statement("SELECT number" + within);
        break;
      case Content::spans:
        adding_ = {statement("INSERT INTO spans VALUES(?, ?, ?, ?)")};
        search_ = statement("SELECT id" + during);
        read_ = statement("SELECT number" + during);
        break;
      case Content::texts:
        adding_ = {statement("INSERT INTO texts(number, text) VALUES(?, ?)")};
        search_ = statement("SELECT rowid" + matching);
        read_ = statement("SELECT number" + matching);
        break;
      case Content::all:
        adding_ = {statement("INSERT INTO items(number, x1, y1, x2, y2, begin, end, name, text)"
                             " VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?)"),
                   statement("INSERT INTO boxes VALUES(?, ?, ?, ?, ?)"),
                   statement("INSERT INTO spans VALUES(?, ?, ?)"),
                   statement("INSERT INTO texts(rowid, text) VALUES(?, ?)")};
        break;
    }
  }

  /// The table of trigrams is made when it is first needed: it is no part of a load.
  void prepareTrigrams() {
    run("COMMIT;"
        "CREATE VIRTUAL TABLE IF NOT EXISTS grams USING fts5(text, content='', "
        "tokenize='trigram')");
    if (first("SELECT count(*) FROM grams_docsize") == 0) {
      run("INSERT INTO grams(rowid, text) SELECT rowid, text FROM texts");
    }
    run("BEGIN");
    searchContains_ = statement("SELECT rowid FROM grams WHERE grams MATCH ?");
    readContains_ = statement(
        "SELECT number FROM texts WHERE rowid IN (SELECT rowid FROM grams WHERE grams MATCH ?)");
  }

  std::int64_t run(const Query& query, bool reads, const std::function<void(std::int64_t)>& take) {
    sqlite3_stmt* s = reads ? read_ : search_;
    const std::string& word = query.words[0];
    switch (query.kind) {
      case Query::Kind::box:
        bind(s, {query.box[2], query.box[0], query.box[3], query.box[1]});
        break;
      case Query::Kind::span:
        bind(s, {query.span[1], query.span[0]});
        break;
      case Query::Kind::word:
        bindText(s, 1, word);
        break;
      case Query::Kind::twoWords:
        expression_.assign(word).append(" AND ").append(query.words[1]);
        bindText(s, 1, expression_);
        break;
      case Query::Kind::prefix:
        expression_.assign(word).append("*");
        bindText(s, 1, expression_);
        break;
      case Query::Kind::contains:
        if (searchContains_ == nullptr) prepareTrigrams();
        s = reads ? readContains_ : searchContains_;
        bindText(s, 1, word);
    }
    std::int64_t count = 0;
    int result = sqlite3_step(s);
    for (; result == SQLITE_ROW; result = sqlite3_step(s), ++count) {
      const std::int64_t value = sqlite3_column_int64(s, 0);
      if (reads) take(value);
    }
    if (result != SQLITE_DONE) fail();
    sqlite3_reset(s);
    return count;
  }

  sqlite3_stmt* statement(const std::string& sql) {
    sqlite3_stmt* out = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &out, nullptr) != SQLITE_OK) fail();
    return out;
  }
  void bind(sqlite3_stmt* s, std::initializer_list<std::int64_t> values) {
    int i = 0;
    for (const std::int64_t value : values) sqlite3_bind_int64(s, ++i, value);
  }
  void bindText(sqlite3_stmt* s, int at, const std::string& text) {
    sqlite3_bind_text(s, at, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
  }
  void insert(sqlite3_stmt* s, std::initializer_list<std::int64_t> values) {
    bind(s, values);
    if (sqlite3_step(s) != SQLITE_DONE) fail();
    sqlite3_reset(s);
  }
  std::int64_t first(const char* sql) {
    sqlite3_stmt* s = statement(sql);
    if (sqlite3_step(s) != SQLITE_ROW) fail();
    const std::int64_t value = sqlite3_column_int64(s, 0);
    sqlite3_finalize(s);
    return value;
  }
  void run(const char* sql) {
    if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail();
  }
  [[noreturn]] void fail() {
    throw std::runtime_error(std::string("sqlite: ") + sqlite3_errmsg(db_));
  }

  sqlite3* db_ = nullptr;
  Content content_ = Content::boxes;
  std::int64_t id_ = 0;
  std::vector<sqlite3_stmt*> adding_;
  sqlite3_stmt *search_ = nullptr, *read_ = nullptr;
  sqlite3_stmt *searchContains_ = nullptr, *readContains_ = nullptr;
  std::string expression_;
};

}  // namespace

std::unique_ptr<SearchEngine> makeSqliteSearch() { return std::make_unique<SqliteSearch>(); }
