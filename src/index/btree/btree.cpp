#include "index/btree/btree.h"

#include "index/btree/cursor.h"
#include "index/btree/walk.h"

namespace zelta {

Result bplusFind(const IndexTree& tree, const std::uint32_t* key, std::uint64_t* objectID) {
  BPlusCursor cursor(tree, PageRole::node);
  ZELTA_TRY(cursor.seek(CZELTA::ReadEqual, key));
  if (!cursor.valid()) return Result::own(Own::keyNotFound);
  *objectID = cursor.objectID();
  return {};
}

Result bplusCount(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID,
                  std::uint32_t* count) {
  std::uint64_t holder = 0;
  const Result result = bplusFind(tree, key, &holder);
  *count = result.ok() && holder == objectID ? 1 : 0;
  return result.is(Own::keyNotFound) ? Result{} : result;
}

Result bplusReplaceID(const IndexTree& tree, const std::uint32_t* key, std::uint64_t oldID,
                      std::uint64_t newID) {
  BPlusWalk walk(tree, BPlusWalk::Purpose::search);
  if (tree.root() == 0) return tree.keyMissing(oldID);
  BPlusPath path;
  BPlusNode leaf;
  ZELTA_TRY(walk.descend(key, path, leaf));
  const BPlusNode::Place place = leaf.lower(key);
  if (!place.equal || leaf.objectID(place.number) != oldID) return tree.keyMissing(oldID);
  leaf.setPointer(place.number, newID);
  return walk.store(path.steps[path.last()].position, leaf);
}

}  // namespace zelta
