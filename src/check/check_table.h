// A table while it is checked: its file, its schema, the keys of its objects. The order is that of
// trust: header, schema, records and slots, then index and memory file, against the keys that the
// objects were found to have.

#ifndef ZELTA_CHECK_CHECK_TABLE_H
#define ZELTA_CHECK_CHECK_TABLE_H

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "check/check_control.h"
#include "check/check_digest.h"
#include "check/check_entries.h"
#include "check/check_file.h"
#include "check/check_kinds.h"
#include "check/check_object.h"
#include "check/check_pending.h"
#include "frame/metadata.h"
#include "storage/table.h"

namespace zelta::check {

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

/// The keys on one side of a comparison.
struct KeySide {
  KeyDigest digest;
  CheckedKeys changing;  ///< those of objects that commits are still to change are kept
};

using HashSet = std::unordered_set<std::uint64_t>;

/// The keys that an index has.
struct IndexEntries : KeySide {
  HashSet ofAnyObject;  ///< keys whose objects are not listed
};

/// What is compared one by one, and what is known of the rest.
struct KeyComparison {
  CheckedKeys keys;
  CheckedKeys entries;
  bool isPart = false;  ///< there are more differences, of which only this is known
  std::uint64_t missing = 0;
  std::uint64_t unowned = 0;
};

/// One table, once. The sources named below have a part each.
class TableCheck {
 public:
  TableCheck(Findings& findings, const std::u16string& folder, const DirectoryTable& entry,
             const std::vector<PendingSection>& pending);

  void run();

 private:
  // check_table.cpp
  bool checkHeader();
  bool checkNumbers();
  bool checkCommit();
  void takePending();
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
  void checkPlaceholder(std::uint64_t id, std::uint64_t objectOffset);
  // check_keys.cpp
  void takeKeys(std::uint64_t id, std::uint64_t position, const char* object, std::uint32_t length);
  void takeImageKeys(const PendingCommit& commit, std::uint64_t id, std::uint64_t position);
  void takeNewKeys();
  CheckedKeys keysOf(std::uint32_t index, const CheckedObject& object);
  [[nodiscard]] const char* viewImage(const PendingCommit& commit, std::uint64_t id);
  void addChanged(std::uint32_t index, const CheckedKeys& from, const CheckedKeys& without,
                  const PendingCommit& commit, bool comes);
  [[nodiscard]] const PendingCommit* commitOf(std::uint64_t id);
  void takeKey(std::uint32_t index, const CheckedKey& key);
  [[nodiscard]] bool isChanging(std::uint64_t id) const;
  // check_compare.cpp
  void compareEntries(CheckFile& file, std::uint32_t index, const TreePlace& place,
                      const IndexEntries& entries);
  template <class Take>
  void forEachSoundKey(std::uint32_t index, Take take);
  void leaveOut(std::uint32_t index, const HashSet& ofAnyObject);
  void compareKeys(const CheckFile& file, std::uint32_t index, std::uint64_t rootOffset,
                   KeyComparison& comparison);
  void checkCommits(const CheckFile& file);
  // check_index.cpp
  void checkIndexFile();
  bool checkIndexHeader(CheckFile& file);
  void checkIndexTrees(CheckFile& file);
  bool checkIndexTree(CheckFile& file, std::uint32_t index, std::vector<Extent>& extents);
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
  Table table_{metaData_};
  const std::vector<PendingSection>& pending_;
  std::vector<PendingCommit> commits_;  ///< still to be carried out
  std::vector<std::uint64_t> records_;  ///< positions of records, ascending
  bool recordsComplete_ = false;
  std::uint64_t nextFree_ = 0;  ///< free block that the walk must meet next
  std::uint64_t nextFreeOffset_ = 0;
  std::vector<KeySide> keys_;         ///< of objects, by index
  std::vector<std::uint64_t> sound_;  ///< records of the objects in the digests of keys_
  std::uint64_t firstPage_ = 0;
  std::uint32_t pageSize_ = 0;
  std::uint64_t indexEnd_ = 0;
};

/// Reports what it finds, and goes on as far as there is sense in it.
void checkTable(Findings& findings, const std::u16string& folder, const DirectoryTable& entry,
                const std::vector<PendingSection>& pending);

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_TABLE_H
