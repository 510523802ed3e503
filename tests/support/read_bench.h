// A database with one table whose files are written here by their published layout, and handles
// that read it.

#ifndef ZELTA_TESTS_SUPPORT_READ_BENCH_H
#define ZELTA_TESTS_SUPPORT_READ_BENCH_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "frame/control_file.h"
#include "frame/lifecycle.h"
#include "index/btree/btree.h"
#include "index/file/index_file.h"
#include "objects/read/read_object.h"
#include "storage/memory_file/memory_file.h"
#include "storage/memory_file/memory_file_store.h"
#include "storage/table.h"
#include "storage/table_file/table_file.h"
#include "support/storage_fixture.h"
#include "transaction/slots/begin.h"

namespace zelta::testing {

inline constexpr std::uint32_t kReadTable = 3;

struct ReadForm {
  bool wideIds = false;
  bool texts = true;  ///< a variable field behind the number
  bool lockByKey = false;
  bool lockDescending = false;
};

/// A number, which is the key of index 1, and a text.
struct Row {
  std::uint32_t number = 0;
  std::string text;
};

/// One handle of the database, without the exported class.
class ReadHandle {
 public:
  ReadHandle(const FreshFolder& folder, const ReadForm& form, bool create) : form_(form) {
    const std::u16string path = folder.file("d.zlc");
    const Result result = create ? createDatabase({metaData, tables}, path.c_str())
                                 : openDatabase({metaData, tables}, path.c_str());
    EXPECT_TRUE(result.ok()) << std::hex << result.word();
  }
  ~ReadHandle() { closeDatabase({metaData, tables}); }
  ReadHandle(const ReadHandle&) = delete;
  ReadHandle& operator=(const ReadHandle&) = delete;

  void begin(CZELTA::Mode mode) {
    ASSERT_TRUE(beginTransaction({metaData, tables}, mode, 1000).ok());
    openTable();
  }

  /// Makes the Table as opening it would.
  void openTable() {
    auto made = std::make_unique<Table>(metaData, std::uint16_t{1});
    struct Block {
      CZELTA::Schema schema;
      CZELTA::Schema::Index index;
      CZELTA::Schema::Segment segment;
      CZELTA::Schema::Field fields[2];
    };
    auto* block = static_cast<Block*>(std::calloc(1, sizeof(Block)));
    CZELTA::Schema& schema = block->schema;
    schema.indexCount = 1;
    schema.lockIndex = form_.lockByKey ? 1 : 0;
    schema.schemaFlags = (form_.wideIds ? 1u : 0u) | (form_.lockDescending ? 2u : 0u);
    schema.fieldCount = form_.texts ? 2 : 1;
    schema.tableId = kReadTable;
    schema.tableName = u"T";
    schema.fields = block->fields;
    schema.indexes = &block->index;
    block->fields[0] = {CZELTA::TypeUInt32, 0, 4, 0, u"number", nullptr};
    block->fields[1] = {CZELTA::TypeText, 4, 20, 0, u"text", nullptr};
    block->index.segmentCount = 1;
    block->index.keyWords = 1;
    block->index.segments = &block->segment;
    made->schema = &block->schema;
    made->name = std::u16string(1, u'T');
    made->directory = metaData.directoryPath;
    made->slotBase = kSlotBase;
    made->fixedAreaSize = made->headerSize() + 4;
    made->minimumObjectSize = made->fixedAreaSize + (form_.texts ? 1 : 0);
    made->firstVariableField = form_.texts ? 1 : 0xFFFFFFFF;
    made->tableLockOrder = 5;
    const std::u16string path = databasePath(metaData, u"T", extension::kTable);
    ASSERT_EQ(openDatabaseFile(metaData, path.c_str(), platform::Disposition::openAlways,
                               &made->tableFile),
              0u);
    ASSERT_EQ(createFileMutex(metaData, path, &made->tableMutex), 0u);
    table = made.release();
    insert(table, tables, kReadTable);
  }

  Result read(CZELTA::Mode mode, std::uint32_t index = 0, const void* key = nullptr) {
    clearError(metaData);
    return readObject({metaData, tables}, *table, {mode, index, key}, &object, &entry);
  }
  Result readId(std::uint64_t id, CZELTA::Mode flags = CZELTA::Mode{}) {
    return read(CZELTA::ReadEqual | flags, 0, &id);
  }
  Result readKey(CZELTA::Mode mode, std::uint32_t number) { return read(mode, 1, &number); }

  [[nodiscard]] std::uint32_t number() const {
    std::uint32_t value = 0;
    std::memcpy(&value, object.data, 4);
    return value;
  }
  [[nodiscard]] std::string text() const { return static_cast<const char*>(object.variableData); }
  [[nodiscard]] std::u16string message() const {
    return metaData.errorMessage != nullptr ? metaData.errorMessage : u"";
  }

  /// Puts an object into the memory file as an add or a rewrite of this transaction does.
  void pend(std::uint64_t id, const Row& row, bool added) {
    TableHeader_tag header{};
    AtomicManager manager(*table);
    IndexFileHeader_tag index{};
    MemoryFileHeader_tag memory{};
    TableMutexGuard mutex;
    ASSERT_TRUE(mutex.acquire(*table, 1000).ok());
    ASSERT_TRUE(readTableHeader(metaData, u"T", table->tableFile, header, true).ok());
    ASSERT_TRUE(readMemoryFileHeader(manager, memory, true).ok());
    ASSERT_TRUE(openIndexFile(manager, index, &header, true, true).ok());
    manager.attach(table->indexFile, &index, table->memoryFile, &memory);
    if (added) {
      ASSERT_TRUE(bplusInsert({manager, PageFile::memory, 0}, &row.number, id).ok());
    }
    std::string image = std::string(4, '\0') + encode(form_, id, 1, row);
    ASSERT_TRUE(storeObject(manager, memory, image.data() + 4,
                            static_cast<std::uint32_t>(image.size() - 4), id)
                    .ok());
    new UInt64AVLTree(added ? table->addedObjects : table->editedObjects, id);
    if (!added) {
      ASSERT_EQ(lockObject(table->tableFile, table->slotBase, id), 0u);
    }
  }

  static std::string encode(const ReadForm& form, std::uint64_t id, std::uint16_t version,
                            const Row& row) {
    std::string bytes(2, '\0');
    std::memcpy(bytes.data(), &version, 2);
    bytes.append(reinterpret_cast<const char*>(&id), form.wideIds ? 8 : 4);
    bytes.append(reinterpret_cast<const char*>(&row.number), 4);
    if (form.texts) bytes.append(row.text.c_str(), row.text.size() + 1);
    return bytes;
  }

  static constexpr std::uint32_t kSlotBase = 168 + 24 - 12;

  MetaData metaData;
  UInt32AVLTree* tables = nullptr;
  Table* table = nullptr;
  CZELTA::Object object{};
  std::uint32_t entry = 0;

 private:
  ReadForm form_;
};

class ReadBench {
 public:
  explicit ReadBench(ReadForm theForm = {}) : form(theForm) {
    handles.push_back(std::make_unique<ReadHandle>(folder, form, true));
  }

  /// Writes the table file: a row for each ID, a free slot for the IDs between.
  void write(const std::map<std::uint64_t, Row>& rows) {
    std::uint64_t highest = rows.empty() ? 0 : rows.rbegin()->first;
    const std::uint64_t area = ReadHandle::kSlotBase + 12 * (highest + 60);
    std::string file(area, '\0');
    std::uint64_t free = 0;
    for (std::uint64_t id = highest; id >= 1; --id) {
      std::uint64_t position = (std::uint64_t{1} << 63) | free;
      if (rows.count(id) == 0) {
        free = id;
      } else {
        position = file.size();
        std::string object = ReadHandle::encode(form, id, 7, rows.at(id));
        if (form.texts) {
          const auto length = static_cast<std::uint32_t>(object.size());
          const std::uint32_t block =
              (length + 12 + 15) / 16 * 16 < 48 ? 48 : (length + 27) / 16 * 16;
          std::string record(block, '\0');
          std::memcpy(record.data(), &block, 4);
          std::memcpy(record.data() + 4, &length, 4);
          std::memcpy(record.data() + 8, object.data(), length);
          std::memcpy(record.data() + block - 4, &block, 4);
          object = record;
        }
        file += object;
      }
      std::memcpy(file.data() + ReadHandle::kSlotBase + 12 * id, &position, 8);
    }
    TableHeader_tag header{};
    std::memcpy(header.magic, "ZELT", 4);
    header.majorVersion = 1;
    header.minorVersion = 4;
    header.slotBase = ReadHandle::kSlotBase;
    header.schemaSize = 24;
    header.headerSize = form.wideIds ? 10 : 6;
    header.fixedAreaSize = header.headerSize + 4;
    header.minimumObjectSize = header.fixedAreaSize + (form.texts ? 1 : 0);
    header.defaultObjectSize = form.texts ? 48 : header.fixedAreaSize;
    header.highestID = highest;
    header.firstDeletedID = free;
    header.objectAreaStart = area;
    header.endOfFile = file.size();
    std::memcpy(file.data(), &header, sizeof(header));
    folder.write("T.zlt", file);
    areaStart = area;
  }

  /// Overwrites bytes of the table file.
  void patch(std::uint64_t position, const void* bytes, std::size_t length) {
    std::string file = folder.bytes("T.zlt");
    ASSERT_LE(position + length, file.size());
    std::memcpy(file.data() + position, bytes, length);
    std::fstream out(folder.path() / "T.zlt", std::ios::binary | std::ios::in | std::ios::out);
    out.seekp(static_cast<std::streamoff>(position));
    out.write(static_cast<const char*>(bytes), static_cast<std::streamsize>(length));
  }
  [[nodiscard]] std::uint64_t slotOf(std::uint64_t id) const {
    return ReadHandle::kSlotBase + 12 * id;
  }

  ReadHandle& first() { return *handles[0]; }
  ReadHandle& another() {
    handles.push_back(std::make_unique<ReadHandle>(folder, form, false));
    return *handles.back();
  }

  ReadForm form;
  FreshFolder folder;
  std::vector<std::unique_ptr<ReadHandle>> handles;
  std::uint64_t areaStart = 0;
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_SUPPORT_READ_BENCH_H
