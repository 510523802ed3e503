// What a kind of index is. There are two families.
//
// A kind with keys makes for each object one key, or with an index over sub-records one for each
// row, and enters it with the object's ID: in the pending tree of the memory file when a
// transaction adds or rewrites the object, in the committed tree of the index file when it commits.
//
// A kind of contents has a committed tree only. What a running transaction changes is found by
// looking through its pending objects; at commit the tree follows the old and the new content of
// every object that is added, rewritten or deleted.
//
// Trees are reached through IndexTree, which names the file, the root and the form of the keys; a
// kind keeps nothing of its own between calls. All calls come under the table's mutex, with the
// manager attached to the tree's file. Whatever a kind changes collects in the manager: if a call
// fails, the caller drops all of it, so that a kind need not undo anything.
//
// kinds.cpp has the table of them all. A kind is called once for an operation, not for a key.

#ifndef ZELTA_INDEX_KIND_H
#define ZELTA_INDEX_KIND_H

#include <cstdint>
#include <memory>

#include "index/keys/keys.h"
#include "index/search/index_search.h"
#include "index/tree/index_tree.h"
#include "schema/record_reader.h"
#include "storage/trees/avl_tree.h"

namespace zelta {

/// How the keys of an index (from 0) are made. They come from the index's pool.
struct KeyMaker {
  /// Of an entry of `from.object`, which is there and has its fixed area. `*key` stays null if the
  /// object has no such entry.
  Result (*ofObject)(Table& table, std::uint32_t index, const KeySource& from, std::uint32_t** key);
  /// Of the values that a caller packs to read or to search.
  Result (*ofValues)(Table& table, std::uint32_t index, const void* values, std::uint32_t** key);
};

class EntryFilter;

/// The objects in either of two sets, which may be empty (null).
struct ObjectSets {
  UInt64AVLTree* first = nullptr;
  UInt64AVLTree* second = nullptr;

  [[nodiscard]] bool contain(std::uint64_t objectID) const {
    return find(second, objectID) != nullptr || find(first, objectID) != nullptr;
  }
};

/// A kind with keys. The first four functions are there. Keys have the shape of the tree and belong
/// to the caller.
struct KeyKind {
  /// Enters a key of an object. Own code 37 if the tree cannot take it beside what it has.
  Result (*insert)(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID);
  /// Takes one entry of a key of an object out. Own code 32 if it is not there; but an empty tree
  /// of unique keys has nothing to remove: success.
  Result (*remove)(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID);
  /// How many entries of this key the tree has for this object: more than one only where an object
  /// may have one key in several rows.
  Result (*count)(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID,
                  std::uint32_t* count);
  /// At commit and at abort: takes the entries of objects out of a pending tree, and enters them in
  /// the committed tree (null: just drops them).
  Result (*merge)(const IndexTree& pending, const ObjectSets& objects, const IndexTree* committed);

  /// Hands all entries of a tree that has a root, and that a key of a search means, to the filter,
  /// in any order. Null: the kind is not searched by keys.
  Result (*search)(const IndexTree& tree, const std::uint32_t* key, EntryFilter& filter) = nullptr;

  // Of a kind in which no two objects can have one key; null in any other.

  /// Who has a key. Own code 32, without a text: nobody.
  Result (*find)(const IndexTree& tree, const std::uint32_t* key,
                 std::uint64_t* objectID) = nullptr;
  /// Gives a key to another object. Own code 32 if the key is not there or is not `oldID`'s.
  Result (*replaceID)(const IndexTree& tree, const std::uint32_t* key, std::uint64_t oldID,
                      std::uint64_t newID) = nullptr;

  [[nodiscard]] bool hasUniqueKeys() const { return find != nullptr; }
};

/// What becomes of the content of an object. Bytes begin with the version word; no `data`: the
/// object is new, or is gone.
struct ContentChange {
  std::uint64_t objectID = 0;
  ObjectBytes before;
  ObjectBytes after;
};

/// Changes of many objects on their way into one committed tree, so that what they have in common
/// can be done once for all of them.
class ContentUpdate {
 public:
  ContentUpdate() = default;
  ContentUpdate(const ContentUpdate&) = delete;
  ContentUpdate& operator=(const ContentUpdate&) = delete;
  virtual ~ContentUpdate() = default;

  /// Takes a change, whose bytes are good during the call. No object comes twice.
  virtual Result change(const ContentChange& change) = 0;
  /// Brings what was not yet brought into the tree. Nothing comes after it.
  virtual Result finish() = 0;
};

/// Whether the same changes may have been brought into a tree before.
enum class ContentMode {
  once,
  repeated  ///< some or all: the tree ends as if they were brought in now
};

/// A kind of contents.
struct ContentKind {
  std::unique_ptr<ContentUpdate> (*begin)(const IndexTree& committed, ContentMode mode);
  /// Whether an index (from 0) can follow an object that is to be stored: asked before that, since
  /// a commit that is decided cannot refuse it any more. Null: it can follow all.
  Result (*check)(const Table& table, std::uint32_t index, const ObjectBytes& object) = nullptr;
};

}  // namespace zelta

#endif  // ZELTA_INDEX_KIND_H
