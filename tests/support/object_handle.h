// A handle of a database with one table "T", whose objects a test adds, reads and changes. Failures
// are compared by their words and texts, so the operations are called below the exported class.

#ifndef ZELTA_TESTS_SUPPORT_OBJECT_HANDLE_H
#define ZELTA_TESTS_SUPPORT_OBJECT_HANDLE_H

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "frame/lifecycle.h"
#include "frame/upcalls.h"
#include "objects/change/add_object.h"
#include "objects/change/delete_object.h"
#include "objects/change/restore_object.h"
#include "objects/change/rewrite_object.h"
#include "objects/object_buffer.h"
#include "objects/read/read_object.h"
#include "schema/table_create.h"
#include "schema/table_lifecycle.h"
#include "storage/table_file/table_file.h"
#include "support/buffer_table.h"
#include "support/check_database.h"
#include "support/paged_table.h"
#include "support/storage_fixture.h"
#include "transaction/commit/abort.h"
#include "transaction/commit/commit.h"
#include "transaction/slots/begin.h"

namespace zelta::testing {

/// The form of the table under test.
struct ObjectForm {
  Fields fields;
  Indexes indexes;
  std::uint32_t flags = 0;
  std::uint32_t lockIndex = 0;
};

class ObjectHandle {
 public:
  explicit ObjectHandle(const FreshFolder& folder) {
    const std::u16string path = folder.file("db.zlc");
    const Result result = folder.has("db.zlc") ? openDatabase({metaData, tables}, path.c_str())
                                               : createDatabase({metaData, tables}, path.c_str());
    EXPECT_EQ(result.word(), 0u) << error();
  }
  ~ObjectHandle() {
    if (metaData.transactionWord != 0) end();
    closeDatabase({metaData, tables});
    clearError(metaData);
  }
  ObjectHandle(const ObjectHandle&) = delete;
  ObjectHandle& operator=(const ObjectHandle&) = delete;

  void create(const ObjectForm& form) {
    SchemaRecords records(form.fields, form.indexes, form.flags);
    records.schema.lockIndex = static_cast<decltype(records.schema.lockIndex)>(form.lockIndex);
    done(beginTransaction({metaData, tables}, CZELTA::TransactionExclusive, 5000));
    done(createTable({metaData, tables}, &records.schema, nullptr, false));
    end();
  }
  void begin(CZELTA::Mode mode = CZELTA::TransactionShared) {
    done(beginTransaction({metaData, tables}, mode, 5000));
    done(openTable({metaData, tables}, 1));
  }
  void end() { done(endTransaction({metaData, tables})); }
  void commit(bool release = true) { done(commitTransaction({metaData, tables}, release)); }
  void abort(bool release = true) { done(abortTransaction({metaData, tables}, release)); }
  [[nodiscard]] Table& table() { return *findTable(tables, 1); }

  // What an object holds is written and compared as the bytes behind its ID.

  Result add(const std::string& content, long long id = 0) {
    table().currentObjectID = 0;
    put(content);
    return quiet([&] { return addObject({metaData, tables}, table(), nullptr, id); });
  }
  std::uint64_t added(const std::string& content, long long id = 0) {
    done(add(content, id));
    return table().currentObjectID;
  }
  Result read(std::uint64_t id, CZELTA::Mode flags = CZELTA::Mode{}) {
    return find(CZELTA::ReadEqual | flags, 0, &id);
  }
  Result find(CZELTA::Mode mode, std::uint32_t index, const void* key = nullptr) {
    return quiet([&] {
      return readObject({metaData, tables}, table(), {mode, index, key}, &object, &entry);
    });
  }
  /// Reads by a key of 32 bits.
  Result findNumber(std::uint32_t key, std::uint32_t index = 1,
                    CZELTA::Mode mode = CZELTA::ReadEqual) {
    return find(mode, index, &key);
  }
  /// Changes the object in the buffer.
  void change(const std::string& content) {
    const std::uint64_t id = table().currentObjectID;
    const std::string head(table().objectData, table().headerSize());
    put(content);
    std::memcpy(table().objectData, head.data(), head.size());
    table().currentObjectID = id;
  }
  Result rewrite() {
    return quiet([&] { return rewriteObject({metaData, tables}, table(), &object); });
  }
  Result rewrite(const std::string& content) {
    change(content);
    return rewrite();
  }
  /// Reads an object and rewrites it.
  Result rewrite(std::uint64_t id, const std::string& content) {
    ZELTA_TRY(read(id));
    return rewrite(content);
  }
  Result erase(std::uint64_t id, CZELTA::Mode flags = CZELTA::Mode{}) {
    return erase(CZELTA::ReadEqual | flags, 0, &id);
  }
  Result erase(CZELTA::Mode mode, std::uint32_t index, const void* key) {
    return quiet([&] {
      return deleteObject({metaData, tables}, table(), {mode, index, key}, &object, &entry);
    });
  }
  Result restore(long long id, bool unlock = false) {
    return quiet([&] { return restoreObject(table(), id, unlock); });
  }

  void done(Result result) { EXPECT_EQ(result.word(), 0u) << error(); }
  [[nodiscard]] std::string content() const { return contentOf(object); }
  [[nodiscard]] std::string error() const {
    std::string text;
    for (const char16_t* p = metaData.errorMessage; p != nullptr && *p != 0; ++p) {
      text += static_cast<char>(*p);
    }
    return text;
  }
  [[nodiscard]] bool in(UInt64AVLTree* set, std::uint64_t id) const {
    return zelta::find(set, id) != nullptr;
  }
  /// IDs of all objects, by ID (index 0) or in the order of an index.
  [[nodiscard]] std::vector<std::uint64_t> walk(std::uint32_t index,
                                                CZELTA::Mode flags = CZELTA::ReadNoLock) {
    std::vector<std::uint64_t> ids;
    CZELTA::Mode mode = CZELTA::ReadFirst;
    Result result;
    for (; ids.size() < 10000; mode = CZELTA::ReadNext) {
      result = find(mode | flags, index);
      if (result.failed()) break;
      ids.push_back(static_cast<std::uint64_t>(object.objectID));
    }
    EXPECT_EQ(result.word(), ownWord(Own::keyNotFound)) << error();
    return ids;
  }

  MetaData metaData;
  UInt32AVLTree* tables = nullptr;
  CZELTA::Object object{};
  unsigned int entry = 0;

 private:
  template <typename Work>
  Result quiet(Work work) {
    clearError(metaData);
    return work();
  }
  void put(const std::string& content) {
    const std::string whole = std::string(table().headerSize(), '\0') + content;
    reserveObject(table(), static_cast<std::uint32_t>(whole.size()));
    std::memcpy(table().objectData, whole.data(), whole.size());
  }
  [[nodiscard]] static std::string contentOf(const CZELTA::Object& object) {
    return {static_cast<const char*>(object.data), object.length};
  }
};

/// A database with table "T", and a handle of it in a shared transaction.
class ObjectTest : public ::testing::Test {
 protected:
  void make(const Fields& fields, const Indexes& indexes, std::uint32_t flags = 0) {
    make(ObjectForm{fields, indexes, flags, 0});
  }
  void make(const ObjectForm& form) {
    ObjectHandle(folder).create(form);
    one = join();
  }
  /// Another handle, in a shared transaction of its own.
  std::unique_ptr<ObjectHandle> join() {
    auto handle = std::make_unique<ObjectHandle>(folder);
    handle->begin();
    return handle;
  }
  /// Ends all transactions and lets the checker look at what is left.
  void finish() {
    two.reset();
    one.reset();
    expectClean(folder, "db.zlc");
  }
  /// What stands in the memory file.
  [[nodiscard]] MemoryImage pending() const { return MemoryReader(folder.bytes("T.zlm")).read(); }
  /// The root of an index's pending keys (from 0).
  [[nodiscard]] std::uint64_t pendingRoot(std::uint32_t index) const {
    const std::string bytes = folder.bytes("T.zlm");
    const auto indexes = numberAt<std::uint32_t>(bytes, 8);
    return numberAt<std::uint64_t>(bytes, 96 + 8 * std::uint64_t{indexes} + 8 * index);
  }
  /// All files of the table, byte by byte.
  [[nodiscard]] std::string files() const {
    return folder.bytes("T.zlt") + "|" + folder.bytes("T.zlm") + "|" + folder.bytes("T.zli");
  }
  static std::string number(std::uint32_t value) { return Packed().number(value); }
  static std::string rows(std::initializer_list<std::uint32_t> values) {
    Packed packed;
    for (const std::uint32_t value : values) packed.number(value);
    return Packed().binary(packed);
  }
  static constexpr auto kNoWait = CZELTA::ReadNoWait;

  FreshFolder folder;
  std::unique_ptr<ObjectHandle> one;
  std::unique_ptr<ObjectHandle> two;
};

inline const Fields kNumberField = {{CZELTA::TypeUInt32}};
inline const Indexes kNumberIndex = {{Segments{{0, 0}}}};
inline const Fields kRowsField = {{CZELTA::TypeSubRecords, 0, {{CZELTA::TypeUInt32}}}};
inline const Indexes kRowsIndex = {{Segments{{1, 0}}}};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_SUPPORT_OBJECT_HANDLE_H
