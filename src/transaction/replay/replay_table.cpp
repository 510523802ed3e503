// The order is that of a commit: the keys go into the index file, in its own atomic step, then the
// table file changes through its journal. So an index may be ahead of its table when replay begins,
// never behind it: keys that are gone already, or are there already, are passed by.

#include "transaction/replay/replay_table.h"

#include <cassert>
#include <set>

#include "index/file/index_commit.h"
#include "index/file/index_file.h"
#include "index/kinds.h"
#include "objects/change/version_keys.h"
#include "objects/table_access.h"
#include "platform/file_io.h"
#include "storage/memory_file/memory_file.h"
#include "storage/paged/atomic_manager.h"
#include "storage/table_file/table_recovery.h"
#include "transaction/commit/edit_plan.h"
#include "transaction/commit/plan_execution.h"
#include "transaction/commit/version_reader.h"
#include "transaction/log/later_entries.h"

namespace zelta {

namespace {

/// Objects that still carry the stamp of the transaction.
struct IdSet {
  IdSet() = default;
  ~IdSet() { destroyAll(root); }
  IdSet(const IdSet&) = delete;
  IdSet& operator=(const IdSet&) = delete;
  void add(std::uint64_t id) { new UInt64AVLTree(root, id); }
  UInt64AVLTree* root = nullptr;
};

/// The replay of one section. What is left to do is found out first; then index and table take it
/// over in the order of a commit.
class TableReplay {
 public:
  TableReplay(const ReplayedEntry& replayed, EntryReader& reader, Table& table)
      : metaData_(replayed.log.metaData()),
        table_(table),
        replayed_(replayed),
        reader_(reader),
        number_(replayed.entry.head.number),
        access_(table) {}

  Result run(const TableSection& section);

 private:
  // What is left to do
  Result decide(const TableSection& section);
  Result readStamp(std::uint64_t id, ObjectSlot* slot);
  Result checkImage(const PendingObject& image);
  Result takeNew(const std::vector<PendingObject>& candidates);
  // The index file
  Result openIndex(bool* there);
  Result applyKeys();
  Result exchange(std::uint64_t id, ObjectBytes before, ObjectBytes after);
  Result readOld(std::uint64_t id, ObjectBytes* object);
  Result readNew(const PendingObject& image, ObjectBytes* object);

  MetaData& metaData_;
  Table& table_;
  const ReplayedEntry& replayed_;
  EntryReader& reader_;
  std::uint32_t number_;  ///< of the transaction
  TableAccess access_;
  const TableHeader_tag& header_ = access_.header;
  IdSet deleted_;
  IdSet edited_;
  PendingImages images_;
  ContentUpdates contents_;
};

// -- What is left to do ---------------------------------------------------------------------------

/// The slot of an ID. Whoever has locked it found no stamp there, so it has not the one that is
/// looked for.
Result TableReplay::readStamp(std::uint64_t id, ObjectSlot* slot) {
  SystemCode failure = readSlotPosition(table_.tableFile, header_.slotBase, id, slot);
  if (failure == 0 && !slot->isFree()) {
    failure = readSlot(table_.tableFile, header_.slotBase, id, slot);
    if (failure == code::kLockViolation) {
      slot->transaction = 0;
      failure = 0;
    }
  }
  return reportTable(metaData_, table_.cName(), failure);
}

/// An image that could be no object of the table makes the entry malformed.
Result TableReplay::checkImage(const PendingObject& image) {
  constexpr std::uint64_t kGreatestID = std::uint64_t{1} << 58;
  constexpr std::uint32_t kLongest = 0xFFFFFFFF - 64;
  const bool good = table_.isFixed()
                        ? image.length == table_.fixedAreaSize
                        : image.length >= table_.minimumObjectSize && image.length <= kLongest;
  return good && image.objectID <= kGreatestID ? Result{} : EntryReader::malformed();
}

/// New objects leave no stamp; one that is not there was either never entered, or deleted since.
Result TableReplay::takeNew(const std::vector<PendingObject>& candidates) {
  if (candidates.empty()) return {};
  std::set<std::uint64_t> missing;
  for (const PendingObject& image : candidates) missing.insert(missing.end(), image.objectID);
  ZELTA_TRY(dropKnownLater(replayed_.log, replayed_.entry, table_.id(), table_.idSize(), missing));
  for (const PendingObject& image : candidates) {
    if (missing.count(image.objectID) != 0) images_.added.push_back(image);
  }
  return {};
}

/// Collects what is not there yet: objects whose slot still has the stamp, and new ones that are
/// missing.
Result TableReplay::decide(const TableSection& section) {
  assert(access_.owned());
  const auto stamped = [&](const ObjectSlot& slot) {
    return !slot.isFree() && slot.transaction == number_;
  };
  for (const std::uint64_t id : section.deleted) {
    ObjectSlot slot{};
    if (id > header_.highestID) continue;
    ZELTA_TRY(readStamp(id, &slot));
    if (stamped(slot)) deleted_.add(id);
  }
  std::vector<PendingObject> candidates;
  for (const PendingObject& image : section.images) {
    ZELTA_TRY(checkImage(image));
    ObjectSlot slot{};
    if (image.objectID <= header_.highestID) ZELTA_TRY(readStamp(image.objectID, &slot));
    if (image.objectID > header_.highestID || slot.isFree()) {
      candidates.push_back(image);
    } else if (stamped(slot)) {
      edited_.add(image.objectID);
      images_.edited.push_back(image);
    }
  }
  return takeNew(candidates);
}

// -- Keys -----------------------------------------------------------------------------------------

/// What is gone or there already is from a former repair. If only a placeholder stands for the
/// version before, the index file has the new keys.
Result TableReplay::exchange(std::uint64_t id, ObjectBytes before, ObjectBytes after) {
  ZELTA_TRY(exchangeKeys(access_.manager(), id, before, after));
  return contents_.change({id, before, after});
}

Result TableReplay::readOld(std::uint64_t id, ObjectBytes* object) {
  return readCommittedVersion(table_, header_, id, object);
}

Result TableReplay::readNew(const PendingObject& image, ObjectBytes* object) {
  object->length = image.length;
  return reader_.images.read(image.position + 4, image.length, &object->data);
}

/// In the order of a commit: what leaves, then what is rewritten or new, by ascending ID.
Result TableReplay::applyKeys() {
  if (table_.indexCount == 0) return {};
  assert(access_.owned());
  ZELTA_TRY(checkIndexKinds(table_));
  access_.manager().holdIndexPages();
  contents_.begin(access_.manager(), ContentMode::repeated);
  ObjectBytes before;
  ObjectBytes after;
  for (const UInt64AVLTree* node = findNext(deleted_.root, 0); node != nullptr;
       node = findNext(deleted_.root, node->key)) {
    ZELTA_TRY(readOld(node->key, &before));
    ZELTA_TRY(exchange(node->key, before, {}));
  }
  auto rewritten = images_.edited.begin();
  auto fresh = images_.added.begin();
  while (rewritten != images_.edited.end() || fresh != images_.added.end()) {
    const bool isNew = rewritten == images_.edited.end() ||
                       (fresh != images_.added.end() && fresh->objectID < rewritten->objectID);
    const PendingObject& image = isNew ? *fresh++ : *rewritten++;
    before = {};
    if (!isNew) ZELTA_TRY(readOld(image.objectID, &before));
    ZELTA_TRY(readNew(image, &after));
    ZELTA_TRY(exchange(image.objectID, before, after));
  }
  ZELTA_TRY(contents_.finish());
  return flushIndexFile(access_.manager(), access_.indexHeader);
}

// -- The whole ------------------------------------------------------------------------------------

/// An index file that is missing cannot be built while contents are missing in the table; whoever
/// opens it next builds it.
Result TableReplay::openIndex(bool* there) {
  const Result opened = access_.openIndex();
  *there = opened.ok();
  if (opened.failed()) return opened.isLocked() ? Result{} : opened;
  return access_.openMemory();
}

/// All under the table's mutex. Whoever reads without it is warned before anything changes.
Result TableReplay::run(const TableSection& section) {
  ZELTA_TRY(access_.acquire(platform::kForever));
  ZELTA_TRY(access_.readHeader());
  ZELTA_TRY(decide(section));
  if (deleted_.root == nullptr && edited_.root == nullptr && images_.added.empty()) {
    return access_.release();
  }
  access_.announceChange();
  bool indexThere = false;
  ZELTA_TRY(openIndex(&indexThere));
  if (indexThere) ZELTA_TRY(applyKeys());
  EditPlan plan(table_, header_, {deleted_.root, edited_.root});
  plan.replaying = true;
  ZELTA_TRY(plan.make(images_));
  ZELTA_TRY(executePlan(table_, header_, plan, reader_.images, number_));
  return access_.release();
}

}  // namespace

Result replayTableSection(const ReplayedEntry& replayed, EntryReader& reader, Table& table,
                          const TableSection& section) {
  return TableReplay(replayed, reader, table).run(section);
}

}  // namespace zelta
