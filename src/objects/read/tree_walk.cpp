// Reading through an ordered index, a B+Tree: the committed keys, less those that this transaction
// has taken out, together with those that it has pending.
//
// One cursor stands in each of the two trees; the nearer of the two entries is the answer. A writer
// that locks also sees the keys that others have pending, and stops at them.

#include "objects/read/tree_walk.h"

#include "index/btree/cursor.h"
#include "objects/current_keys.h"
#include "objects/read/locate.h"

namespace zelta {

namespace {

/// The step of one request. Cursors do not outlive the pass; the next one sets out from the key.
class TreeWalk {
 public:
  TreeWalk(const ReadRequest& request, TableAccess& access, Located& out)
      : request_(request),
        table_(request.table),
        index_(request.index - 1),
        shape_(table_.keyShape(index_)),
        committed_({access.manager(), PageFile::index, index_}, PageRole::node),
        pending_({access.manager(), PageFile::memory, index_}, PageRole::sibling),
        out_(out) {}

  Result run();

 private:
  Result pivot(const std::uint32_t** key, CZELTA::Mode* mode) const;
  Result seekCommitted(CZELTA::Mode mode, const std::uint32_t* key);
  Result seekPending(CZELTA::Mode mode, const std::uint32_t* key);
  [[nodiscard]] bool pendingIsNearer() const;

  const ReadRequest& request_;
  Table& table_;
  const std::uint32_t index_;
  const KeyShape shape_;
  BPlusCursor committed_;
  BPlusCursor pending_;
  Located& out_;
};

/// Key and mode for the trees: going on from the object read last is a step from its key.
Result TreeWalk::pivot(const std::uint32_t** key, CZELTA::Mode* mode) const {
  *key = request_.searchKey;
  *mode = request_.mode;
  if (*mode != CZELTA::ReadNext && *mode != CZELTA::ReadPrevious) return {};
  *mode = request_.upward() ? CZELTA::ReadGreater : CZELTA::ReadLess;
  return currentKey(table_, index_, key);
}

/// Passes the keys by that this transaction has given up.
Result TreeWalk::seekCommitted(CZELTA::Mode mode, const std::uint32_t* key) {
  ObjectKeyNode* removed = table_.indexStates[index_].removedKeys;
  ZELTA_TRY(committed_.seek(mode, key));
  while (committed_.valid() && removed != nullptr &&
         find(removed, shape_, committed_.key(), 0) != nullptr) {
    if (mode == CZELTA::ReadEqual) {
      committed_.leave();
    } else {
      ZELTA_TRY(committed_.next(request_.upward()));
    }
  }
  return {};
}

/// Without locks the pending keys of other transactions do not exist; else the walk must not pass
/// them, as they may be there in a moment.
Result TreeWalk::seekPending(CZELTA::Mode mode, const std::uint32_t* key) {
  if (!request_.writer) return {};
  ZELTA_TRY(pending_.seek(mode, key));
  while (request_.noLock && pending_.valid() && !table_.hasPending(pending_.objectID())) {
    if (mode == CZELTA::ReadEqual) {
      pending_.leave();
    } else {
      ZELTA_TRY(pending_.next(request_.upward()));
    }
  }
  return {};
}

bool TreeWalk::pendingIsNearer() const {
  if (!pending_.valid()) return false;
  if (!committed_.valid()) return true;
  const int sign = compareKeys(shape_, pending_.key(), committed_.key());
  return request_.upward() ? sign < 0 : sign > 0;
}

Result TreeWalk::run() {
  const std::uint32_t* key = nullptr;
  CZELTA::Mode mode = request_.mode;
  ZELTA_TRY(pivot(&key, &mode));
  ZELTA_TRY(seekCommitted(mode, key));
  ZELTA_TRY(seekPending(mode, key));
  if (pendingIsNearer()) {
    out_.objectID = pending_.objectID();
    out_.key.copy(table_.keyPool(index_), shape_, pending_.key());
    out_.pendingElsewhere = !table_.hasPending(out_.objectID);
    return {};
  }
  if (!committed_.valid()) return request_.notFound();
  out_.objectID = committed_.objectID();
  out_.key.copy(table_.keyPool(index_), shape_, committed_.key());
  // A committed key that this transaction has given to another object: the tree follows at commit.
  ObjectKeyNode* replaced = table_.indexStates[index_].replacedKeys;
  if (replaced == nullptr) return {};
  if (const ObjectKeyNode* node = find(replaced, shape_, committed_.key(), 0)) {
    out_.objectID = node->objectID;
  }
  return {};
}

}  // namespace

Result walkTree(const ReadRequest& request, TableAccess& access, Located& out) {
  ZELTA_TRY(TreeWalk(request, access, out).run());
  if (out.pendingElsewhere || find(request.table.addedObjects, out.objectID) != nullptr) return {};
  SlotState state = SlotState::free;
  if (out.objectID != 0 && out.objectID <= access.header.highestID) {
    ZELTA_TRY(inspectSlot(request, access.header, out, &state));
  }
  if (state == SlotState::locked) return Result::locked();
  if (state == SlotState::inUse) return {};
  return reportError(&request.metaData, Own::indexInconsistent, request.table.cName(), nullptr,
                     std::int64_t{request.index} - 1);
}

}  // namespace zelta
