#include "index/rtree/extent_kinds.h"

#include <cstring>

#include "index/rtree/rtree.h"
#include "index/search/key_search.h"

namespace zelta {

namespace {

template <class Entry>
Entry entryOf(const std::uint32_t* key) {
  Entry entry;
  std::memcpy(&entry, key, sizeof entry);
  return entry;
}

/// The operations of a kind whose keys are of one of two lengths.
template <class Short, class Long>
struct ExtentKind {
  /// Calls an operation for what the keys of the tree are.
  template <class Operation>
  static Result with(const IndexTree& tree, Operation operation) {
    return tree.shape().keyWords * 4 == sizeof(Short) ? operation(static_cast<Short*>(nullptr))
                                                      : operation(static_cast<Long*>(nullptr));
  }

  static Result insert(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID) {
    return with(tree, [&]<class Entry>(Entry*) {
      return rtreeInsert(tree, entryOf<Entry>(key), objectID);
    });
  }
  static Result remove(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID) {
    return with(tree, [&]<class Entry>(Entry*) {
      return rtreeRemove(tree, entryOf<Entry>(key), objectID);
    });
  }
  static Result count(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID,
                      std::uint32_t* count) {
    return with(tree, [&]<class Entry>(Entry*) {
      return rtreeCount(tree, entryOf<Entry>(key), objectID, count);
    });
  }
  static Result merge(const IndexTree& pending, const ObjectSets& objects,
                      const IndexTree* committed) {
    return with(pending, [&]<class Entry>(Entry*) {
      return rtreeMerge<Entry>(pending, objects, committed);
    });
  }
  static Result search(const IndexTree& tree, const std::uint32_t* key, EntryFilter& filter) {
    return with(tree, [&]<class Entry>(Entry*) {
      return rtreeSearch<Entry>(tree, entryOf<Entry>(key),
                                [&](const Entry& entry, std::uint64_t objectID) {
                                  std::uint32_t words[sizeof(Entry) / 4];
                                  std::memcpy(words, &entry, sizeof words);
                                  filter.take(words, objectID);
                                });
    });
  }
};

template <class Short, class Long>
constexpr KeyKind kExtentKind = {ExtentKind<Short, Long>::insert, ExtentKind<Short, Long>::remove,
                                 ExtentKind<Short, Long>::count, ExtentKind<Short, Long>::merge,
                                 ExtentKind<Short, Long>::search};

}  // namespace

const KeyKind kSpatialTree = kExtentKind<Box2, Box3>;
const KeyKind kTemporalTree = kExtentKind<Span32, Span64>;

}  // namespace zelta
