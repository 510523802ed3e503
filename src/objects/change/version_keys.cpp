#include "objects/change/version_keys.h"

#include <algorithm>

#include "index/keys/keys.h"
#include "index/kinds.h"
#include "schema/object_view.h"

namespace zelta {

void VersionKeys::clear() {
  for (Entry& entry : *this) {
    table_.indexStates[entry.index].keyPool.release(table_.keyShape(entry.index), entry.key);
  }
  entries_.clear();
}

Result VersionKeys::make(ObjectBytes object) {
  clear();
  if (object.data == nullptr) return {};
  for (std::uint32_t i = 0; i < table_.indexCount; ++i) {
    if (!table_.listKind(i)) ZELTA_TRY(makeIndex(i, object));
  }
  return {};
}

/// The keys of one index, sorted if there may be several.
Result VersionKeys::makeIndex(std::uint32_t index, ObjectBytes object) {
  const bool many = table_.multiEntry(index);
  const std::size_t start = entries_.size();
  RowPlaces rows;
  for (std::uint32_t number = 0; number == 0 || many; ++number) {
    std::uint32_t* key = nullptr;
    ZELTA_TRY(extractKey(table_, index, {object, number, &rows}, &key));
    if (key == nullptr) {
      if (many) break;
      return reportError(&metaData_, Own::unclassified, table_.cName(), nullptr, index);
    }
    PooledKey owned;
    owned.take(table_.keyPool(index), table_.keyShape(index), key);
    entries_.push_back({key, index});
    static_cast<void>(owned.release());
  }
  if (entries_.size() - start < 2) return {};
  const KeyShape shape = table_.keyShape(index);
  std::sort(begin() + start, end(), [shape](const Entry& a, const Entry& b) {
    return compareKeys(shape, a.key, b.key) < 0;
  });
  return {};
}

std::uint32_t VersionKeys::countEqual(const Entry& entry) {
  const auto [first, last] = std::equal_range(
      begin(), end(), entry,
      [this](const Entry& a, const Entry& b) { return compareEntries(table_, a, b) < 0; });
  return static_cast<std::uint32_t>(last - first);
}

int compareEntries(const Table& table, const VersionKeys::Entry& a, const VersionKeys::Entry& b) {
  if (a.index != b.index) return a.index < b.index ? -1 : 1;
  return compareKeys(table.keyShape(a.index), a.key, b.key);
}

bool sameKeys(const Table& table, VersionKeys& a, VersionKeys& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [&](const VersionKeys::Entry& x, const VersionKeys::Entry& y) {
                      return compareEntries(table, x, y) == 0;
                    });
}

namespace {

/// The exchange may have been done before, or another object of the same commit may hold the key
/// that it has given up: the tree ends as if it were done now.
class Exchange {
 public:
  Exchange(AtomicManager& manager, std::uint64_t objectID, VersionKeys& after)
      : manager_(manager), after_(after), objectID_(objectID) {}

  Result takeOut(const VersionKeys::Entry& entry) {
    if (!hasUniqueKeys(manager_.table, entry.index)) return adjust(entry);
    const Result result = removeEntry(treeOf(entry), entry.key, objectID_);
    if (!result.is(Own::keyNotFound)) return result;
    clearError(manager_.metaData);
    return {};
  }

  Result enter(const VersionKeys::Entry& entry) {
    if (!hasUniqueKeys(manager_.table, entry.index)) return adjust(entry);
    const IndexTree tree = treeOf(entry);
    const Result result = insertEntry(tree, entry.key, objectID_);
    if (!result.is(Own::keyExists)) return result;
    std::uint64_t holder = objectID_;
    ZELTA_TRY(findHolder(tree, entry.key, &holder));
    clearError(manager_.metaData);
    return holder == objectID_ ? Result{} : replaceHolder(tree, entry.key, holder, objectID_);
  }

 private:
  /// Where a tree takes one entry any number of times, only their number tells what was done.
  Result adjust(const VersionKeys::Entry& entry) {
    const IndexTree tree = treeOf(entry);
    const std::uint32_t wanted = after_.countEqual(entry);
    std::uint32_t there = 0;
    ZELTA_TRY(countEntries(tree, entry.key, objectID_, &there));
    for (; there > wanted; --there) ZELTA_TRY(removeEntry(tree, entry.key, objectID_));
    for (; there < wanted; ++there) ZELTA_TRY(insertEntry(tree, entry.key, objectID_));
    return {};
  }
  [[nodiscard]] IndexTree treeOf(const VersionKeys::Entry& entry) const {
    return {manager_, PageFile::index, entry.index};
  }

  AtomicManager& manager_;
  VersionKeys& after_;
  const std::uint64_t objectID_;
};

}  // namespace

/// All that leaves goes before anything comes.
Result exchangeKeys(AtomicManager& manager, std::uint64_t objectID, ObjectBytes before,
                    ObjectBytes after) {
  Table& table = manager.table;
  VersionKeys old(table);
  VersionKeys fresh(table);
  ZELTA_TRY(old.make(before));
  ZELTA_TRY(fresh.make(after));
  Exchange exchange(manager, objectID, fresh);
  ZELTA_TRY(forKeyDifferences(table, old, fresh, [&](const VersionKeys::Entry& entry, bool isNew) {
    return isNew ? Result{} : exchange.takeOut(entry);
  }));
  return forKeyDifferences(table, old, fresh, [&](const VersionKeys::Entry& entry, bool isNew) {
    return isNew ? exchange.enter(entry) : Result{};
  });
}

}  // namespace zelta
