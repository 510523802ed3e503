#include "model/table_model.h"

namespace zelta::testing {

// -- Transactions ---------------------------------------------------------------------------------

Word ModelSession::begin(CZELTA::Mode mode) {
  for (const ModelSession* other : table_.sessions()) {
    if (mode == CZELTA::TransactionRead || other == this || !other->mayWrite()) continue;
    const bool bothShared =
        mode == CZELTA::TransactionShared && other->mode_ == CZELTA::TransactionShared;
    if (!bothShared) return kBusy;
  }
  reset();
  active_ = true;
  mode_ = mode;
  return kDone;
}

void ModelSession::reset() {
  active_ = false;
  locked_.clear();
  added_.clear();
  edited_.clear();
  deleted_.clear();
  for (KeyMap& keys : keys_) keys = {};
  forget();
  buffer_.reset();
}

/// The current object is dropped; the buffer stays.
void ModelSession::forget() {
  current_ = 0;
  sourceId_ = 0;
  places_.clear();
}

Word ModelSession::commit(bool releaseLocks) {
  if (!mayWrite()) return kMayNotWrite;
  for (const auto& [id, version] : edited_) table_.remove(id);
  for (const std::uint64_t id : deleted_) table_.remove(id);
  for (const Versions* set : {&edited_, &added_}) {
    for (const auto& [id, version] : *set) table_.put(id, version);
  }
  if (releaseLocks) {
    locked_.clear();
    forget();
  } else {
    for (const Versions* set : {&edited_, &added_}) {
      for (const auto& [id, version] : *set) locked_.insert(id);
    }
  }
  edited_.clear();
  added_.clear();
  deleted_.clear();
  for (KeyMap& keys : keys_) keys = {};
  return kDone;
}

Word ModelSession::abort(bool releaseLocks) {
  if (!mayWrite()) return kDone;
  if (releaseLocks || added_.count(current_) != 0) forget();
  if (releaseLocks) {
    locked_.clear();
  } else {
    for (const auto& [id, version] : edited_) locked_.insert(id);
    locked_.insert(deleted_.begin(), deleted_.end());
  }
  edited_.clear();
  added_.clear();
  deleted_.clear();
  for (KeyMap& keys : keys_) keys = {};
  return kDone;
}

void ModelSession::reopen() {
  if (!locked_.empty() || !added_.empty() || !edited_.empty() || !deleted_.empty()) return;
  forget();
  buffer_.reset();
}

// -- Pending versions -----------------------------------------------------------------------------

const Version& ModelSession::visible(std::uint64_t id) const {
  for (const Versions* set : {&added_, &edited_}) {
    if (const auto found = set->find(id); found != set->end()) return found->second;
  }
  return table_.objects().at(id);
}

void ModelSession::dropPending(std::uint64_t id) {
  for (Versions* set : {&added_, &edited_}) {
    const auto found = set->find(id);
    if (found == set->end()) continue;
    for (std::size_t i = 0; i < keys_.size(); ++i) {
      keys_[i].drop(shape_, i, found->second.thing, id);
    }
    set->erase(found);
  }
}

void ModelSession::setPending(Versions& set, std::uint64_t id, const Version& version) {
  dropPending(id);
  set[id] = version;
  for (std::size_t i = 0; i < keys_.size(); ++i) keys_[i].put(shape_, i, version.thing, id);
}

/// Whether the key waits in another transaction, and is nobody's in what is committed.
bool ModelSession::heldByOthers(std::size_t index, const std::string& key) const {
  const auto& all = table_.sessions();
  return std::any_of(all.begin(), all.end(), [&](const ModelSession* other) {
    return other != this && other->keys_[index].holder(key) != 0;
  });
}

bool ModelSession::keysAreTaken(const Thing& thing, std::uint64_t id) const {
  for (std::size_t i = 0; i < keys_.size(); ++i) {
    std::set<std::string> own;
    for (const std::string& key : keysOf(shape_, i, thing, id)) {
      if (!own.insert(key).second) return true;
      const std::uint64_t pending = keys_[i].holder(key);
      if (pending != 0 && pending != id) return true;
      const std::uint64_t committed = table_.keys(i).holder(key);
      if (committed != 0 && committed != id && !changed(committed)) return true;
      if (heldByOthers(i, key)) return true;
    }
  }
  return false;
}

std::uint64_t ModelSession::chooseId() const {
  const std::uint64_t highest = table_.highest();
  for (std::uint64_t id = 1; id <= highest; ++id) {
    if (table_.objects().count(id) == 0 && !pendingAnywhere(id)) return id;
  }
  std::uint64_t last = highest;
  for (const ModelSession* session : table_.sessions()) {
    if (!session->added_.empty()) last = std::max(last, session->added_.rbegin()->first);
  }
  return last + 1;
}

// -- Storing --------------------------------------------------------------------------------------

void ModelSession::newObject(const Thing& thing) {
  forget();
  buffer_ = Version{thing, 0};
}

Word ModelSession::add(std::uint64_t wanted) {
  if (!mayWrite()) return kMayNotWrite;
  if (!buffer_) return kNoObject;
  current_ = 0;
  const std::uint64_t id = wanted != 0 ? wanted : chooseId();
  if (wanted != 0 && (table_.objects().count(id) != 0 || pendingAnywhere(id))) return kIdTaken;
  if (keysAreTaken(buffer_->thing, id)) return kKeyTaken;
  buffer_->version = 1;
  setPending(added_, id, *buffer_);
  moveTo(id, *buffer_, nullptr, "");
  return kDone;
}

Word ModelSession::rewrite() {
  if (!mayWrite()) return kMayNotWrite;
  const bool mine =
      locked_.count(current_) != 0 || edited_.count(current_) != 0 || added_.count(current_) != 0;
  if (current_ == 0 || !buffer_ || !mine) return kNoObject;
  if (keysAreTaken(buffer_->thing, current_)) return kKeyTaken;
  ++buffer_->version;
  setPending(added_.count(current_) != 0 ? added_ : edited_, current_, *buffer_);
  locked_.erase(current_);
  renew(buffer_->thing);
  return kDone;
}

Word ModelSession::eraseFound(const Request& request, bool isCurrent) {
  if (!mayWrite()) return kMayNotWrite;
  if (isCurrent && current_ == 0) return kNoObject;
  const bool ours =
      current_ != 0 && buffer_ &&
      (locked_.count(current_) != 0 || edited_.count(current_) != 0 || added_.count(current_) != 0);
  const std::uint64_t before = current_;
  std::uint64_t id = 0;
  std::string key;
  if (const Word failure = locate(request, &id, &key); failure != kDone) return failure;
  const Version version = visible(id);
  moveTo(id, version, &request, key);
  if (!ours || id != before) buffer_ = version;
  if (added_.count(id) == 0) deleted_.insert(id);
  dropPending(id);
  locked_.erase(id);
  return kDone;
}

Word ModelSession::restore(std::uint64_t wanted, bool unlock) {
  if (!mayWrite()) return kMayNotWrite;
  const std::uint64_t id = wanted != 0 ? wanted : current_;
  if (locked_.count(id) != 0) {
    if (!unlock) return kDone;
    locked_.erase(id);
    if (current_ == id) current_ = 0;
    return kDone;
  }
  if (added_.count(id) != 0) {
    dropPending(id);
    if (current_ == id) forget();
    return kDone;
  }
  if (!changed(id)) return kNothingToRestore;
  const Thing committed = table_.objects().at(id).thing;
  for (std::size_t i = 0; i < keys_.size(); ++i) {
    for (const std::string& key : keysOf(shape_, i, committed, id)) {
      const std::uint64_t holder = keys_[i].holder(key);
      if (holder != 0 && holder != id) return kKeyTaken;
    }
  }
  dropPending(id);
  deleted_.erase(id);
  if (current_ == id) renew(committed);
  if (!unlock) locked_.insert(id);
  return kDone;
}

// -- Finding --------------------------------------------------------------------------------------

Word ModelSession::read(const Request& request) {
  std::uint64_t id = 0;
  std::string key;
  entry_ = 0;
  if (const Word failure = locate(request, &id, &key); failure != kDone) return failure;
  buffer_ = visible(id);
  moveTo(id, *buffer_, &request, key);
  if (mayWrite() && !request.noLock && !holds(id) && added_.count(id) == 0) locked_.insert(id);
  return kDone;
}

Word ModelSession::locate(const Request& request, std::uint64_t* id, std::string* key) {
  Request own = request;
  own.noLock = request.noLock || !mayWrite();
  return own.index == 0 ? locateById(own, id) : locateByKey(own, id, key);
}

Word ModelSession::locateById(const Request& request, std::uint64_t* id) const {
  std::uint64_t last = table_.highest();
  if (!added_.empty()) last = std::max(last, added_.rbegin()->first);
  *id = request.mode == CZELTA::ReadFirst  ? 1
        : request.mode == CZELTA::ReadLast ? last
                                           : request.id;
  if (request.mode == CZELTA::ReadNext || request.mode == CZELTA::ReadPrevious) {
    if (current_ == 0) return kNoObject;
    *id = current_;
  }
  if (request.mode == CZELTA::ReadNext || request.mode == CZELTA::ReadGreater) ++*id;
  if (request.mode == CZELTA::ReadPrevious || request.mode == CZELTA::ReadLess) --*id;
  for (;;) {
    bool answer = false;
    if (const Word failure = testId(request, id, &answer); failure != kDone) return failure;
    if (answer) return kDone;
    if (request.mode == CZELTA::ReadEqual) return kMissing;
    *id += request.upward() ? 1 : ~std::uint64_t{0};
  }
}

/// Above all that is committed, only what this transaction has added counts, and only some modes
/// look for it.
Word ModelSession::testId(const Request& request, std::uint64_t* id, bool* answer) const {
  if (*id == 0) return kMissing;
  *answer = added_.count(*id) != 0;
  if (*answer) return kDone;
  if (*id > table_.highest()) {
    if (!request.upward() || request.mode == CZELTA::ReadFirst) return kMissing;
    const auto next = added_.upper_bound(*id);
    if (next == added_.end()) return kMissing;
    *id = next->first;
    *answer = true;
    return kDone;
  }
  if (deleted_.count(*id) != 0 || table_.objects().count(*id) == 0) return kDone;
  *answer = true;
  return !request.noLock && lockedElsewhere(*id) ? kLocked : kDone;
}

/// The key to seek, or to go on from.
Word ModelSession::pivot(const Request& request, std::string* key) {
  *key = request.key;
  if (request.mode != CZELTA::ReadNext && request.mode != CZELTA::ReadPrevious) return kDone;
  const std::size_t index = request.index - 1;
  if (places_.count(index) == 0 && sourceId_ != 0) {
    const std::vector<std::string> keys = sourceKeys(index);
    if (!keys.empty()) places_[index] = *std::min_element(keys.begin(), keys.end());
  }
  const auto place = places_.find(index);
  if (place == places_.end()) return kNoObject;
  *key = place->second;
  return kDone;
}

Word ModelSession::locateByKey(const Request& request, std::uint64_t* id, std::string* key) {
  std::string from;
  if (const Word failure = pivot(request, &from); failure != kDone) return failure;
  const std::size_t index = request.index - 1;
  using Entry = KeyMap::Entries::value_type;
  const Entry* best = nullptr;
  bool foreign = false;
  const auto offer = [&](const Entry* entry, bool isForeign) {
    if (entry == nullptr) return;
    if (best != nullptr && request.upward() != (entry->first < best->first)) return;
    best = entry;
    foreign = isForeign;
  };
  const KeyMap& committed = table_.keys(index);
  const auto all = [](const Entry&) { return true; };
  offer(committed.seek(request.mode, from, [&](const Entry& e) { return !changed(e.second); }),
        false);
  offer(keys_[index].seek(request.mode, from, all), false);
  if (!request.noLock) {
    for (const ModelSession* other : table_.sessions()) {
      if (other == this) continue;
      offer(other->keys_[index].seek(
                request.mode, from, [&](const Entry& e) { return committed.holder(e.first) == 0; }),
            true);
    }
  }
  if (best == nullptr) return kMissing;
  if (foreign) return kLocked;
  *id = best->second;
  *key = best->first;
  if (request.noLock || added_.count(*id) != 0) return kDone;
  return lockedElsewhere(*id) ? kLocked : kDone;
}

// -- Searches -------------------------------------------------------------------------------------

std::set<std::uint64_t> ModelSession::findable(std::size_t search, const Shapes& like) const {
  const auto shaped = [&](const Versions& versions, ShapedObjects& out) {
    for (const auto& [id, version] : versions) out[id] = shape_.shapesOf(search, version.thing);
  };
  ShapedObjects committed;
  ShapeChanges changes{{}, deleted_};
  shaped(table_.objects(), committed);
  shaped(added_, changes.now);
  shaped(edited_, changes.now);
  return findableIn(shape_.searches()[search], like, committed, changes);
}

// -- The place in the indexes ---------------------------------------------------------------------

/// The object becomes the current one; in the index by which it was found, the place is that key.
void ModelSession::moveTo(std::uint64_t id, const Version& version, const Request* by,
                          const std::string& key) {
  current_ = id;
  sourceId_ = id;
  source_ = version.thing;
  places_.clear();
  entry_ = 0;
  if (by == nullptr || by->index == 0) return;
  places_[by->index - 1] = key;
  if (!shape_.isMulti(by->index - 1)) return;
  const std::vector<std::string> keys = sourceKeys(by->index - 1);
  const auto found = std::find(keys.begin(), keys.end(), key);
  entry_ = static_cast<std::uint32_t>(found - keys.begin());
}

/// The current object has changed. In an index with many entries for an object the place stays, if
/// its key does.
void ModelSession::renew(const Thing& thing) {
  sourceId_ = current_;
  source_ = thing;
  for (auto place = places_.begin(); place != places_.end();) {
    const std::vector<std::string> keys = sourceKeys(place->first);
    if (!shape_.isMulti(place->first) || keys.empty()) {
      place = places_.erase(place);
      continue;
    }
    if (std::find(keys.begin(), keys.end(), place->second) == keys.end()) {
      place->second = *std::min_element(keys.begin(), keys.end());
    }
    ++place;
  }
}

}  // namespace zelta::testing
