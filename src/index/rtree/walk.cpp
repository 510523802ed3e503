#include "index/rtree/walk.h"

#include <algorithm>

namespace zelta {

template <class Entry>
std::uint64_t RTreeWalk<Entry>::pageBytes() const {
  const std::uint64_t unit = std::max(tree.pageSize(), 1u);
  const std::uint64_t least = 48 + 5 * sizeof(Entry);
  return (least + unit - 1) / unit * unit;
}

template <class Entry>
Result RTreeWalk<Entry>::look(std::uint64_t position, TreePage* page, RTreeHead* head) const {
  std::uint32_t size = 0;
  ZELTA_TRY(pages_.peek(position, page, &size));
  if (size < RTreeHead::kBytes) return corrupted();
  *head = RTreeHead::of(page->bytes());
  const bool known = head->leaf() || head->tag == RTreeHead::kBranch;
  return known && head->size == size ? Result() : corrupted();
}

template <class Entry>
Result RTreeWalk<Entry>::loadBranch(const RTreePath::Step& step, PageRole role,
                                    Branch* node) const {
  ZELTA_TRY(load(step.position, false, role, node));
  return step.entry < node->count() ? Result() : corrupted();
}

template <class Entry>
Result RTreeWalk<Entry>::find(const Entry& entry, std::uint64_t objectID, RTreePath* path,
                              bool* found) const {
  const Bounds bounds = boundsOf(entry);
  return visit(
      path, found, [&](const Bounds& child) { return child.contains(bounds); },
      [&](const Leaf& leaf, RTreePath::Step& step) {
        for (step.entry = 0; step.entry < leaf.count(); ++step.entry) {
          if (leaf.value(step.entry) == objectID && leaf.key(step.entry) == entry) return true;
        }
        return false;
      });
}

#define ZELTA_INSTANCE(Entry) template class RTreeWalk<Entry>;
ZELTA_EACH_RTREE_ENTRY(ZELTA_INSTANCE)

}  // namespace zelta
