// Reading by object ID: over all objects of a table, or over those that an inverted search result
// does not hold. Committed IDs and those that this transaction has added lie in one order; a walk
// goes from ID to ID and asks the slot of each.

#include "objects/read/id_walk.h"

#include <algorithm>
#include <cstring>

#include "objects/read/locate.h"

namespace zelta {

namespace {

/// The walk of one request; `run()` ends at the first object that is there for this transaction.
class IdWalk {
 public:
  IdWalk(const ReadRequest& request, const TableHeader_tag& header, bool inverted, Located& out)
      : request_(request), header_(header), table_(request.table), inverted_(inverted), out_(out) {}

  Result run() {
    std::uint64_t id = 0;
    ZELTA_TRY(start(&id));
    for (;;) {
      bool answer = false;
      ZELTA_TRY(test(id, &answer));
      if (answer) return {};
      id = request_.upward() ? id + 1 : id - 1;
    }
  }

 private:
  Result start(std::uint64_t* id) const;
  Result test(std::uint64_t& id, bool* answer);
  /// Not this one: a read of just this ID ends with that, others go on.
  Result skip(std::uint64_t id) const {
    return request_.mode == CZELTA::ReadEqual ? request_.notFound(id) : Result();
  }
  [[nodiscard]] std::uint64_t lastId() const;

  const ReadRequest& request_;
  const TableHeader_tag& header_;
  Table& table_;
  const bool inverted_;
  Located& out_;
};

/// The greatest ID that may be in use, committed or added here.
std::uint64_t IdWalk::lastId() const {
  const UInt64AVLTree* added = findPrevious(table_.addedObjects, ~std::uint64_t{0});
  return std::max(header_.highestID, added != nullptr ? added->key : 0);
}

/// The ID that the walk begins at. Beyond either end of the numbers it wraps, and meets nothing.
Result IdWalk::start(std::uint64_t* id) const {
  *id = 0;
  switch (request_.mode) {
    case CZELTA::ReadFirst:
      *id = 1;
      return {};
    case CZELTA::ReadLast:
      *id = lastId();
      return {};
    case CZELTA::ReadNext:
    case CZELTA::ReadPrevious:
      if (!inverted_ && table_.currentObjectID == 0) {
        return reportError(&request_.metaData, Own::noObject);
      }
      *id = table_.currentObjectID + (request_.upward() ? 1 : ~std::uint64_t{0});
      return {};
    default:
      break;
  }
  std::memcpy(id, request_.key, sizeof *id);
  if (request_.mode == CZELTA::ReadLess) --*id;
  if (request_.mode == CZELTA::ReadGreater) ++*id;
  return {};
}

/// Whether this ID is the answer. Above all committed IDs, `id` moves to the next one that was
/// added.
Result IdWalk::test(std::uint64_t& id, bool* answer) {
  if (id == 0) return request_.notFound();
  if (inverted_ && table_.searchResults.contains(id)) return skip(id);
  const bool added = find(table_.addedObjects, id) != nullptr;
  if (id > header_.highestID && !added) {
    if (request_.mode == CZELTA::ReadEqual) return request_.notFound(id);
    if (!request_.upward() || request_.mode == CZELTA::ReadFirst) return request_.notFound();
    const UInt64AVLTree* next = findNext(table_.addedObjects, id);
    if (next == nullptr) return request_.notFound();
    id = next->key - 1;  // the walk goes one on
    return {};
  }
  out_.objectID = id;
  *answer = true;
  if (added) return {};
  *answer = false;
  if (find(table_.deletedObjects, id) != nullptr) return skip(id);
  SlotState state = SlotState::free;
  ZELTA_TRY(inspectSlot(request_, header_, out_, &state));
  if (state == SlotState::locked) return Result::locked();
  *answer = state == SlotState::inUse;
  if (*answer) return {};
  if (find(table_.editedObjects, id) != nullptr) {
    return reportError(&request_.metaData, Own::indexInconsistent, table_.cName(), nullptr,
                       std::int64_t{request_.index} - 1);
  }
  return skip(id);
}

}  // namespace

Result walkIds(const ReadRequest& request, const TableHeader_tag& header, bool inverted,
               Located& out) {
  return IdWalk(request, header, inverted, out).run();
}

}  // namespace zelta
