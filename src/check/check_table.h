// A table while it is checked: its file, its schema, the keys of its objects.

#ifndef ZELTA_CHECK_CHECK_TABLE_H
#define ZELTA_CHECK_CHECK_TABLE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "check/check_internal.h"
#include "check/check_object.h"
#include "frame/metadata.h"
#include "storage/table.h"

namespace zelta::check {

/// A key that an object has, or an entry that an index has. Keys are compared by their hashes.
struct KeyTrace {
  std::uint64_t hash;
  std::uint64_t objectID;
  std::uint64_t offset;  ///< of the record in the table file, or of the key in the index file
};

[[nodiscard]] std::uint64_t hashKey(const std::uint32_t* key, std::uint32_t words);

/// The numbers of a table file's header.
struct TableFacts {
  std::uint32_t slotBase = 0;
  std::uint32_t schemaSize = 0;
  std::uint32_t headerSize = 0;
  std::uint32_t fixedAreaSize = 0;
  std::uint32_t minimumObjectSize = 0;
  std::uint32_t defaultObjectSize = 0;
  std::uint64_t highestID = 0;
  std::uint64_t firstDeletedID = 0;
  std::uint64_t areaStart = 0;
  std::uint64_t freeHead = 0;
  std::uint64_t end = 0;
  [[nodiscard]] bool fixed() const { return fixedAreaSize == minimumObjectSize; }
  [[nodiscard]] std::uint64_t slot(std::uint64_t id) const { return slotBase + 12 * id; }
};

class TableCheck {
 public:
  TableCheck(Findings& findings, const std::u16string& folder, const DirectoryTable& entry);

  void run();

 private:
  // check_table.cpp
  bool checkHeader();
  bool checkNumbers();
  void checkCommit();
  bool checkSchema();
  bool compareSizes(const std::string& block, const CZELTA::Schema& schema);
  // check_records.cpp
  void checkObjects();
  void checkSlots();
  void checkFreeSlot(std::uint64_t id, std::uint64_t word);
  void checkUsedSlot(std::uint64_t id, std::uint64_t position);
  bool walkFixed();
  bool walkVariable();
  bool walkBlock(std::uint64_t position, std::uint64_t* size);
  void walkFree(std::uint64_t position);
  void checkRecord(std::uint64_t position, std::uint64_t objectOffset, std::uint64_t length);
  void takePlaceholder(std::uint64_t objectOffset);
  void takeKeys(std::uint64_t id, std::uint64_t position, const char* object, std::uint32_t length);
  void takeIndexKeys(std::uint32_t index, std::uint64_t id, std::uint64_t position,
                     const char* object, std::uint32_t length);
  // check_index.cpp
  void checkIndexFile();
  bool checkIndexHeader(CheckFile& file);
  void checkIndexTrees(CheckFile& file);
  bool checkIndexTree(CheckFile& file, std::uint32_t index, std::vector<Extent>& extents);
  void compareKeys(const CheckFile& file, std::uint32_t index, std::uint64_t rootOffset,
                   std::vector<KeyTrace>& entries);
  [[nodiscard]] TreePlace treePlace(std::uint32_t index) const;
  // check_memory.cpp
  void checkMemoryFile();
  void checkMemoryTrees(CheckFile& file);

  Findings& findings_;
  const DirectoryTable& entry_;
  std::u16string folder_;
  CheckFile file_;
  CheckFile slots_;  ///< the same file: slots and records are read in turn
  TableFacts facts_;
  MetaData metaData_;
  Table table_{0};
  std::vector<std::uint64_t> records_;       ///< positions of records, ascending
  std::vector<std::uint64_t> placeholders_;  ///< IDs of objects whose content is still in the log
  bool recordsComplete_ = false;
  std::uint64_t nextFree_ = 0;  ///< free block that the walk must meet next
  std::uint64_t nextFreeOffset_ = 0;
  std::vector<std::vector<KeyTrace>> keys_;  ///< by index
  std::uint64_t firstPage_ = 0;
  std::uint32_t pageSize_ = 0;
  std::uint64_t indexEnd_ = 0;
};

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_TABLE_H
