// Trees of bounds. A leaf has boxes, spans or points with the objects that have them; each branch
// knows the bounds of all that lies below each of its children. Equal entries may stand in a tree
// any number of times.
//
// The functions are there for all entries of ZELTA_EACH_RTREE_ENTRY. Failures name the table and
// the index; a damaged tree has the code of its kind (52, 64 or 65).

#ifndef ZELTA_INDEX_RTREE_RTREE_H
#define ZELTA_INDEX_RTREE_RTREE_H

#include <cstdint>

#include "index/kind.h"
#include "index/rtree/geometry.h"
#include "index/rtree/walk.h"
#include "index/tree/index_tree.h"

namespace zelta {

template <class Entry>
Result rtreeInsert(const IndexTree& tree, const Entry& entry, std::uint64_t objectID);

/// Takes one of the object's entries like this out. Own code 32: the tree has none.
template <class Entry>
Result rtreeRemove(const IndexTree& tree, const Entry& entry, std::uint64_t objectID);

/// Writes an entry of the object over one that has the same bounds. Own code 32: the tree has none
/// like `entry`.
template <class Entry>
Result rtreeReplace(const IndexTree& tree, const Entry& entry, std::uint64_t objectID,
                    const Entry& other);

/// How many entries like this an object has.
template <class Entry>
Result rtreeCount(const IndexTree& tree, const Entry& entry, std::uint64_t objectID,
                  std::uint32_t* count);

/// Takes the entries of objects out of a pending tree, and enters them in the committed tree (null:
/// just drops them). What is left of the pending tree is packed.
template <class Entry>
Result rtreeMerge(const IndexTree& pending, const ObjectSets& objects, const IndexTree* committed);

/// Hands all entries that overlap some bounds to `take(entry, objectID)`, which does not use the
/// manager.
template <class Entry, class Take>
Result rtreeSearch(const IndexTree& tree, const BoundsOf<Entry>& bounds, Take take) {
  using Walk = RTreeWalk<Entry>;
  return Walk(tree).visitLeaves(
      [&](const BoundsOf<Entry>& child) { return child.overlaps(bounds); },
      [&](const typename Walk::Leaf& leaf) {
        leaf.select([&](const Entry& entry) { return bounds.overlaps(boundsOf(entry)); },
                    [&](std::uint32_t i) { take(leaf.key(i), leaf.value(i)); });
      });
}

}  // namespace zelta

#endif  // ZELTA_INDEX_RTREE_RTREE_H
