#include "storage/free_space.h"

#include <memory>
#include <vector>

#include "storage/avl_detail.h"
#include "storage/free_space_detail.h"

namespace zelta {

namespace {

using free_space::chainIsBroken;
using free_space::kPositionLimit;
using free_space::Narrow;
using free_space::Wide;

std::uint64_t endOf(const FreeBlock& block) { return block.position + block.size; }

/// A place in the list: the node before it and the node at it, either may be null.
struct Place {
  FreeBlock* before = nullptr;
  FreeBlock* at = nullptr;
};

/// The list and its continuation in the file. All changes to the list go through here.
template <class Form>
class Chain {
 public:
  Chain(MetaData& metaData, platform::File file, FreeBlock*& list, std::uint64_t& head)
      : metaData_(metaData), file_(file), list_(list), head_(head) {}

  /// The place at the front.
  [[nodiscard]] Place front() const { return {nullptr, list_}; }

  /// Position of the block at a place, 0 at the chain's end. At the end of the list that block is
  /// still to be read.
  [[nodiscard]] std::uint64_t positionAt(Place place) const {
    if (place.at != nullptr) return place.at->position;
    return place.before != nullptr ? place.before->next : head_;
  }

  /// Reads the block at the end of the list.
  Result load(Place& place) {
    const std::uint64_t position = positionAt(place);
    typename Form::Head head{};
    const SystemCode result = readBuffer(file_, position, &head, Form::kHeadSize);
    if (result != 0) return reportSystemError(&metaData_, result);
    if (head.marker != kFreeMarker || !plausible(place, position, head)) {
      return chainIsBroken(metaData_);
    }
    place.at = new FreeBlock{position, head.next, head.size, head.size, 0, 0, {}, nullptr};
    link(place);
    return {};
  }

  /// Moves to the first place at or behind which `position` lies.
  Result seek(Place& place, std::uint64_t position) {
    for (;;) {
      const std::uint64_t at = positionAt(place);
      if (at == 0 || at >= position) return {};
      if (place.at == nullptr) ZELTA_TRY(load(place));
      place = {place.at, place.at->nextNode};
    }
  }

  /// Puts a new dirty block at a place; it is the block at the place then.
  void insert(Place& place, std::uint64_t position, std::uint64_t size) {
    const std::uint64_t next = positionAt(place);
    auto* node = new FreeBlock{position, next, size, 0, 0, 1, {}, place.at};
    place.at = node;
    link(place);
    leadTo(place.before, position);
  }

  /// Takes the block at a place out of the chain.
  void unlink(Place& place) {
    const std::unique_ptr<FreeBlock> node(place.at);
    place.at = node->nextNode;
    link(place);
    leadTo(place.before, node->next);
  }

  /// Points the block before a place, or the chain's head, at `position`.
  void leadTo(FreeBlock* before, std::uint64_t position) {
    if (before == nullptr) {
      head_ = position;
    } else if (before->next != position) {
      before->next = position;
      before->dirty = 1;
    }
  }

  static bool joinable(const FreeBlock& first, std::uint64_t position, std::uint64_t size) {
    return endOf(first) == position && first.size <= Form::kLargest - size;
  }

 private:
  /// Whether a block just read can follow the one before it: the chain ascends and nothing
  /// overlaps, so that a walk over a damaged one comes to an end.
  static bool plausible(Place place, std::uint64_t position, const typename Form::Head& head) {
    if (position >= kPositionLimit || head.size < Form::kHeadSize || head.size >= kPositionLimit) {
      return false;
    }
    if (place.before != nullptr && position < endOf(*place.before)) return false;
    return head.next == 0 || head.next >= position + head.size;
  }

  void link(Place place) { (place.before != nullptr ? place.before->nextNode : list_) = place.at; }

  MetaData& metaData_;
  platform::File file_;
  FreeBlock*& list_;
  std::uint64_t& head_;
};

/// Lets the block behind a place, if it begins at the end of the released one, take that over.
template <class Form>
bool growDown(Chain<Form>& chain, Place place, std::uint64_t position, std::uint64_t size) {
  FreeBlock* node = place.at;
  if (node == nullptr || position + size != node->position || node->size > Form::kLargest - size) {
    return false;
  }
  node->position = position;
  node->size += size;
  node->dirty = 1;
  chain.leadTo(place.before, position);
  return true;
}

/// Lets the block before a place, if it ends at the released one, take that over, and then the
/// block behind as well if the two touch.
template <class Form>
bool growUp(Chain<Form>& chain, Place place, std::uint64_t position, std::uint64_t size) {
  FreeBlock* node = place.before;
  if (node == nullptr || !Chain<Form>::joinable(*node, position, size)) return false;
  node->size += size;
  node->dirty = 1;
  if (place.at != nullptr && Chain<Form>::joinable(*node, place.at->position, place.at->size)) {
    node->size += place.at->size;
    chain.unlink(place);
  }
  return true;
}

template <class Form>
Result addBlock(MetaData& metaData, platform::File file, FreeBlock*& list, std::uint64_t& head,
                std::uint64_t position, std::uint64_t size) {
  Chain<Form> chain(metaData, file, list, head);
  Place place = chain.front();
  ZELTA_TRY(chain.seek(place, position));
  // A block behind that does not touch stays unread.
  if (place.at == nullptr && chain.positionAt(place) == position + size) {
    ZELTA_TRY(chain.load(place));
  }
  const std::uint64_t behind = chain.positionAt(place);
  if ((behind != 0 && behind < position + size) ||
      (place.before != nullptr && endOf(*place.before) > position)) {
    return chainIsBroken(metaData);
  }
  if (growUp(chain, place, position, size) || growDown(chain, place, position, size)) return {};
  chain.insert(place, position, size);
  return {};
}

template <class Form>
Result allocate(MetaData& metaData, platform::File file, FreeBlock*& list, std::uint64_t& head,
                std::uint64_t need, std::uint64_t threshold, std::uint64_t lowest,
                std::uint64_t* outPosition, std::uint64_t* outSize) {
  *outPosition = 0;
  *outSize = 0;
  Chain<Form> chain(metaData, file, list, head);
  Place place = chain.front();
  while (chain.positionAt(place) != 0) {
    if (place.at == nullptr) ZELTA_TRY(chain.load(place));
    FreeBlock* node = place.at;
    if (node->size < need || node->position < lowest) {
      place = {node, node->nextNode};
      continue;
    }
    if (node->size < threshold) {
      *outPosition = node->position;
      *outSize = node->size;
      chain.unlink(place);
      return {};
    }
    // The tail is given out: the head, and with it the links of the chain, stay where they are.
    node->size -= need;
    node->dirty = 1;
    *outPosition = endOf(*node);
    *outSize = need;
    return {};
  }
  return {};
}

/// Puts the extents at their places in the list, unjoined, and reads what may touch them.
template <class Form>
Result threadExtents(MetaData& metaData, Chain<Form>& chain, FreeExtentNode* extents) {
  avl::Walk<FreeExtentNode> walk(extents);
  Place place = chain.front();
  while (const FreeExtentNode* extent = walk.next()) {
    const std::uint64_t end = extent->position + extent->size;
    ZELTA_TRY(chain.seek(place, extent->position));
    if (place.at == nullptr && chain.positionAt(place) == end) ZELTA_TRY(chain.load(place));
    const std::uint64_t behind = chain.positionAt(place);
    if ((behind != 0 && behind < end) ||
        (place.before != nullptr && endOf(*place.before) > extent->position)) {
      return chainIsBroken(metaData);
    }
    chain.insert(place, extent->position, extent->size);
    place = {place.at, place.at->nextNode};
  }
  return {};
}

/// Joins neighbours. Returns the place of the first block of the run that ends the list.
template <class Form>
Place joinNeighbours(Chain<Form>& chain) {
  Place current = chain.front();
  Place run = current;
  while (current.at != nullptr && current.at->nextNode != nullptr) {
    Place following{current.at, current.at->nextNode};
    if (Chain<Form>::joinable(*current.at, following.at->position, following.at->size)) {
      current.at->size += following.at->size;
      current.at->dirty = 1;
      chain.unlink(following);
      continue;
    }
    if (endOf(*current.at) != following.at->position) run = following;
    current = following;
  }
  return run;
}

template <class Form>
Result merge(MetaData& metaData, platform::File file, std::uint64_t& head, std::uint64_t endOfFile,
             FreeExtentNode* extents, FreeBlock*& list, std::uint64_t* outEnd,
             std::uint32_t* journalCount, std::uint64_t* checksum64) {
  *outEnd = endOfFile;
  Chain<Form> chain(metaData, file, list, head);
  ZELTA_TRY(threadExtents(metaData, chain, extents));
  Place run = joinNeighbours(chain);
  const FreeBlock* last = run.at;
  while (last != nullptr && last->nextNode != nullptr) last = last->nextNode;
  // A block that leads out of the file does not end it: what lies behind it may be in use.
  if (last != nullptr && endOf(*last) > endOfFile) return chainIsBroken(metaData);
  if (last != nullptr && endOf(*last) == endOfFile) {
    *outEnd = run.at->position;
    while (run.at != nullptr) chain.unlink(run);
    chain.leadTo(run.before, 0);
  }
  if (journalCount == nullptr) return {};
  for (const FreeBlock* node = list; node != nullptr; node = node->nextNode) {
    if (node->dirty == 0) continue;
    ++*journalCount;
    if (checksum64 != nullptr) xorChecksum64(*checksum64, node, kFreeEntrySize);
  }
  return {};
}

/// Positions are unique; they need nothing to tell them apart.
struct ExtentOrder {
  using Node = FreeExtentNode;
  int compareKey(const Node& node, std::uint64_t position) const {
    return node.position < position ? -1 : (node.position > position ? 1 : 0);
  }
  bool before(const Node& a, const Node& b) const { return a.position < b.position; }
};
constexpr ExtentOrder kExtentOrder{};

}  // namespace

int insert(FreeExtentNode* node, FreeExtentNode*& root) {
  return avl::insert(kExtentOrder, node, root);
}
int remove(FreeExtentNode* node, FreeExtentNode*& root) {
  return avl::remove(kExtentOrder, node, root);
}
FreeExtentNode* find(FreeExtentNode* root, std::uint64_t position) {
  return avl::find(kExtentOrder, root, position);
}
std::uint32_t count(const FreeExtentNode* root) { return avl::count(root); }
FreeExtentNode** flatten(FreeExtentNode* root, FreeExtentNode** out) {
  return avl::flatten(root, out, static_cast<FreeExtentNode* const*>(nullptr));
}
void destroyAll(FreeExtentNode*& root) {
  avl::postOrder(avl::detachAll(root), [](FreeExtentNode* node) { delete node; });
}

void dropFreeList(FreeBlock*& list) {
  while (list != nullptr) {
    const std::unique_ptr<FreeBlock> node(list);
    list = node->nextNode;
  }
}

Result addFreeBlock(MetaData& metaData, platform::File file, FreeBlock*& list, std::uint64_t& head,
                    std::uint64_t position, std::uint32_t size) {
  return addBlock<Narrow>(metaData, file, list, head, position, size);
}

Result allocateBlock(MetaData& metaData, platform::File file, FreeBlock*& list, std::uint64_t& head,
                     std::uint32_t size, std::uint64_t* outPosition, std::uint32_t* outSize,
                     std::uint32_t minimum, std::uint64_t lowest) {
  const std::uint64_t need = blockNeed(size, minimum);
  std::uint64_t found = 0;
  const Result result = allocate<Narrow>(metaData, file, list, head, need, need + minimum, lowest,
                                         outPosition, &found);
  *outSize = static_cast<std::uint32_t>(found);
  return result;
}

Result mergeFreeExtents(MetaData& metaData, platform::File file, std::uint64_t& head,
                        std::uint64_t endOfFile, FreeExtentNode* extents, FreeBlock*& list,
                        std::uint64_t* outEnd, std::uint32_t* journalCount,
                        std::uint64_t* checksum64) {
  return merge<Narrow>(metaData, file, head, endOfFile, extents, list, outEnd, journalCount,
                       checksum64);
}

Result addWideBlock(MetaData& metaData, platform::File file, FreeBlock*& list, std::uint64_t& head,
                    std::uint64_t position, std::uint64_t size) {
  return addBlock<Wide>(metaData, file, list, head, position, size);
}

Result allocateWideBlock(MetaData& metaData, platform::File file, FreeBlock*& list,
                         std::uint64_t& head, std::uint64_t size, std::uint64_t* outPosition,
                         std::uint64_t* outSize, std::uint64_t minimum) {
  const std::uint64_t need = wideBlockNeed(size, minimum);
  return allocate<Wide>(metaData, file, list, head, need, need + minimum, 0, outPosition, outSize);
}

Result mergeWideExtents(MetaData& metaData, platform::File file, std::uint64_t& head,
                        std::uint64_t endOfFile, FreeExtentNode* extents, FreeBlock*& list,
                        std::uint64_t* outEnd, std::uint32_t* journalCount,
                        std::uint64_t* checksum64) {
  return merge<Wide>(metaData, file, head, endOfFile, extents, list, outEnd, journalCount,
                     checksum64);
}

}  // namespace zelta
