#include "objects/change/key_changes.h"

#include "index/kinds.h"

namespace zelta {

void KeyChanges::clear() noexcept {
  for (Change& change : changes_) {
    table_.indexStates[change.index].keyPool.release(table_.keyShape(change.index), change.key);
    if (change.step == Step::noteRemoved && change.node != nullptr) releaseNode(change);
  }
  changes_.clear();
}

void KeyChanges::releaseNode(const Change& change) noexcept {
  table_.nodePool.release(table_.indexStates[change.index].keyPool, table_.keyShape(change.index),
                          change.node);
}

void KeyChanges::add(VersionKeys::Entry& entry, Step step, ObjectKeyNode* node) {
  Change& change = changes_.push_back({nullptr, node, entry.index, step});
  change.key = entry.release();  // not before there is a place for it
}

std::uint32_t KeyChanges::planned(const VersionKeys::Entry& entry, Step step) {
  std::uint32_t count = 0;
  const KeyShape shape = table_.keyShape(entry.index);
  for (const Change* change = changes_.end(); change != changes_.begin();) {
    --change;
    if (change->index != entry.index) break;
    const std::uint32_t* key = change->step == Step::noteRemoved ? change->node->key : change->key;
    if (compareKeys(shape, key, entry.key) != 0) break;
    if (change->step == step) ++count;
  }
  return count;
}

void KeyChanges::noteRemoved(VersionKeys::Entry& entry) {
  Change& change = changes_.push_back({nullptr, nullptr, entry.index, Step::noteRemoved});
  change.node = table_.nodePool.take();
  change.node->key = entry.release();
  change.node->objectID = objectID_;
}

Result KeyChanges::exists(std::uint32_t index, std::uint64_t holder) {
  return reportError(&metaData_, Own::keyExists, table_.cName(), nullptr,
                     static_cast<std::int64_t>(holder), index);
}

Result KeyChanges::plan(AtomicManager& manager, std::uint64_t objectID, VersionKeys& before,
                        bool wasPending, VersionKeys& after, Source source) {
  clear();
  objectID_ = objectID;
  heldByOthers_ = false;
  if (source == Source::tested) ZELTA_TRY(checkRepeated(after));
  return forKeyDifferences(table_, before, after, [&](VersionKeys::Entry& entry, bool isNew) {
    return isNew ? take(manager, entry, source) : giveUp(manager, entry, wasPending);
  });
}

/// Two entries of one object cannot have one key either.
Result KeyChanges::checkRepeated(VersionKeys& after) {
  for (std::size_t i = 1; i < after.size(); ++i) {
    const VersionKeys::Entry& entry = after.begin()[i];
    if (hasUniqueKeys(table_, entry.index) &&
        compareEntries(table_, after.begin()[i - 1], entry) == 0) {
      return exists(entry.index, objectID_);
    }
  }
  return {};
}

/// Plans what becomes of a key that only the version before has.
Result KeyChanges::giveUp(AtomicManager& manager, VersionKeys::Entry& entry, bool wasPending) {
  IndexCursor& cursor = table_.indexStates[entry.index];
  const KeyShape shape = table_.keyShape(entry.index);
  if (ObjectKeyNode* node = find(cursor.replacedKeys, shape, entry.key, objectID_);
      node != nullptr) {
    add(entry, Step::returnReplaced, node);
    return {};
  }
  if (wasPending) {
    std::uint32_t pending = 0;
    const IndexTree tree(manager, PageFile::memory, entry.index);
    ZELTA_TRY(countEntries(tree, entry.key, objectID_, &pending));
    if (pending > planned(entry, Step::removePending)) {
      add(entry, Step::removePending, nullptr);
      return {};
    }
  }
  const bool noted = hasUniqueKeys(table_, entry.index) &&
                     find(cursor.removedKeys, shape, entry.key, objectID_) != nullptr;
  if (!noted) noteRemoved(entry);
  return {};
}

Result KeyChanges::take(AtomicManager& manager, VersionKeys::Entry& entry, Source source) {
  const std::uint32_t givenUp = countEqual(table_.indexStates[entry.index].removedKeys,
                                           table_.keyShape(entry.index), entry.key, objectID_);
  if (givenUp > planned(entry, Step::keepCommitted)) {
    add(entry, Step::keepCommitted, nullptr);
    return {};
  }
  if (source == Source::committed) return exists(entry.index, objectID_);
  if (hasUniqueKeys(table_, entry.index)) return takeUnique(manager, entry);
  add(entry, Step::insertPending, nullptr);
  return {};
}

/// The committed tree comes first, as seen through the cursor's notes, then the keys that others
/// and this transaction have pending.
Result KeyChanges::takeUnique(AtomicManager& manager, VersionKeys::Entry& entry) {
  const auto look = [&](PageFile file, std::uint64_t* holder, bool* found) {
    const Result result = findHolder({manager, file, entry.index}, entry.key, holder);
    *found = result.ok();
    return result.is(Own::keyNotFound) ? Result{} : result;
  };
  std::uint64_t holder = 0;
  bool found = false;
  ZELTA_TRY(look(PageFile::index, &holder, &found));
  if (found) {
    // The committed tree still names who had the key before the transaction gave it away.
    const IndexCursor& cursor = table_.indexStates[entry.index];
    const KeyShape shape = table_.keyShape(entry.index);
    if (const ObjectKeyNode* heir = find(cursor.replacedKeys, shape, entry.key, 0);
        heir != nullptr) {
      return exists(entry.index, heir->objectID);
    }
    ObjectKeyNode* node = find(cursor.removedKeys, shape, entry.key, 0);
    if (node == nullptr) return exists(entry.index, holder);
    add(entry, Step::takeOver, node);
    return {};
  }
  ZELTA_TRY(look(PageFile::memory, &holder, &found));
  if (found) {
    heldByOthers_ = !table_.hasPending(holder);
    return exists(entry.index, holder);
  }
  add(entry, Step::insertPending, nullptr);
  return {};
}

Result KeyChanges::enter(AtomicManager& manager) {
  for (const Change& change : changes_) {
    if (change.step != Step::removePending) continue;
    ZELTA_TRY(removeEntry({manager, PageFile::memory, change.index}, change.key, objectID_));
  }
  for (const Change& change : changes_) {
    if (change.step != Step::insertPending) continue;
    ZELTA_TRY(insertEntry({manager, PageFile::memory, change.index}, change.key, objectID_));
  }
  return {};
}

void KeyChanges::finish() noexcept {
  for (Change& change : changes_) {
    IndexCursor& cursor = table_.indexStates[change.index];
    const KeyShape shape = table_.keyShape(change.index);
    ObjectKeyNode* node = change.node;
    switch (change.step) {
      case Step::insertPending:
      case Step::removePending:
        break;
      case Step::noteRemoved:
        change.node = nullptr;
        insert(node, cursor.removedKeys, shape);
        break;
      case Step::returnReplaced:
        remove(node, cursor.replacedKeys, shape);
        node->objectID = node->extra;
        insert(node, cursor.removedKeys, shape);
        break;
      case Step::keepCommitted:
        node = find(cursor.removedKeys, shape, change.key, objectID_);
        remove(node, cursor.removedKeys, shape);
        table_.nodePool.release(cursor.keyPool, shape, node);
        break;
      case Step::takeOver:
        remove(node, cursor.removedKeys, shape);
        node->extra = node->objectID;  // whom the committed tree names
        node->objectID = objectID_;
        insert(node, cursor.replacedKeys, shape);
        break;
    }
  }
  clear();
}

}  // namespace zelta
