// Divides the entries of an overfull node between two nodes, by joining what lies closest together
// until two groups are left, and then evening out their numbers.

#ifndef ZELTA_INDEX_RTREE_CLUSTERING_H
#define ZELTA_INDEX_RTREE_CLUSTERING_H

#include <cstdint>
#include <memory>

#include "index/rtree/node.h"

namespace zelta {

template <class Key>
class Clustering {
 public:
  /// Takes the entries of two nodes, those of `first` in front; together they have two at least.
  Clustering(const RTreeNode<Key>& first, const RTreeNode<Key>& second);
  Clustering(const Clustering&) = delete;
  Clustering& operator=(const Clustering&) = delete;

  void divide();
  /// Entries of group 0 or 1.
  [[nodiscard]] std::uint32_t size(std::uint32_t group) const { return groups_[group]->count; }
  /// Fills a node with a group. It must hold so many.
  void write(std::uint32_t group, RTreeNode<Key>& node) const;

 private:
  using Region = decltype(regionOf(std::declval<const Key&>()));
  static constexpr std::uint32_t kNone = 0xFFFFFFFF;

  /// An entry, and the group that began with it.
  struct Member {
    Key key;
    std::uint64_t value;
    std::uint32_t next;  ///< in its group

    // Of the group
    Region region;
    std::uint32_t first;
    std::uint32_t last;
    std::uint32_t count;
    std::uint32_t following;  ///< the next group
    std::uint32_t preceding;
    // The group behind this one that takes the least room together with it, the first of equals
    std::uint32_t partner;
    std::int64_t joinedSize;
  };

  void take(const RTreeNode<Key>& node);
  void join(std::uint32_t group);
  void findPartner(std::uint32_t group);
  void revisePartners(std::uint32_t grown, std::uint32_t gone);
  void even();
  void moveOne(Member& larger, Member& smaller);

  static constexpr std::uint32_t kInPlace = 104;
  Member inPlace_[kInPlace];
  std::unique_ptr<Member[]> large_;
  Member* members_;
  std::uint32_t count_ = 0;
  Member* groups_[2] = {};
};

}  // namespace zelta

#endif  // ZELTA_INDEX_RTREE_CLUSTERING_H
