#include "objects/new_keys.h"

#include "index/keys.h"
#include "index/kinds.h"

namespace zelta {

template <typename Action>
void NewKeys::forAll(Action action) {
  for (std::size_t i = 0; i < count_; ++i) action(first_[i]);
  for (Entry& entry : more_) action(entry);
}

NewKeys::Entry& NewKeys::add(const Entry& entry) {
  if (count_ < kInline) return first_[count_++] = entry;
  return more_.emplace_back(entry);
}

void NewKeys::clear() {
  forAll([this](const Entry& entry) {
    table_.indexStates[entry.index].keyPool.release(table_.keyShape(entry.index), entry.key);
  });
  count_ = 0;
  more_.clear();
}

Result NewKeys::build(AtomicManager& manager, TreeFile committed, TreeFile pending) {
  clear();
  for (std::uint32_t i = 0; i < table_.indexCount; ++i) {
    if (!table_.listKind(i)) ZELTA_TRY(buildIndex(manager, committed, pending, i));
  }
  return {};
}

Result NewKeys::buildIndex(AtomicManager& manager, TreeFile committed, TreeFile pending,
                           std::uint32_t index) {
  const bool many = table_.multiEntry(index);
  for (std::uint32_t number = 0; number == 0 || many; ++number) {
    std::uint32_t* key = nullptr;
    ZELTA_TRY(extractKey(metaData_, table_, index, number, &key, nullptr, 0));
    if (key == nullptr) {
      if (many) return {};
      return reportError(&metaData_, Own::unclassified, table_.cName(), nullptr, index);
    }
    Entry& entry = add({key, nullptr, index});
    if (table_.index(index).indexKind == CZELTA::BPlusTree) {
      ZELTA_TRY(testUnique(manager, committed, pending, entry));
    }
  }
  return {};
}

Result NewKeys::exists(std::uint32_t index, std::uint64_t holder) {
  return reportError(&metaData_, Own::keyExists, table_.cName(), nullptr,
                     static_cast<std::int64_t>(holder), index);
}

Result NewKeys::takeGivenUp(Entry& entry, std::uint64_t holder) {
  ObjectKeyNode* node =
      find(table_.indexStates[entry.index].removedKeys, table_.keyShape(entry.index), entry.key, 0);
  bool taken = false;
  forAll([&](const Entry& other) { taken = taken || (node != nullptr && other.givenUp == node); });
  if (node == nullptr || taken) return exists(entry.index, holder);
  entry.givenUp = node;
  return {};
}

Result NewKeys::testUnique(AtomicManager& manager, TreeFile committed, TreeFile pending,
                           Entry& entry) {
  const auto look = [&](TreeFile file, std::uint64_t* holder, bool* found) {
    const Result result =
        bplusFind(metaData_, table_, file, manager, entry.index, entry.key, holder);
    *found = result.ok();
    return result.is(Own::keyNotFound) ? Result{} : result;
  };
  std::uint64_t holder = 0;
  bool found = false;
  ZELTA_TRY(look(committed, &holder, &found));
  if (found) {
    const IndexCursor& cursor = table_.indexStates[entry.index];
    const KeyShape shape = table_.keyShape(entry.index);
    if (const ObjectKeyNode* lent = find(cursor.replacedKeys, shape, entry.key, 0);
        lent != nullptr) {
      return exists(entry.index, lent->objectID);
    }
    return takeGivenUp(entry, holder);
  }
  ZELTA_TRY(look(pending, &holder, &found));
  return found ? exists(entry.index, holder) : Result{};
}

Result NewKeys::enter(AtomicManager& manager, TreeFile pending, std::uint64_t objectID) {
  Result result;
  forAll([&](const Entry& entry) {
    if (result.failed() || entry.givenUp != nullptr) return;
    result = insertEntry(metaData_, table_, pending, manager, entry.index, entry.key, objectID);
  });
  return result;
}

void NewKeys::takeOver(std::uint64_t objectID) {
  forAll([&](const Entry& entry) {
    if (entry.givenUp == nullptr) return;
    IndexCursor& cursor = table_.indexStates[entry.index];
    const KeyShape shape = table_.keyShape(entry.index);
    remove(entry.givenUp, cursor.removedKeys, shape);
    entry.givenUp->extra = entry.givenUp->objectID;  // whom the committed tree names
    entry.givenUp->objectID = objectID;
    insert(entry.givenUp, cursor.replacedKeys, shape);
  });
}

}  // namespace zelta
