// A table as a handle has it open: its schema, its files and mutex, the object buffer, the cursors
// of its indexes, and what the running transaction has changed in it. The layers above put their
// state here; nothing is shared between handles but what lies in the files.
//
// A Table lives from OpenTable to EndTransaction and belongs to its handle's tree of tables. What
// it remembers of the files is true only while the table's mutex is held: every pass of an
// operation reads the headers anew.

#ifndef ZELTA_STORAGE_TABLE_H
#define ZELTA_STORAGE_TABLE_H

#include <cassert>
#include <cstdint>
#include <memory>
#include <string>

#include "czelta.h"
#include "frame/metadata.h"
#include "storage/paged/page_buffer.h"
#include "storage/trees/avl_tree.h"
#include "storage/trees/key_pool.h"
#include "storage/trees/page_pool.h"
#include "storage/trees/sorted_ids.h"

namespace zelta {

/// How much of a table or index file is served from memory to a transaction that only reads.
inline constexpr std::uint64_t kReadWindow = 1u << 30;

/// What a table remembers of one index: where the walk stands, and what the running transaction
/// takes out.
struct IndexCursor {
  /// Key of the object read last. In an index with many entries for an object it is owned by a node
  /// of `currentKeys`, which holds them all; else by the cursor itself.
  std::uint32_t* currentKey = nullptr;
  ObjectKeyNode* currentKeys = nullptr;
  /// Committed keys that commit must remove, with the object that the committed tree has under
  /// them.
  ObjectKeyNode* removedKeys = nullptr;
  /// Committed keys that commit must give to another object: `objectID` is the new one, `extra` the
  /// one that the committed tree has.
  ObjectKeyNode* replacedKeys = nullptr;
  KeyPool keyPool;
};

class Table final : public UInt32AVLTree {
 public:
  /// Of the database that a handle has open, which outlives the table. Files, mutex and schema are
  /// filled in by whoever opens the table, and closed by the destructor.
  explicit Table(MetaData& database, std::uint16_t indexes = 0);
  /// Unlocks what is still locked, closes files and mutex, frees all memory.
  ~Table() override;

  /// Takes another number of indexes; all cursors are empty afterwards.
  void setIndexCount(std::uint16_t indexes);

  [[nodiscard]] std::uint32_t id() const { return key; }
  /// Whether all objects have one size: the table has no variable fields, and places all records
  /// side by side.
  [[nodiscard]] bool isFixed() const { return fixedAreaSize == minimumObjectSize; }
  [[nodiscard]] bool wideIds() const {
    return (schema->schemaFlags & CZELTA::SchemaWideObjectIds) != 0;
  }
  /// Bytes of an object's head, version and ID.
  [[nodiscard]] std::uint32_t headerSize() const { return wideIds() ? 10 : 6; }
  [[nodiscard]] std::uint32_t idSize() const { return wideIds() ? 8 : 4; }
  // Of an index, by its number from 0.
  [[nodiscard]] const CZELTA::Schema::Index& index(std::uint32_t i) const {
    assert(schema != nullptr && i < indexCount);
    return schema->indexes[i];
  }
  [[nodiscard]] KeyShape keyShape(std::uint32_t i) const {
    return KeyShape{(index(i).indexFlags & CZELTA::IndexVariableKey) != 0 ? 0 : index(i).keyWords};
  }
  [[nodiscard]] KeyPool& keyPool(std::uint32_t i) const { return indexStates[i].keyPool; }
  [[nodiscard]] bool multiEntry(std::uint32_t i) const {
    return (index(i).indexFlags & CZELTA::IndexMultiEntry) != 0;
  }
  [[nodiscard]] bool listKind(std::uint32_t i) const {
    return (index(i).indexFlags & CZELTA::IndexListKind) != 0;
  }
  /// Whether a commit has anything to do here. Objects that are only locked do not count.
  [[nodiscard]] bool hasEdits() const {
    return addedObjects != nullptr || editedObjects != nullptr || deletedObjects != nullptr;
  }
  /// Whether the running transaction has a version of the object that is not committed.
  [[nodiscard]] bool hasPending(std::uint64_t objectID) const {
    return find(addedObjects, objectID) != nullptr || find(editedObjects, objectID) != nullptr;
  }
  [[nodiscard]] const char16_t* cName() const { return name.c_str(); }

  /// Drops the current keys of all indexes (not what commit has to remove or replace).
  void releaseCurrentKeys();
  /// Drops all keys of all indexes, those of commit too.
  void releaseAllKeys();
  /// Drops the results of searches.
  void releaseResults();

  MetaData& metaData;  ///< the database, as this handle has it open
  std::uint16_t indexCount = 0;
  std::uint32_t schemaCopyBytes = 0;  ///< bytes of the allocation behind `schema`
  std::uint32_t slotBase = 0;         ///< of the table file, as its header has it
  std::uint32_t minimumObjectSize = 0;
  std::uint32_t fixedAreaSize = 0;
  std::uint32_t objectLength = 0;  ///< bytes of the object in `objectBuffer`
  std::uint32_t tableLockOrder = 0;
  std::uint32_t searchIndex = 0;  ///< 1-based index of the last search, 0 for none
  std::uint32_t firstVariableField = 0xFFFFFFFF;
  bool searchInverted = false;  ///< `searchResults` holds the objects that do not match
  std::u16string name;
  std::u16string directory;               ///< folder of the index file, with its separator
  ScratchBuffer objectBuffer{kZeroTail};  ///< capacity: its size(); zeros follow the object
  char* objectData =
      nullptr;  ///< the object, behind 10 bytes (6 in a fixed table); null: no buffer
  std::uint64_t currentObjectID = 0;  ///< that the cursors stand on; 0: none
  /// The object read last as it was read, if the keys of the cursors are made from it on demand.
  ScratchBuffer keySource;
  ScratchBuffer otherKeySource;       ///< room for the version that replaces it
  std::uint32_t keySourceLength = 0;  ///< bytes of the object in `keySource`
  std::uint64_t keySourceID = 0;      ///< its ID; 0: there is none
  platform::File tableFile = platform::File::none;
  platform::File indexFile = platform::File::none;
  /// The object whose missing content stopped the building of the index file; 0: none has.
  std::uint64_t buildWaitsFor = 0;
  platform::File memoryFile = platform::File::none;
  platform::Mutex tableMutex = platform::Mutex::none;
  /// A count of changes that stayed odd too long to wait for its end again; 0: none.
  std::uint32_t ignoredChange = 0;
  std::unique_ptr<IndexCursor[]> indexStates;
  KeyNodePool nodePool;
  PagePool pagePool;
  // Sets of object IDs of the running transaction. An ID is in one of them at most; the objects of
  // all but `addedObjects` are locked.
  UInt64AVLTree* lockedObjects = nullptr;   ///< locked but unchanged
  UInt64AVLTree* addedObjects = nullptr;    ///< added
  UInt64AVLTree* editedObjects = nullptr;   ///< rewritten
  UInt64AVLTree* deletedObjects = nullptr;  ///< deleted
  std::uint32_t addedCount = 0;
  std::uint32_t deletedCount = 0;
  std::uint64_t pendingBytes = 0;  ///< bytes of the pending images in the log
  /// A change of the memory file failed, and whether it was made could not be found out: what the
  /// sets and the cursors say need not be what the file holds. Only aborting helps.
  bool memoryUncertain = false;
  SortedIds searchResults;           ///< IDs that the last search has found
  CZELTA::Schema* schema = nullptr;  ///< owned (malloc), one allocation
  PageBuffer pageBuffers[4];         ///< pages of index trees while an operation works on them
};

/// The table of a handle with this ID, or null.
[[nodiscard]] Table* findTable(UInt32AVLTree* tables, std::uint32_t tableId);

/// Owns a table's mutex, or none, until the end of the scope. While it is owned the lengths of the
/// table's files stay, so that parts of them are served from memory.
class TableMutexGuard {
 public:
  TableMutexGuard() = default;
  ~TableMutexGuard() {
    if (held()) releaseSilently();
  }
  TableMutexGuard(const TableMutexGuard&) = delete;
  TableMutexGuard& operator=(const TableMutexGuard&) = delete;
  /// Waits for the mutex; a failure is reported with the table's name and ".zlt".
  Result acquire(Table& table, std::uint32_t milliseconds);
  /// Makes the count of changes even again, if a change was announced, and releases the mutex. Does
  /// nothing if none is owned.
  Result release() { return held() ? releaseHeld() : Result{}; }
  /// To be called before committed state is changed: those who read it without the mutex wait, or
  /// read again, until the release.
  void announceChange();
  [[nodiscard]] bool held() const { return table_ != nullptr; }

 private:
  void releaseSilently();
  Result releaseHeld();

  MetaData* metaData_ = nullptr;
  Table* table_ = nullptr;
  bool changing_ = false;         ///< the count of changes is odd, by announceChange()
  platform::File files_[3] = {};  ///< the table's files as they were at the begin
};

}  // namespace zelta

#endif  // ZELTA_STORAGE_TABLE_H
