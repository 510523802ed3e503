#include "index/words/word_changes.h"

#include <algorithm>
#include <cassert>

#include "index/btree/insert.h"
#include "index/btree/remove.h"
#include "index/words/word_entry.h"

namespace zelta {

Result WordWriter::apply(const ChangedWord& word) {
  word_ = word;
  expectObjects();
  form_ = Form::absent;
  if (walk_.root() == 0) {
    ZELTA_TRY(changeAll());
    return form_ == Form::absent ? Result() : plantTree(walk_, word_.key, value());
  }
  ZELTA_TRY(seek());
  const std::uint64_t before = place_.equal ? leaf_.pointer(place_.number) : 0;
  if (place_.equal) ZELTA_TRY(takeEntry(before));
  ZELTA_TRY(changeAll());
  if (!place_.equal) return form_ == Form::absent ? Result() : enter();
  return putValue(before);
}

/// Tells the chain which objects will be asked for. Changes come by ascending IDs as a rule.
void WordWriter::expectObjects() {
  const auto isBelow = [](const WordChange& a, const WordChange& b) {
    return a.objectID() < b.objectID();
  };
  const auto isNotBelow = [&](const WordChange& a, const WordChange& b) { return !isBelow(a, b); };
  const std::span<const WordChange> changes = word_.changes;
  if (std::adjacent_find(changes.begin(), changes.end(), isNotBelow) == changes.end()) {
    chain_.expect(changes);
    return;
  }
  ascending_.assign(changes.begin(), changes.end());
  std::sort(ascending_.begin(), ascending_.end(), isBelow);
  const auto end = std::unique(ascending_.begin(), ascending_.end(),
                               [&](auto& a, auto& b) { return a.objectID() == b.objectID(); });
  ascending_.erase(end, ascending_.end());
  chain_.expect(ascending_);
}

/// Goes to the leaf into which the word belongs, and to its place there.
Result WordWriter::seek() {
  const bool same =
      held_ && (!bound_.given || walk_.format.compare(word_.key, bound_.key.get()) < 0);
  if (same) {
    place_ = leaf_.lower(word_.key, place_);
  } else {
    ZELTA_TRY(leave());
    ZELTA_TRY(walk_.descend(word_.key, path_, leaf_, &bound_));
    held_ = true;
    place_ = leaf_.lower(word_.key);
  }
  return place_.offset == 0 ? walk_.corrupted() : Result();
}

Result WordWriter::leave() {
  const bool changed = changed_;
  held_ = false;
  changed_ = false;
  return changed ? walk_.store(path_.steps[path_.last()].position, leaf_) : Result();
}

Result WordWriter::enter() {
  if (leaf_.fits(walk_.format.keyBytes(word_.key))) {
    leaf_.insert(place_.number, place_.offset, word_.key, value());
    changed_ = true;
    return {};
  }
  // The leaf is stored by what divides it.
  held_ = false;
  changed_ = false;
  return enterKey(walk_, path_, leaf_, place_, word_.key, value());
}

Result WordWriter::putValue(std::uint64_t before) {
  if (form_ == Form::absent) {
    held_ = false;
    changed_ = false;
    return removeKey(walk_, path_, leaf_, place_.number);
  }
  if (value() == before) return {};
  leaf_.setPointer(place_.number, value());
  changed_ = true;
  return {};
}

Result WordWriter::takeEntry(std::uint64_t value) {
  const WordEntry entry(value);
  if (entry.isStopWord()) {
    form_ = Form::stopWord;
    return {};
  }
  object_ = entry.object();
  form_ = entry.isChain() ? Form::chain : Form::object;
  return entry.isChain() ? chain_.open(entry.chain()) : Result();
}

Result WordWriter::changeAll() {
  for (const WordChange& change : word_.changes) {
    ZELTA_TRY(change.gains() ? add(change.objectID()) : remove(change.objectID()));
  }
  return form_ == Form::chain ? chain_.store() : Result();
}

Result WordWriter::add(std::uint64_t objectID) {
  bool there = false;
  switch (form_) {
    case Form::stopWord:
      return {};
    case Form::absent:
      form_ = Form::object;
      object_ = objectID;
      return {};
    case Form::object:
      there = object_ == objectID;
      if (there) break;
      form_ = Form::chain;
      return chain_.create(object_, objectID);
    case Form::chain:
      there = chain_.has(objectID);
      if (there) break;
      bool full = false;
      ZELTA_TRY(chain_.add(objectID, &full));
      if (!full) return {};
      form_ = Form::stopWord;
      return chain_.free();
  }
  assert(there);
  return repeated_ ? Result() : tree_.keyExists(objectID);
}

Result WordWriter::remove(std::uint64_t objectID) {
  bool empty = false;
  switch (form_) {
    case Form::stopWord:
    case Form::absent:
      return {};
    case Form::object:
      if (object_ != objectID) break;
      form_ = Form::absent;
      return {};
    case Form::chain:
      if (!chain_.has(objectID)) break;
      ZELTA_TRY(chain_.remove(objectID, &empty));
      if (empty) form_ = Form::absent;
      return {};
  }
  return repeated_ ? Result() : tree_.keyMissing(objectID);
}

std::uint64_t WordWriter::value() const {
  switch (form_) {
    case Form::object:
      return WordEntry::ofObject(object_).value();
    case Form::chain:
      return WordEntry::ofChain(chain_.first()).value();
    default:
      return WordEntry::ofStopWord().value();
  }
}

}  // namespace zelta
