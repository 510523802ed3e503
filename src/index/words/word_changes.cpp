#include "index/words/word_changes.h"

#include <cassert>

#include "index/btree/insert.h"
#include "index/btree/remove.h"
#include "index/words/posting_chain.h"
#include "index/words/word_entry.h"

namespace zelta {

namespace {

/// What becomes of the entry of one word.
class WordState {
 public:
  WordState(const IndexTree& tree, const ChangedWord& word, ContentMode mode)
      : tree_(tree),
        word_(word),
        repeated_(mode == ContentMode::repeated),
        chain_(tree, word.ids) {}

  /// The word is in the tree, with this entry.
  Result begin(WordEntry entry);
  /// Makes all changes of the word. Own code 37: an object that gains it has it; own code 32: one
  /// that loses it does not have it.
  Result applyAll();

  [[nodiscard]] bool isThere() const { return form_ != Form::absent; }
  [[nodiscard]] std::uint64_t value() const;

 private:
  enum class Form : std::uint8_t { absent, object, chain, stopWord };

  Result add(std::uint64_t objectID);
  Result remove(std::uint64_t objectID);

  const IndexTree& tree_;
  const ChangedWord& word_;
  const bool repeated_;
  PostingChain chain_;
  Form form_ = Form::absent;
  std::uint64_t object_ = 0;  ///< of Form::object
};

Result WordState::begin(WordEntry entry) {
  if (entry.isStopWord()) {
    form_ = Form::stopWord;
    return {};
  }
  object_ = entry.object();
  form_ = entry.isChain() ? Form::chain : Form::object;
  return entry.isChain() ? chain_.open(entry.chain()) : Result();
}

Result WordState::applyAll() {
  for (const WordChange& change : word_.changes) {
    ZELTA_TRY(change.gains ? add(change.objectID) : remove(change.objectID));
  }
  return form_ == Form::chain ? chain_.store() : Result();
}

Result WordState::add(std::uint64_t objectID) {
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

Result WordState::remove(std::uint64_t objectID) {
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

std::uint64_t WordState::value() const {
  switch (form_) {
    case Form::object:
      return WordEntry::ofObject(object_).value();
    case Form::chain:
      return WordEntry::ofChain(chain_.first()).value();
    default:
      return WordEntry::ofStopWord().value();
  }
}

}  // namespace

Result applyChanges(const IndexTree& tree, const TextNodeFormat& format, const ChangedWord& word,
                    ContentMode mode) {
  WordState state(tree, word, mode);
  TextWalk walk(tree, format, TextWalk::Purpose::insert);
  if (walk.root() == 0) {
    ZELTA_TRY(state.applyAll());
    return state.isThere() ? plantTree(walk, word.key, state.value()) : Result();
  }
  BPlusPath path;
  TextNode leaf;
  ZELTA_TRY(walk.descend(word.key, path, leaf));
  const TextNode::Place place = leaf.lower(word.key);
  if (place.offset == 0) return walk.corrupted();
  if (!place.equal) {
    ZELTA_TRY(state.applyAll());
    if (!state.isThere()) return {};
    return enterKey(walk, path, leaf, place, word.key, state.value());
  }
  const std::uint64_t before = leaf.pointer(place.number);
  ZELTA_TRY(state.begin(WordEntry(before)));
  ZELTA_TRY(state.applyAll());
  if (!state.isThere()) return removeKey(walk, path, leaf, place.number);
  if (state.value() == before) return {};
  leaf.setPointer(place.number, state.value());
  return walk.store(path.steps[path.last()].position, leaf);
}

}  // namespace zelta
