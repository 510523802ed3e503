#include <czelta.h>

#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "engine.h"

namespace {

constexpr unsigned kTable = 1;
constexpr unsigned kTimeout = 60000;

class ZeltaEngine final : public Engine {
 public:
  void create(const std::string& folder) override {
    check(database_.CreateDatabase(path(folder).c_str()));
    CZELTA::Schema::Field fields[] = {
        {CZELTA::TypeInt64, 0, 0, 0, u"number", nullptr},
        {CZELTA::TypeDouble, 0, 0, 0, u"value", nullptr},
        {CZELTA::TypeInt32, 0, 0, 0, u"x", nullptr},
        {CZELTA::TypeInt32, 0, 0, 0, u"y", nullptr},
        {CZELTA::TypeText, 0, 17, 0, u"key", nullptr},
        {CZELTA::TypeText, 0, 71, 0, u"text", nullptr},
    };
    CZELTA::Schema::Segment segment[] = {{4, 0}};
    CZELTA::Schema::Index index = {};
    index.segmentCount = 1;
    index.segments = segment;
    CZELTA::Schema schema = {};
    schema.tableName = u"items";
    schema.fieldCount = 6;
    schema.fields = fields;
    schema.indexCount = 1;
    schema.indexes = &index;
    check(database_.BeginTransaction(CZELTA::TransactionExclusive, kTimeout));
    check(database_.CreateTable(&schema, nullptr));
    check(database_.EndTransaction());
  }

  void open(const std::string& folder) override {
    check(database_.OpenDatabase(path(folder).c_str()));
  }

  void beginWrite() override { begin(CZELTA::TransactionShared); }
  void beginRead() override { begin(CZELTA::TransactionRead); }

  void add(const Item& item) override {
    CZELTA::Object object;
    check(database_.NewObject(kTable, &object, 0));
    std::memcpy(object.data, &item.number, 8);
    putNumbers(object, item);
    values_.assign(item.key).append(1, '\0').append(item.text).append(1, '\0');
    check(database_.PutVariableValues(kTable, values_.data(), static_cast<unsigned>(values_.size()),
                                      0, 2, nullptr));
    check(database_.AddObject(kTable, nullptr, 0));
  }

  void update(std::int64_t id, const Item& item) override {
    CZELTA::Object object;
    check(database_.ReadObject(kTable, id, &object));
    putNumbers(object, item);
    values_.assign(item.text).append(1, '\0');
    check(database_.PutVariableValues(kTable, values_.data(), static_cast<unsigned>(values_.size()),
                                      1, 1, nullptr));
    check(database_.RewriteObject(kTable, nullptr));
  }
  void remove(std::int64_t id) override { check(database_.DeleteObject(kTable, id, nullptr)); }

  void commit() override {
    check(database_.CommitTransaction(true));
    check(database_.EndTransaction());
  }
  void endRead() override { check(database_.EndTransaction()); }

  std::int64_t readById(std::int64_t id) override {
    CZELTA::Object object;
    check(database_.ReadObject(kTable, id, &object));
    return number(object);
  }

  std::int64_t readByKey(const std::string& key) override {
    CZELTA::Object object;
    check(database_.ReadObject(kTable, CZELTA::ReadEqual, &object, 1, key.c_str(), nullptr));
    return number(object);
  }

  std::int64_t scan() override {
    constexpr unsigned long long kNoMore = 0x100000020;  // own code 32
    CZELTA::Object object;
    std::int64_t count = 0;
    auto mode = CZELTA::ReadFirst;
    for (;; ++count, mode = CZELTA::ReadNext) {
      const auto result = database_.ReadObject(kTable, mode, &object, 1, nullptr, nullptr);
      if (result == kNoMore) return count;
      check(result);
      number(object);
    }
  }

 private:
  static std::u16string path(const std::string& folder) {
    return (std::filesystem::absolute(folder) / "bench.zlc").u16string();
  }
  void begin(CZELTA::Mode mode) {
    check(database_.BeginTransaction(mode, kTimeout));
    check(database_.OpenTable(kTable));
  }
  static void putNumbers(const CZELTA::Object& object, const Item& item) {
    char* data = static_cast<char*>(object.data);
    std::memcpy(data + 8, &item.value, 8);
    std::memcpy(data + 16, &item.x, 4);
    std::memcpy(data + 20, &item.y, 4);
  }
  std::int64_t number(const CZELTA::Object& object) {
    std::int64_t out;
    std::memcpy(&out, object.data, 8);
    const char* texts = static_cast<const char*>(object.variableData);
    if (std::strlen(texts + std::strlen(texts) + 1) != 70)
      throw std::runtime_error("a text is damaged");
    return out;
  }
  void check(unsigned long long result) {
    if (result == 0) return;
    const char16_t* message = nullptr;
    database_.GetErrorMessage(&message);
    throw std::runtime_error(std::filesystem::path(message).string());
  }

  CZELTA database_;
  std::string values_;
};

}  // namespace

std::unique_ptr<Engine> makeZelta() { return std::make_unique<ZeltaEngine>(); }
