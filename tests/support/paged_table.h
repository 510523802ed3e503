// A table whose files lie in a fresh folder, made without a database, and readers of its memory
// and index files that know the bytes and nothing of the engine's records.

#ifndef ZELTA_TESTS_SUPPORT_PAGED_TABLE_H
#define ZELTA_TESTS_SUPPORT_PAGED_TABLE_H

#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "storage/memory_file/memory_file.h"
#include "storage/memory_file/memory_file_remove.h"
#include "storage/memory_file/memory_file_store.h"
#include "storage/paged/atomic_manager.h"
#include "storage/table.h"
#include "support/storage_fixture.h"

namespace zelta::testing {

/// Table "T" with `indexes` unique B+Trees on one field of 32 bits, in narrow form.
class PagedTable {
 public:
  explicit PagedTable(std::uint16_t indexes = 1) : indexes_(indexes) {
    metaData.directoryPath = folder.path().u16string() + u"/";
    metaData.baseName = u"db";
    metaData.transactionWord = 7;
    reopen();
  }

  /// As another process would see the files.
  void reopen() {
    table = std::make_unique<Table>(metaData, indexes_);
    table->name = u"T";
    table->key = 1;
    table->fixedAreaSize = 10;
    table->minimumObjectSize = 10;
    field_ = {CZELTA::TypeUInt32, 0, 4, 0, u"number", nullptr};
    segment_ = {0, 0};
    definitions_.assign(indexes_, {});
    for (auto& index : definitions_) {
      index.segmentCount = 1;
      index.keyWords = 1;
      index.segments = &segment_;
    }
    table->schema = static_cast<CZELTA::Schema*>(std::calloc(1, sizeof(CZELTA::Schema)));
    table->schema->indexCount = indexes_;
    table->schema->fieldCount = 1;
    table->schema->fields = &field_;
    table->schema->indexes = definitions_.data();
    clearError(metaData);
  }
  ~PagedTable() {
    table.reset();
    clearError(metaData);
  }

  [[nodiscard]] std::u16string error() const {
    return metaData.errorMessage == nullptr ? u"" : metaData.errorMessage;
  }
  [[nodiscard]] CZELTA::Schema::Index& definition(std::uint16_t i) { return definitions_[i]; }

  FreshFolder folder;
  MetaData metaData;
  std::unique_ptr<Table> table;

 private:
  std::uint16_t indexes_;
  CZELTA::Schema::Field field_{};
  CZELTA::Schema::Segment segment_{};
  std::vector<CZELTA::Schema::Index> definitions_;
};

/// One call of an operation on the memory file: header read, manager attached.
class MemorySession {
 public:
  explicit MemorySession(PagedTable& owner, bool mayRecover = true)
      : owner_(owner), manager(*owner.table) {
    result = readMemoryFileHeader(manager, header, mayRecover);
    if (result.ok()) {
      manager.attach(platform::File::none, nullptr, owner.table->memoryFile, &header);
    }
  }
  Result store(std::uint64_t objectID, const std::string& object) {
    std::string bytes = "size" + object;
    return storeObject(manager, header, bytes.data() + 4, static_cast<std::uint32_t>(object.size()),
                       objectID);
  }
  Result remove(std::uint64_t objectID) { return removeObject(manager, header, objectID); }
  Result removeAll(std::uint32_t number, UInt64AVLTree** ids = nullptr) {
    return removeTransaction(manager, header, number, ids);
  }

 private:
  PagedTable& owner_;

 public:
  AtomicManager manager;
  MemoryFileHeader_tag header{};
  Result result;
};

/// What a memory file holds, by its bytes.
struct MemoryImage {
  struct Entry {
    std::uint32_t transaction;
    std::string object;
    bool operator==(const Entry&) const = default;
  };
  std::map<std::uint64_t, Entry> objects;
  std::vector<std::uint64_t> leafCounts;
  std::uint32_t depth = 0;
  std::uint64_t endOfFile = 0;
  std::string damage;  ///< what is wrong, empty if all is well
};

class MemoryReader {
 public:
  explicit MemoryReader(std::string bytes) : bytes_(std::move(bytes)) {}

  MemoryImage read() {
    const std::uint32_t indexes = number<std::uint32_t>(8);
    if (bytes_.substr(0, 4) != "ZELM") damaged("magic");
    if (number<std::uint16_t>(4) != 1 || number<std::uint16_t>(6) != 1) damaged("version");
    headerEnd_ = 96 + 16 * std::uint64_t{indexes};
    image_.endOfFile = number<std::uint64_t>(24);
    if (number<std::uint64_t>(48) != 0) damaged("a journal stands");
    const std::uint64_t root = number<std::uint64_t>(88 + 8 * indexes);
    if (root != 0) page(root, 1, 0, ~0ull);
    if (lastLeaf_ != 0 && number<std::uint64_t>(lastLeaf_ + 16) != 0) damaged("last leaf's next");
    freeChain();
    account();
    return image_;
  }

 private:
  template <class Number>
  Number number(std::uint64_t at) {
    Number value{};
    if (at + sizeof(value) > bytes_.size()) {
      damaged("no bytes at " + std::to_string(at));
      return value;
    }
    std::memcpy(&value, bytes_.data() + at, sizeof(value));
    return value;
  }
  void damaged(const std::string& what) {
    if (image_.damage.empty()) image_.damage = what;
  }
  void occupy(std::uint64_t position, std::uint64_t size) {
    if (!blocks_.emplace(position, size).second) damaged("two blocks at one place");
  }
  void page(std::uint64_t position, std::uint32_t depth, std::uint64_t low, std::uint64_t high) {
    if (depth > 20 || !image_.damage.empty()) return;
    occupy(position, 2048);
    if (number<std::uint32_t>(position) != 2040) damaged("page size");
    const auto kind = number<std::uint16_t>(position + 4);
    const auto count = number<std::uint16_t>(position + 6);
    if (kind == 28265) {
      inner(position, depth, low, high, count);
    } else if (kind == 27753) {
      leaf(position, depth, low, high, count);
    } else {
      damaged("page kind");
    }
  }
  void inner(std::uint64_t position, std::uint32_t depth, std::uint64_t low, std::uint64_t high,
             std::uint32_t count) {
    if (count > 126) return damaged("inner count");
    for (std::uint32_t i = 0; i <= count; ++i) {
      const std::uint64_t from = i == 0 ? low : number<std::uint64_t>(position + 16 + 8 * (i - 1));
      const std::uint64_t to = i == count ? high : number<std::uint64_t>(position + 16 + 8 * i);
      if (from > to) damaged("keys not ascending");
      page(number<std::uint64_t>(position + 1024 + 8 * i), depth + 1, from, to);
    }
  }
  void leaf(std::uint64_t position, std::uint32_t depth, std::uint64_t low, std::uint64_t high,
            std::uint32_t count) {
    if (image_.depth == 0) image_.depth = depth;
    if (image_.depth != depth) damaged("leaves at different depths");
    if (count == 0 || count > 84) damaged("leaf count");
    if (number<std::uint64_t>(position + 8) != lastLeaf_) damaged("leaf's previous");
    if (lastLeaf_ != 0 && number<std::uint64_t>(lastLeaf_ + 16) != position) {
      damaged("leaf's next");
    }
    lastLeaf_ = position;
    image_.leafCounts.push_back(count);
    for (std::uint32_t i = 0; i < count; ++i) {
      const auto id = number<std::uint64_t>(position + 24 + 8 * i);
      if (id < low || id >= high) damaged("ID on the wrong page");
      record(id, number<std::uint32_t>(position + 696 + 4 * i),
             number<std::uint32_t>(position + 1032 + 4 * i),
             number<std::uint64_t>(position + 1368 + 8 * i));
    }
  }
  void record(std::uint64_t id, std::uint32_t transaction, std::uint32_t length,
              std::uint64_t position) {
    const auto size = number<std::uint32_t>(position);
    if (size < 32 || size % 16 != 0 || size < length + 4) damaged("record size");
    occupy(position, size);
    if (position + 4 + length > bytes_.size()) return damaged("record behind the end");
    if (!image_.objects
             .emplace(id, MemoryImage::Entry{transaction, bytes_.substr(position + 4, length)})
             .second) {
      damaged("ID twice");
    }
  }
  void freeChain() {
    std::uint64_t position = number<std::uint64_t>(16);
    std::uint64_t last = 0;
    while (position != 0 && image_.damage.empty()) {
      if (position <= last) return damaged("chain not ascending");
      last = position;
      if (number<std::uint32_t>(position + 4) != 0xFFFFFFFF) return damaged("free marker");
      occupy(position, number<std::uint32_t>(position));
      position = number<std::uint64_t>(position + 8);
    }
  }
  /// Every byte behind the header belongs to one page, record or free block.
  void account() {
    std::uint64_t at = headerEnd_;
    for (const auto& [position, size] : blocks_) {
      if (!image_.damage.empty()) return;
      if (position != at) {
        return damaged("gap or overlap before " + std::to_string(position) + ", expected " +
                       std::to_string(at));
      }
      at += size;
    }
    if (at != image_.endOfFile) damaged("end of file");
  }

  std::string bytes_;
  std::uint64_t headerEnd_ = 0;
  std::uint64_t lastLeaf_ = 0;
  std::map<std::uint64_t, std::uint64_t> blocks_;
  MemoryImage image_;
};

inline MemoryImage readMemoryImage(const PagedTable& owner) {
  return MemoryReader(owner.folder.bytes("T.zlm")).read();
}

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_SUPPORT_PAGED_TABLE_H
