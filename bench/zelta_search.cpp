#include <czelta.h>

#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "search_engine.h"

namespace {

constexpr unsigned kTable = 1;
constexpr unsigned kTimeout = 60000;
constexpr unsigned long long kNoMore = 0x100000020;  // own code 32

using Field = CZELTA::Schema::Field;
using Segment = CZELTA::Schema::Segment;
using Index = CZELTA::Schema::Index;

class ZeltaSearch final : public SearchEngine {
 public:
  void create(const std::string& folder, Content content) override {
    content_ = content;
    check(database_.CreateDatabase(path(folder).c_str()));
    Field number = {CZELTA::TypeInt64, 0, 0, 0, u"number", nullptr};
    Field box = {CZELTA::TypeRect2, 0, 0, 0, u"box", nullptr};
    Field begin = {CZELTA::TypeDate, 0, 0, 0, u"begin", nullptr};
    Field end = {CZELTA::TypeDate, 0, 0, 0, u"end", nullptr};
    Field name = {CZELTA::TypeText, 0, 17, 0, u"name", nullptr};
    Field text = {CZELTA::TypeText, 0, 120, 0, u"text", nullptr};
    const std::uint32_t words = CZELTA::SegmentWords | CZELTA::SegmentLowerCase;
    switch (content) {
      case Content::boxes:
        return createTable({number, box}, {{CZELTA::SpatialTree, {{1, 0}}}});
      case Content::spans:
        return createTable({number, begin, end}, {{CZELTA::TemporalTree, {{1, 0}, {2, 0}}}});
      case Content::texts:
        return createTable({number, text}, {{CZELTA::AsciiList, {{1, words}}}});
      case Content::all:
        return createTable({number, box, begin, end, name, text},
                           {{CZELTA::BPlusTree, {{4, 0}}},
                            {CZELTA::BPlusTree, {{0, 0}, {CZELTA::ObjectIdSegment, 0}}},
                            {CZELTA::TemporalTree, {{2, 0}, {3, 0}}},
                            {CZELTA::SpatialTree, {{1, 0}}},
                            {CZELTA::AsciiList, {{5, words}}}});
    }
  }

  void open(const std::string& folder, Content content) override {
    content_ = content;
    check(database_.OpenDatabase(path(folder).c_str()));
  }

  void beginWrite() override { begin(CZELTA::TransactionShared); }
  void beginRead() override { begin(CZELTA::TransactionRead); }

  void add(const Item& item) override {
    CZELTA::Object object;
    check(database_.NewObject(kTable, &object, 0));
    char* data = static_cast<char*>(object.data);
    std::memcpy(data, &item.number, 8);
    data += 8;
    if (content_ == Content::boxes || content_ == Content::all) {
      std::memcpy(data, item.box, sizeof item.box);
      data += sizeof item.box;
    }
    if (content_ == Content::spans || content_ == Content::all) {
      std::memcpy(data, item.span, sizeof item.span);
    }
    values_.clear();
    if (content_ == Content::all) values_.append(item.name).append(1, '\0');
    if (hasText()) {
      values_.append(item.text).append(1, '\0');
      check(database_.PutVariableValues(kTable, values_.data(),
                                        static_cast<unsigned>(values_.size()), 0,
                                        content_ == Content::all ? 2 : 1, nullptr));
    }
    check(database_.AddObject(kTable, nullptr, 0));
  }

  void commit() override {
    check(database_.CommitTransaction(true));
    check(database_.EndTransaction());
  }
  void endRead() override { check(database_.EndTransaction()); }

  std::int64_t search(const Query& query) override {
    long long count = 0;
    const CZELTA::Mode mode{};
    switch (query.kind) {
      case Query::Kind::box:
        check(database_.SearchIndex(kTable, 1, query.box, 0u, mode, &count));
        break;
      case Query::Kind::span:
        check(database_.SearchIndex(kTable, 1, query.span, 0u, mode, &count));
        break;
      default:
        expression(query);
        check(database_.SearchIndex(kTable, 1, nullptr, values_.c_str(), mode, &count));
    }
    return count;
  }

  std::int64_t read(const Query& query, const std::function<void(std::int64_t)>& take) override {
    search(query);
    CZELTA::Object object;
    std::int64_t count = 0;
    for (auto mode = CZELTA::ReadFirst;; mode = CZELTA::ReadNext, ++count) {
      const auto result = database_.ReadObject(kTable, mode, &object, 1, nullptr, nullptr);
      if (result == kNoMore) return count;
      check(result);
      std::int64_t number;
      std::memcpy(&number, object.data, sizeof number);
      take(number);
    }
  }

 private:
  struct IndexOf {
    CZELTA::IndexKind kind;
    std::vector<Segment> segments;
  };

  static std::u16string path(const std::string& folder) {
    return (std::filesystem::absolute(folder) / "bench.zlc").u16string();
  }
  [[nodiscard]] bool hasText() const {
    return content_ == Content::texts || content_ == Content::all;
  }

  void createTable(std::vector<Field> fields, std::vector<IndexOf> wanted) {
    std::vector<Index> indexes(wanted.size());
    for (std::size_t i = 0; i < wanted.size(); ++i) {
      indexes[i] = {};
      indexes[i].indexKind = static_cast<std::uint8_t>(wanted[i].kind);
      indexes[i].segmentCount = static_cast<std::uint16_t>(wanted[i].segments.size());
      indexes[i].segments = wanted[i].segments.data();
    }
    CZELTA::Schema schema = {};
    schema.tableName = u"items";
    schema.fieldCount = static_cast<std::uint32_t>(fields.size());
    schema.fields = fields.data();
    schema.indexCount = static_cast<std::uint16_t>(indexes.size());
    schema.indexes = indexes.data();
    check(database_.BeginTransaction(CZELTA::TransactionExclusive, kTimeout));
    check(database_.CreateTable(&schema, nullptr));
    check(database_.EndTransaction());
  }

  void begin(CZELTA::Mode mode) {
    check(database_.BeginTransaction(mode, kTimeout));
    check(database_.OpenTable(kTable));
  }

  /// Puts a query for words into the language of searches.
  void expression(const Query& query) {
    const std::string& word = query.words[0];
    switch (query.kind) {
      case Query::Kind::word:
        values_.assign("\" ").append(word).append(" \"");
        break;
      case Query::Kind::twoWords:
        values_.assign("\" ").append(word).append(" \" and \" ");
        values_.append(query.words[1]).append(" \"");
        break;
      case Query::Kind::prefix:
        values_.assign("\" ").append(word).append("\"");
        break;
      default:
        values_ = word;
    }
  }

  void check(unsigned long long result) {
    if (result == 0) return;
    const char16_t* message = nullptr;
    database_.GetErrorMessage(&message);
    throw std::runtime_error("zelta: " + std::filesystem::path(message).string());
  }

  CZELTA database_;
  Content content_ = Content::boxes;
  std::string values_;
};

}  // namespace

std::unique_ptr<SearchEngine> makeZeltaSearch() { return std::make_unique<ZeltaSearch>(); }
