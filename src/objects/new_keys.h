// The keys of an object that is about to be stored.

#ifndef ZELTA_OBJECTS_NEW_KEYS_H
#define ZELTA_OBJECTS_NEW_KEYS_H

#include <array>
#include <cstdint>
#include <vector>

#include "index/bplus_tree.h"
#include "storage/table.h"

namespace zelta {

/// Builds all keys of the object in the buffer and tests them, before any is entered. What is left
/// of them goes back to the pools at the end.
class NewKeys {
 public:
  NewKeys(MetaData& metaData, Table& table) : metaData_(metaData), table_(table) {}
  ~NewKeys() { clear(); }
  NewKeys(const NewKeys&) = delete;
  NewKeys& operator=(const NewKeys&) = delete;

  /// Makes the keys. A unique key must be free in both trees, or have been given up by this
  /// transaction.
  Result build(AtomicManager& manager, TreeFile committed, TreeFile pending);
  /// Enters the keys in the pending trees, but for those that the transaction has in the committed
  /// one.
  Result enter(AtomicManager& manager, TreeFile pending, std::uint64_t objectID);
  /// Hands the keys that the transaction had given up to their new object. Cannot fail.
  void takeOver(std::uint64_t objectID);
  void clear();

 private:
  struct Entry {
    std::uint32_t* key;
    ObjectKeyNode* givenUp;  ///< a node of removedKeys
    std::uint32_t index;
  };
  Result buildIndex(AtomicManager& manager, TreeFile committed, TreeFile pending,
                    std::uint32_t index);
  Result testUnique(AtomicManager& manager, TreeFile committed, TreeFile pending, Entry& entry);
  /// Takes a key that the transaction has given up, unless another entry of the object has done so.
  Result takeGivenUp(Entry& entry, std::uint64_t holder);
  Result exists(std::uint32_t index, std::uint64_t holder);
  Entry& add(const Entry& entry);
  template <typename Action>
  void forAll(Action action);

  static constexpr std::size_t kInline = 20;
  MetaData& metaData_;
  Table& table_;
  std::array<Entry, kInline> first_;
  std::size_t count_ = 0;
  std::vector<Entry> more_;
};

}  // namespace zelta

#endif  // ZELTA_OBJECTS_NEW_KEYS_H
