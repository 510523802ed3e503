#include "index/rtree/clustering.h"

#include <cassert>

namespace zelta {

template <class Key>
Clustering<Key>::Clustering(const RTreeNode<Key>& first, const RTreeNode<Key>& second)
    : members_(inPlace_) {
  const std::uint32_t total = first.count() + second.count();
  assert(total >= 2);
  if (total > kInPlace) {
    large_.reset(new Member[total]);
    members_ = large_.get();
  }
  take(first);
  take(second);
}

template <class Key>
void Clustering<Key>::take(const RTreeNode<Key>& node) {
  for (std::uint32_t i = 0; i < node.count(); ++i, ++count_) {
    Member& member = members_[count_];
    member.key = node.key(i);
    member.value = node.value(i);
    member.next = kNone;
    member.region = regionOf(member.key);
    member.first = count_;
    member.last = count_;
    member.count = 1;
    member.following = count_ + 1;
    member.preceding = count_ == 0 ? kNone : count_ - 1;
  }
}

template <class Key>
void Clustering<Key>::divide() {
  members_[count_ - 1].following = kNone;
  for (std::uint32_t i = 0; i < count_; ++i) findPartner(i);
  for (std::uint32_t left = count_; left > 2; --left) {
    std::uint32_t best = 0;
    for (std::uint32_t g = members_[0].following; g != kNone; g = members_[g].following) {
      if (members_[g].partner == kNone) break;  // the last
      if (members_[g].joinedSize < members_[best].joinedSize) best = g;
    }
    join(best);
  }
  // The first group never leaves its place.
  groups_[0] = &members_[0];
  groups_[1] = &members_[members_[0].following];
  even();
}

template <class Key>
void Clustering<Key>::findPartner(std::uint32_t group) {
  Member& member = members_[group];
  member.partner = kNone;
  for (std::uint32_t g = member.following; g != kNone; g = members_[g].following) {
    const std::int64_t size = member.region.joinedSize(members_[g].region);
    if (member.partner != kNone && size >= member.joinedSize) continue;
    member.partner = g;
    member.joinedSize = size;
  }
}

/// Joins a group with its partner, in the group's place.
template <class Key>
void Clustering<Key>::join(std::uint32_t group) {
  Member& grown = members_[group];
  const std::uint32_t partner = grown.partner;
  Member& gone = members_[partner];
  grown.region.join(gone.region);
  members_[grown.last].next = partner;
  grown.last = gone.last;
  grown.count += gone.count;
  members_[gone.preceding].following = gone.following;
  if (gone.following != kNone) members_[gone.following].preceding = gone.preceding;
  revisePartners(group, partner);
}

/// Of all pairs only those with the two groups have changed.
template <class Key>
void Clustering<Key>::revisePartners(std::uint32_t grown, std::uint32_t gone) {
  for (std::uint32_t g = 0; g != kNone && g < gone; g = members_[g].following) {
    Member& member = members_[g];
    if (g == grown || member.partner == gone || member.partner == grown) {
      findPartner(g);
    } else if (g < grown) {
      // A larger region takes no less room, but for sizes that have wrapped.
      const std::int64_t size = member.region.joinedSize(members_[grown].region);
      if (size > member.joinedSize) continue;
      if (size == member.joinedSize && grown > member.partner) continue;
      member.partner = grown;
      member.joinedSize = size;
    }
  }
}

template <class Key>
void Clustering<Key>::even() {
  const bool secondIsLarger = groups_[1]->count > groups_[0]->count;
  Member& larger = *groups_[secondIsLarger ? 1 : 0];
  Member& smaller = *groups_[secondIsLarger ? 0 : 1];
  while (larger.count > smaller.count + 1 || smaller.count == 1) moveOne(larger, smaller);
}

/// Takes the entry over that is nearest to the smaller group, the first of equals.
template <class Key>
void Clustering<Key>::moveOne(Member& larger, Member& smaller) {
  std::uint32_t best = kNone;
  std::uint32_t beforeBest = kNone;
  std::int64_t least = 0;
  std::uint32_t before = kNone;
  for (std::uint32_t m = larger.first; m != kNone; before = m, m = members_[m].next) {
    const Key& key = members_[m].key;
    const std::int64_t far = farness(key, regionOf(key), smaller.region);
    if (best != kNone && far >= least) continue;
    best = m;
    beforeBest = before;
    least = far;
  }
  assert(best != kNone);
  Member& moved = members_[best];
  (beforeBest == kNone ? larger.first : members_[beforeBest].next) = moved.next;
  if (larger.last == best) larger.last = beforeBest;
  moved.next = kNone;
  members_[smaller.last].next = best;
  smaller.last = best;
  smaller.region.join(regionOf(moved.key));
  --larger.count;
  ++smaller.count;
}

template <class Key>
void Clustering<Key>::write(std::uint32_t group, RTreeNode<Key>& node) const {
  assert(node.holds(groups_[group]->count));
  node.clear();
  for (std::uint32_t m = groups_[group]->first; m != kNone; m = members_[m].next) {
    node.append(members_[m].key, members_[m].value);
  }
}

#define ZELTA_INSTANCE(Entry) template class Clustering<Entry>;
ZELTA_EACH_RTREE_ENTRY(ZELTA_INSTANCE)

}  // namespace zelta
