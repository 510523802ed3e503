#include "storage/free_space/free_chain.h"

#include <cassert>
#include <cstring>
#include <memory>

#include "platform/file_io.h"
#include "storage/free_space/free_journal.h"
#include "storage/paged/atomic_manager_writer.h"
#include "storage/trees/avl_detail.h"

namespace zelta {

namespace {

/// No sum wraps: load() has checked both against kPositionLimit, and spans lie within files.
std::uint64_t endOf(const FreeBlock& block) { return block.position + block.size; }

/// The first block from `node` on that has an entry in the journal.
const FreeBlock* dirtyFrom(const FreeBlock* node) {
  while (node != nullptr && node->dirty == 0) node = node->nextNode;
  return node;
}

/// Whether a block and a span behind it may become one block: they touch, and the size has room.
template <class Form>
bool joinable(const FreeBlock& first, FileSpan second) {
  return endOf(first) == second.position && first.size <= Form::kLargest - second.size;
}

/// Whether a block just read at `position` can follow the one before it: the chain ascends and
/// nothing overlaps, so that a walk over a damaged one comes to an end.
template <class Form>
bool plausible(const FreeBlock* before, std::uint64_t position, const typename Form::Head& head) {
  if (position >= kPositionLimit || head.size < Form::kHeadSize || head.size >= kPositionLimit) {
    return false;
  }
  if (before != nullptr && position < endOf(*before)) return false;
  return head.next == 0 || head.next >= position + head.size;
}

}  // namespace

template <class Form>
Result FreeChain<Form>::broken() {
  return reportError(&metaData_, Own::freeList);
}

template <class Form>
void FreeChain<Form>::deleteList() {
  while (list_ != nullptr) {
    const std::unique_ptr<FreeBlock> node(list_);
    list_ = node->nextNode;
  }
}

// -- The list, and its continuation in the file ---------------------------------------------------

template <class Form>
std::uint64_t FreeChain<Form>::positionAt(Place place) const {
  if (place.at != nullptr) return place.at->position;
  return place.before != nullptr ? place.before->next : head_;
}

/// Reads the block at the end of the list.
template <class Form>
Result FreeChain<Form>::load(Place& place) {
  assert(place.at == nullptr);
  assert(place.before == nullptr || place.before->nextNode == nullptr);
  const std::uint64_t position = positionAt(place);
  assert(position != 0);
  typename Form::Head head{};
  const SystemCode result = readBuffer(file_, position, &head, Form::kHeadSize);
  if (result != 0) return reportSystemError(&metaData_, result);
  if (head.marker != kFreeMarker || !plausible<Form>(place.before, position, head)) return broken();
  place.at = new FreeBlock{{position, head.next, head.size, head.size, 0, 0, {}}, nullptr};
  link(place);
  return {};
}

/// Moves to the first place at or behind which `position` lies.
template <class Form>
Result FreeChain<Form>::seek(Place& place, std::uint64_t position) {
  for (;;) {
    const std::uint64_t at = positionAt(place);
    if (at == 0 || at >= position) return {};
    if (place.at == nullptr) ZELTA_TRY(load(place));
    place = {place.at, place.at->nextNode};
  }
}

/// Moves to the place where a span belongs, which must not overlap what is free. A block behind
/// that does not touch stays unread.
template <class Form>
Result FreeChain<Form>::seekGap(Place& place, FileSpan span) {
  ZELTA_TRY(seek(place, span.position));
  if (place.at == nullptr && positionAt(place) == span.end()) ZELTA_TRY(load(place));
  // Both neighbours must keep clear of the span. If one does not, either the file is damaged or the
  // span was released before; both would give the same bytes out twice.
  const std::uint64_t behind = positionAt(place);
  if (behind != 0 && behind < span.end()) return broken();
  if (place.before != nullptr && endOf(*place.before) > span.position) return broken();
  return {};
}

/// Puts a new dirty block at a place; it is the block at the place then.
template <class Form>
void FreeChain<Form>::insert(Place& place, FileSpan span) {
  assert(place.before == nullptr || endOf(*place.before) <= span.position);
  const std::uint64_t next = positionAt(place);
  assert(next == 0 || next >= span.end());
  place.at = new FreeBlock{{span.position, next, span.size, 0, 0, 1, {}}, place.at};
  link(place);
  leadTo(place.before, span.position);
}

/// Takes the block at a place out of the chain; the one behind it is at the place then.
template <class Form>
void FreeChain<Form>::unlink(Place& place) {
  assert(place.at != nullptr);
  const std::unique_ptr<FreeBlock> node(place.at);
  place.at = node->nextNode;
  link(place);
  leadTo(place.before, node->next);
}

/// Points the block before a place, or the chain's head, at `position`.
template <class Form>
void FreeChain<Form>::leadTo(FreeBlock* before, std::uint64_t position) {
  if (before == nullptr) {
    head_ = position;
  } else if (before->next != position) {
    before->next = position;
    before->dirty = 1;
  }
}

// -- Releasing and allocating ---------------------------------------------------------------------

/// Lets the block before a place, if it ends at the released span, take that over, and then the
/// block behind as well if the two touch.
template <class Form>
bool FreeChain<Form>::extendPredecessor(Place place, FileSpan span) {
  FreeBlock* node = place.before;
  if (node == nullptr || !joinable<Form>(*node, span)) return false;
  node->size += span.size;
  node->dirty = 1;
  if (place.at != nullptr && joinable<Form>(*node, {place.at->position, place.at->size})) {
    node->size += place.at->size;
    unlink(place);
  }
  return true;
}

/// Lets the block behind a place, if it begins at the end of the released span, take that over.
template <class Form>
bool FreeChain<Form>::extendSuccessor(Place place, FileSpan span) {
  FreeBlock* node = place.at;
  if (node == nullptr || span.end() != node->position || node->size > Form::kLargest - span.size) {
    return false;
  }
  node->position = span.position;
  node->size += span.size;
  node->dirty = 1;
  leadTo(place.before, span.position);
  return true;
}

template <class Form>
Result FreeChain<Form>::release(FileSpan span) {
  Place place = front();
  assert(!merged_);
  ZELTA_TRY(seekGap(place, span));
  if (!extendPredecessor(place, span) && !extendSuccessor(place, span)) insert(place, span);
  return {};
}

template <class Form>
void FreeChain<Form>::releaseInFront(FileSpan span) {
  Place place = front();
  insert(place, span);
}

template <class Form>
Result FreeChain<Form>::allocate(std::uint64_t size, FileSpan* out, std::uint64_t lowest) {
  *out = {0, 0};
  const std::uint64_t wanted = need(size);
  assert(!merged_);
  Place place = front();
  while (positionAt(place) != 0) {
    if (place.at == nullptr) ZELTA_TRY(load(place));
    FreeBlock* node = place.at;
    if (node->size < wanted || node->position < lowest) {
      place = {node, node->nextNode};
      continue;
    }
    if (node->size < wanted + minimum_) {
      *out = {node->position, node->size};
      unlink(place);
      return {};
    }
    // The tail is given out: the head, and with it the links of the chain, stay where they are.
    node->size -= wanted;
    node->dirty = 1;
    *out = {endOf(*node), wanted};
    return {};
  }
  return {};
}

// -- Merging --------------------------------------------------------------------------------------

/// Puts the deferred spans at their places in the list, unjoined, and reads what may touch them.
template <class Form>
Result FreeChain<Form>::insertDeferred() {
  assert(!merged_);
  avl::Walk<const FreeExtentNode> walk(deferred_.root());
  Place place = front();
  while (const FreeExtentNode* extent = walk.next()) {
    ZELTA_TRY(seekGap(place, extent->span));
    insert(place, extent->span);
    place = {place.at, place.at->nextNode};
  }
  return {};
}

/// Joins neighbours. Returns the place of the first block of the run that ends the list.
template <class Form>
typename FreeChain<Form>::Place FreeChain<Form>::coalesce() {
  Place current = front();
  Place run = current;
  while (current.at != nullptr && current.at->nextNode != nullptr) {
    Place following{current.at, current.at->nextNode};
    if (joinable<Form>(*current.at, {following.at->position, following.at->size})) {
      current.at->size += following.at->size;
      current.at->dirty = 1;
      unlink(following);
      continue;
    }
    assert(endOf(*current.at) <= following.at->position);
    // Blocks that touch, but are too large to be one, still form one run: all of it can vanish at
    // the end of the file.
    if (endOf(*current.at) != following.at->position) run = following;
    current = following;
  }
  return run;
}

template <class Form>
Result FreeChain<Form>::merge(std::uint64_t endOfFile, std::uint64_t* newEnd) {
  *newEnd = endOfFile;
  ZELTA_TRY(insertDeferred());
  merged_ = true;
  Place run = coalesce();
  // The run ends the list, and so the chain, only if the chain has nothing behind it that is
  // unread; a chain that goes on leads further up, so that its known part cannot reach the end of
  // the file.
  const FreeBlock* last = run.at;
  while (last != nullptr && last->nextNode != nullptr) last = last->nextNode;
  // A block that leads out of the file does not end it: what lies behind it may be in use.
  if (last != nullptr && endOf(*last) > endOfFile) return broken();
  if (last != nullptr && endOf(*last) == endOfFile) {
    *newEnd = run.at->position;
    while (run.at != nullptr) unlink(run);
    leadTo(run.before, 0);
  }
  return {};
}

// -- The journal ----------------------------------------------------------------------------------

template <class Form>
std::uint32_t FreeChain<Form>::sumEntries(std::uint64_t* checksum64) const {
  assert(deferred_.empty() || merged_);
  std::uint32_t count = 0;
  for (auto* node = dirtyFrom(list_); node != nullptr; node = dirtyFrom(node->nextNode)) {
    ++count;
    const FreeEntry_tag* entry = node;
    if (checksum64 != nullptr) xorChecksum64(*checksum64, entry, sizeof *entry);
  }
  return count;
}

template <class Form>
SystemCode FreeChain<Form>::writeEntries(GatheredWriter& writer, std::uint64_t& position) const {
  assert(deferred_.empty() || merged_);
  for (auto* node = dirtyFrom(list_); node != nullptr; node = dirtyFrom(node->nextNode)) {
    const FreeEntry_tag* entry = node;
    const SystemCode result = writer.write(position, entry, sizeof *entry);
    if (result != 0) return result;
    position += sizeof *entry;
  }
  return 0;
}

template <class Form>
char* FreeChain<Form>::copyEntries(char* out) const {
  assert(deferred_.empty() || merged_);
  for (auto* node = dirtyFrom(list_); node != nullptr; node = dirtyFrom(node->nextNode)) {
    const FreeEntry_tag* entry = node;
    std::memcpy(out, entry, sizeof *entry);
    out += sizeof *entry;
  }
  return out;
}

template <class Form>
Result FreeChain<Form>::apply() const {
  assert(deferred_.empty() || merged_);
  for (auto* node = dirtyFrom(list_); node != nullptr; node = dirtyFrom(node->nextNode)) {
    const SystemCode result = writeFreeBlock<Form>(file_, *node);
    if (result != 0) return reportSystemError(&metaData_, result);
  }
  return {};
}

template class FreeChain<PageBlocks>;
template class FreeChain<TableBlocks>;
template class FreeChain<LogBlocks>;

}  // namespace zelta
