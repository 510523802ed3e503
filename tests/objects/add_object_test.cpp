// Adding objects: their IDs, their keys, what a failure leaves, and other transactions meanwhile.

#include "objects/change/add_object.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

#include "frame/lifecycle.h"
#include "frame/upcalls.h"
#include "objects/change/delete_object.h"
#include "schema/table_create.h"
#include "schema/table_lifecycle.h"
#include "storage/table_file/table_file.h"
#include "support/buffer_table.h"
#include "support/check_database.h"
#include "support/paged_table.h"
#include "transaction/commit/abort.h"
#include "transaction/commit/commit.h"
#include "transaction/slots/begin.h"

namespace zelta {
namespace {

using testing::Fields;
using testing::FreshFolder;
using testing::Indexes;
using testing::ownWord;
using testing::Packed;
using testing::SchemaRecords;
using testing::Segments;

/// A handle as the exported operations have it, with its records open to the test.
class Handle {
 public:
  explicit Handle(const FreshFolder& folder, CZELTA::Mode mode = CZELTA::TransactionShared)
      : path_(folder.file("db.zlc")) {
    const bool exists = folder.has("db.zlc");
    EXPECT_EQ((exists ? openDatabase({metaData, tables}, path_.c_str())
                      : createDatabase({metaData, tables}, path_.c_str()))
                  .word(),
              0u)
        << error();
    begin(mode);
  }
  ~Handle() {
    end();
    closeDatabase({metaData, tables});
    clearError(metaData);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  void begin(CZELTA::Mode mode) {
    EXPECT_EQ(beginTransaction({metaData, tables}, mode, 5000).word(), 0u) << error();
  }
  void end() {
    if (metaData.transactionWord != 0) {
      EXPECT_EQ(endTransaction({metaData, tables}).word(), 0u);
    }
  }
  void commit() { EXPECT_EQ(commitTransaction({metaData, tables}, true).word(), 0u) << error(); }
  void abort() { EXPECT_EQ(abortTransaction({metaData, tables}, true).word(), 0u) << error(); }
  void create(const Fields& fields, const Indexes& indexes, std::uint32_t flags = 0) {
    const SchemaRecords records(fields, indexes, flags);
    unsigned int id = 0;
    ASSERT_EQ(createTable({metaData, tables}, &records.schema, &id, false).word(), 0u) << error();
    ASSERT_EQ(id, 1u);
  }
  void open() { ASSERT_EQ(openTable({metaData, tables}, 1).word(), 0u) << error(); }
  [[nodiscard]] Table& table() { return *findTable(tables, 1); }

  /// Puts fixed and variable fields into the buffer.
  void put(const std::string& fields) {
    const std::string object = std::string(table().headerSize(), '\0') + fields;
    reserveObject(table(), static_cast<std::uint32_t>(object.size()));
    std::memcpy(table().objectData, object.data(), object.size());
  }
  Result add(const std::string& fields, long long id = 0) {
    put(fields);
    clearError(metaData);
    return addObject({metaData, tables}, table(), nullptr, id);
  }
  /// Adds and gives the ID; 0 after a failure.
  std::uint64_t added(const std::string& fields, long long id = 0) {
    const Result result = add(fields, id);
    EXPECT_EQ(result.word(), 0u) << error();
    return result.ok() ? table().currentObjectID : 0;
  }
  [[nodiscard]] std::string error() const {
    std::string text;
    for (const char16_t* p = metaData.errorMessage; p != nullptr && *p != 0; ++p) {
      text += static_cast<char>(*p);
    }
    return text;
  }

  MetaData metaData;
  UInt32AVLTree* tables = nullptr;

 private:
  std::u16string path_;
};

std::string number(std::uint32_t value) { return Packed().number(value); }

const Fields kNumber = {{CZELTA::TypeUInt32}};
const Indexes kUnique = {{Segments{{0, 0}}}};

/// A database with table "T", in a shared transaction.
class AddObject : public ::testing::Test {
 protected:
  void TearDown() override {
    one.reset();
    testing::expectClean(folder, "db.zlc");
  }
  void make(const Fields& fields, const Indexes& indexes, std::uint32_t flags = 0) {
    {
      Handle creator(folder, CZELTA::TransactionExclusive);
      creator.create(fields, indexes, flags);
    }
    one = join();
  }
  std::unique_ptr<Handle> join() {
    auto handle = std::make_unique<Handle>(folder);
    handle->open();
    return handle;
  }
  [[nodiscard]] testing::MemoryImage pending() const {
    return testing::MemoryReader(folder.bytes("T.zlm")).read();
  }
  /// All files of the table, byte by byte.
  [[nodiscard]] std::string files() const {
    return folder.bytes("T.zlt") + "|" + folder.bytes("T.zlm") + "|" + folder.bytes("T.zli");
  }

  FreshFolder folder;
  std::unique_ptr<Handle> one;
};

// -- IDs ------------------------------------------------------------------------------------------

TEST_F(AddObject, IntoAnEmptyTableGivesTheIDsInTurn) {
  make(kNumber, {});
  const std::string tableFile = folder.bytes("T.zlt");
  CZELTA::Object object{};
  one->put(number(77));
  ASSERT_TRUE(addObject({one->metaData, one->tables}, one->table(), &object, 0).ok());
  EXPECT_EQ(object.objectID, 1);
  EXPECT_EQ(object.version, 1);
  EXPECT_EQ(object.length, 4u);
  EXPECT_EQ(one->table().currentObjectID, 1u);
  EXPECT_EQ(one->added(number(78)), 2u);
  EXPECT_EQ(one->table().addedCount, 2u);
  EXPECT_NE(find(one->table().addedObjects, std::uint64_t{1}), nullptr);
  EXPECT_NE(find(one->table().addedObjects, std::uint64_t{2}), nullptr);
  EXPECT_EQ(folder.bytes("T.zlt"), tableFile);
  const testing::MemoryImage image = pending();
  EXPECT_EQ(image.damage, "");
  ASSERT_EQ(image.objects.size(), 2u);
  const std::string expected = Packed().number(std::uint16_t{1}).number(1u).number(77u);
  EXPECT_EQ(image.objects.at(1).object, expected);
  EXPECT_EQ(image.objects.at(1).transaction, one->metaData.transactionWord);
}

TEST_F(AddObject, TakesFreeIDsInAscendingOrder) {
  make(kNumber, {});
  for (const long long id : {1, 2, 4, 6}) one->added(number(0), id);
  one->commit();
  EXPECT_EQ(one->added(number(0)), 3u);
  EXPECT_EQ(one->added(number(0)), 5u);
  EXPECT_EQ(one->added(number(0)), 7u);
  EXPECT_EQ(one->added(number(0)), 8u);
  one->commit();
  EXPECT_EQ(one->added(number(0)), 9u);
}

TEST_F(AddObject, AnIDFarAboveLeavesTheOnesBelowFree) {
  make(kNumber, {});
  EXPECT_EQ(one->added(number(0), 10), 10u);
  one->commit();
  EXPECT_EQ(one->added(number(0)), 1u);
  EXPECT_EQ(one->added(number(0)), 2u);
}

TEST_F(AddObject, SkipsAFreeIDThatAnotherTransactionTook) {
  make(kNumber, {});
  one->added(number(0), 3);
  one->commit();
  auto two = join();
  EXPECT_EQ(one->added(number(0)), 1u);
  EXPECT_EQ(two->added(number(0)), 2u);
  EXPECT_EQ(one->added(number(0)), 4u);
  EXPECT_EQ(two->added(number(0)), 5u);
  one->abort();
  EXPECT_EQ(two->added(number(0)), 1u);
}

TEST_F(AddObject, AnotherOnesPendingIDHoldsTheRangeBack) {
  make(kNumber, {});
  auto two = join();
  EXPECT_EQ(two->added(number(0), 50), 50u);
  EXPECT_EQ(one->added(number(0)), 51u);
}

TEST_F(AddObject, RefusesAnIDInUse) {
  make(kNumber, {});
  auto two = join();
  one->added(number(0));
  one->commit();
  one->added(number(0));
  two->added(number(0));
  for (const long long id : {1, 2, 3}) {
    EXPECT_EQ(one->add(number(0), id).word(), ownWord(Own::idExists)) << id;
    EXPECT_EQ(one->table().currentObjectID, 0u);
  }
  EXPECT_EQ(one->error(),
            "Unable to add object with requested ID into table T. ObjectID 3 already exists in "
            "table.");
  EXPECT_EQ(one->added(number(0), 4), 4u);
}

TEST_F(AddObject, RefusesIDsThatCannotBe) {
  make(kNumber, {});
  const std::string before = files();
  for (const long long id : {-1ll, 0x100000000ll, 0x7FFFFFFFFFFFFFFFll}) {
    EXPECT_EQ(one->add(number(0), id).word(), ownWord(Own::parameter)) << id;
  }
  EXPECT_EQ(files(), before);
}

TEST_F(AddObject, WideIDsGoBeyond32Bits) {
  make(kNumber, kUnique, CZELTA::SchemaWideObjectIds);
  EXPECT_EQ(one->added(number(7)), 1u);
  EXPECT_EQ(pending().objects.at(1).object,
            Packed().number(std::uint16_t{1}).number(std::uint64_t{1}).number(7u).str());
  EXPECT_EQ(one->add(number(0), -1).word(), ownWord(Own::parameter));
  EXPECT_EQ(one->added(number(8), 0x123456789ll), 0x123456789u);
  EXPECT_EQ(one->added(number(9)), 0x12345678Au);
}

TEST_F(AddObject, TheLastIDHasNoSuccessor) {
  make(kNumber, {});
  EXPECT_EQ(one->added(number(0), 0xFFFFFFFFll), 0xFFFFFFFFu);
  EXPECT_EQ(one->add(number(0)).word(), ownWord(Own::idExists));
}

TEST_F(AddObject, ByAListOfFreeIDsThatIsDamagedIsError47) {
  make(kNumber, {});
  for (int i = 0; i < 6; ++i) one->added(number(0));
  one->commit();
  for (std::uint64_t id : {3u, 5u}) {
    ASSERT_TRUE(deleteObject({one->metaData, one->tables}, one->table(),
                             {CZELTA::ReadEqual, 0, &id}, nullptr, nullptr)
                    .ok());
  }
  one->commit();
  one->end();
  const std::string sound = folder.bytes("T.zlt");
  const auto slot = testing::numberAt<std::uint32_t>(sound, 8) + 3 * 12u;
  const auto used = testing::numberAt<std::uint64_t>(sound, slot - 12);
  for (const std::uint64_t wrong : {used, kFreeSlot | 2, kFreeSlot | 3}) {
    std::string bytes = sound;
    std::memcpy(bytes.data() + slot, &wrong, sizeof wrong);
    folder.write("T.zlt", bytes);
    one->begin(CZELTA::TransactionShared);
    one->open();
    if (wrong != used) one->added(number(0));  // the link counts for the second
    EXPECT_EQ(one->add(number(0)).word(), ownWord(Own::deleteList));
    EXPECT_EQ(
        one->error().find("Table T has become corrupted.\nDelete ID list is no longer valid."), 0u)
        << one->error();
    one->end();
  }
  folder.write("T.zlt", sound);
}

// -- Refusals before any file ---------------------------------------------------------------------

TEST_F(AddObject, WithoutAnObjectIsError39) {
  make(kNumber, {});
  EXPECT_EQ(addObject({one->metaData, one->tables}, one->table(), nullptr, 0).word(),
            ownWord(Own::noObject));
}

TEST_F(AddObject, OfAMalformedObjectOpensNoFile) {
  make({{CZELTA::TypeText}}, kUnique);
  one->table().currentObjectID = 9;
  const std::string before = files();
  EXPECT_EQ(one->add("no end").word(), ownWord(Own::variableField));
  EXPECT_EQ(files(), before);
  EXPECT_EQ(one->table().memoryFile, platform::File::none);
  EXPECT_EQ(one->table().indexFile, platform::File::none);
  EXPECT_EQ(one->table().currentObjectID, 0u);
}

// -- Unique keys ----------------------------------------------------------------------------------

TEST_F(AddObject, RefusesAKeyThatExists) {
  make(kNumber, kUnique);
  auto two = join();
  EXPECT_EQ(one->added(number(5)), 1u);
  const std::string before = files();
  EXPECT_EQ(one->add(number(5)).word(), ownWord(Own::keyExists));  // pending here
  EXPECT_EQ(one->error(),
            "Unable to add/edit/restore object in T.\nIndex key value already exists in index 1 "
            "with object 1.");
  EXPECT_EQ(two->add(number(5)).word(), ownWord(Own::keyExists));  // pending in another
  EXPECT_EQ(files(), before);
  one->commit();
  EXPECT_EQ(one->add(number(5)).word(), ownWord(Own::keyExists));  // committed
  EXPECT_EQ(two->add(number(5)).word(), ownWord(Own::keyExists));
  EXPECT_EQ(one->table().addedCount, 0u);
  EXPECT_EQ(two->added(number(6)), 2u);
}

TEST_F(AddObject, ATransactionThatAbortsGivesItsKeysBack) {
  make(kNumber, kUnique);
  auto two = join();
  one->added(number(5));
  EXPECT_EQ(two->add(number(5)).word(), ownWord(Own::keyExists));
  one->abort();
  EXPECT_EQ(two->added(number(5)), 1u);
}

TEST_F(AddObject, AFailureInTheLastIndexLeavesNothing) {
  make({{CZELTA::TypeUInt32}, {CZELTA::TypeUInt32}, {CZELTA::TypeUInt32}},
       {{Segments{{0, 0}}}, {Segments{{1, 0}}}, {Segments{{2, 0}}}});
  const auto object = [](std::uint32_t a, std::uint32_t b, std::uint32_t c) {
    return Packed().number(a).number(b).number(c).str();
  };
  one->added(object(1, 1, 1));
  const std::string before = files();
  EXPECT_EQ(one->add(object(2, 2, 1)).word(), ownWord(Own::keyExists));
  EXPECT_EQ(files(), before);
  EXPECT_EQ(one->table().addedCount, 1u);
  EXPECT_EQ(one->added(object(2, 2, 2)), 2u);  // the first two keys are free
}

TEST_F(AddObject, RowsHaveAKeyEach) {
  make({{CZELTA::TypeSubRecords, 0, {{CZELTA::TypeUInt32}}}}, {{Segments{{1, 0}}}});
  const auto object = [](std::uint32_t from, std::uint32_t count) {
    Packed rows;
    for (std::uint32_t i = 0; i < count; ++i) rows.number(from + i);
    return Packed().binary(rows).str();
  };
  EXPECT_EQ(one->added(object(0, 0)), 1u);     // no row, no key
  EXPECT_EQ(one->added(object(100, 50)), 2u);  // more than one block of entries
  EXPECT_EQ(one->add(object(149, 1)).word(), ownWord(Own::keyExists));
  EXPECT_EQ(one->add(object(50, 51)).word(), ownWord(Own::keyExists));
  EXPECT_EQ(one->added(object(50, 50)), 3u);
  one->commit();
  EXPECT_EQ(one->add(object(120, 1)).word(), ownWord(Own::keyExists));
}

TEST_F(AddObject, TwoEqualRowsAreError37AndLeaveNothing) {
  make({{CZELTA::TypeSubRecords, 0, {{CZELTA::TypeUInt32}}}}, {{Segments{{1, 0}}}});
  one->added(Packed().binary(number(1)));
  const std::string before = files();
  EXPECT_EQ(one->add(Packed().binary(number(7) + number(8) + number(7))).word(),
            ownWord(Own::keyExists));
  EXPECT_EQ(files(), before);
  EXPECT_EQ(one->added(Packed().binary(number(7) + number(8))), 2u);
}

TEST_F(AddObject, AMissingKeyIsError39) {
  make({{CZELTA::TypePoints2}, {CZELTA::TypeText}}, {{Segments{{1, 0}}}});
  EXPECT_EQ(one->add(Packed().number(0u).text("a")).word(), ownWord(Own::noObject));
}

// -- Keys that the transaction has given up -------------------------------------------------------

/// Deletes an object, whose one key is what the transaction has given up then.
ObjectKeyNode* giveUp(Handle& handle, std::uint64_t id) {
  EXPECT_EQ(deleteObject({handle.metaData, handle.tables}, handle.table(),
                         {CZELTA::ReadEqual, 0, &id}, nullptr, nullptr)
                .word(),
            0u)
      << handle.error();
  EXPECT_EQ(count(handle.table().indexStates[0].removedKeys), 1u);
  return handle.table().indexStates[0].removedKeys;
}

TEST_F(AddObject, TakesAKeyThatItsTransactionGaveUp) {
  make(kNumber, kUnique);
  one->added(number(5));
  one->commit();
  const ObjectKeyNode* node = giveUp(*one, 1);
  EXPECT_EQ(one->added(number(5)), 2u);
  const IndexCursor& cursor = one->table().indexStates[0];
  EXPECT_EQ(cursor.removedKeys, nullptr);
  ASSERT_EQ(cursor.replacedKeys, node);
  EXPECT_EQ(node->objectID, 2u);
  EXPECT_EQ(node->extra, 1u);
  EXPECT_EQ(*node->key, 5u);
  // It is lent now, and the object that has it is named.
  EXPECT_EQ(one->add(number(5)).word(), ownWord(Own::keyExists));
  EXPECT_EQ(one->error(),
            "Unable to add/edit/restore object in T.\nIndex key value already exists in index 1 "
            "with object 2.");
  one->commit();
  EXPECT_EQ(one->add(number(5)).word(), ownWord(Own::keyExists));
  EXPECT_EQ(one->added(number(6)), 1u);
}

TEST_F(AddObject, AKeyGivenUpStaysSoIfTheAddFails) {
  make({{CZELTA::TypeUInt32}, {CZELTA::TypeUInt32}}, {{Segments{{0, 0}}}, {Segments{{1, 0}}}});
  one->added(number(5) + number(1));
  one->added(number(6) + number(2));
  one->commit();
  const ObjectKeyNode* node = giveUp(*one, 1);
  EXPECT_EQ(one->add(number(5) + number(2)).word(), ownWord(Own::keyExists));
  EXPECT_EQ(one->table().indexStates[0].removedKeys, node);
  EXPECT_EQ(node->objectID, 1u);
  EXPECT_EQ(one->table().indexStates[0].replacedKeys, nullptr);
  one->commit();
  EXPECT_EQ(one->added(number(5) + number(1)), 1u);
}

TEST_F(AddObject, TwoRowsCannotShareAKeyGivenUp) {
  make({{CZELTA::TypeSubRecords, 0, {{CZELTA::TypeUInt32}}}}, {{Segments{{1, 0}}}});
  one->added(Packed().binary(number(7)));
  one->commit();
  const ObjectKeyNode* node = giveUp(*one, 1);
  EXPECT_EQ(one->add(Packed().binary(number(7) + number(7))).word(), ownWord(Own::keyExists));
  EXPECT_EQ(one->table().indexStates[0].removedKeys, node);
  EXPECT_EQ(one->added(Packed().binary(number(7) + number(8))), 2u);
  one->commit();
}

// -- Others ---------------------------------------------------------------------------------------

TEST_F(AddObject, AnIDWhoseSlotStaysLockedIsError27) {
  make(kNumber, {});
  one->added(number(0));
  one->commit();
  auto two = join();
  const platform::LockWord word = objectLock(two->table().slotBase, 1);
  ASSERT_EQ(platform::lockWord(two->table().tableFile, word), 0u);
  EXPECT_EQ(one->add(number(0), 1).word(), ownWord(Own::objectLocked));
  EXPECT_EQ(one->error(), "Unable to gain lock on object 1 in table T.");
  EXPECT_EQ(platform::unlockWord(two->table().tableFile, word), 0u);
  EXPECT_EQ(one->add(number(0), 1).word(), ownWord(Own::idExists));
}

TEST_F(AddObject, HandlesInManyThreadsShareIDsAndKeysOut) {
  make({{CZELTA::TypeUInt32}, {CZELTA::TypeText}}, {{Segments{{0, 0}}}, {Segments{{1, 0}}}});
  constexpr std::uint32_t kKeys = 120;
  constexpr int kThreads = 3;
  std::atomic<std::uint32_t> taken{0};
  std::atomic<int> others{0};
  std::vector<std::set<std::uint64_t>> ids(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const auto handle = join();
      for (std::uint32_t i = 0; i < kKeys; ++i) {
        const std::uint32_t key = t % 2 == 0 ? i : kKeys - 1 - i;
        const Result result = handle->add(Packed().number(key).text(std::to_string(key)));
        if (result.ok()) {
          ++taken;
          ids[static_cast<std::size_t>(t)].insert(handle->table().currentObjectID);
        } else if (!result.is(Own::keyExists)) {
          ++others;
        }
        if (i % 10 == 9) handle->commit();
      }
      handle->commit();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(others, 0);
  EXPECT_EQ(taken, kKeys);
  std::set<std::uint64_t> all;
  for (const auto& some : ids) all.insert(some.begin(), some.end());
  EXPECT_EQ(all.size(), kKeys);
  EXPECT_EQ(*all.rbegin(), kKeys);
  EXPECT_EQ(pending().objects.size(), 0u);
}

TEST_F(AddObject, AgainTakesANewIDForTheSameObject) {
  make(kNumber, {});
  EXPECT_EQ(one->added(number(3)), 1u);
  ASSERT_TRUE(addObject({one->metaData, one->tables}, one->table(), nullptr, 0).ok());
  EXPECT_EQ(one->table().currentObjectID, 2u);
}

}  // namespace
}  // namespace zelta
