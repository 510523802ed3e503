// Reading through the results of a search, in the order of object IDs. The results are a set of IDs
// as the search left it (Table::searchResults); what this transaction has deleted since is passed
// by.

#include "objects/read/result_walk.h"

#include <cstring>

#include "objects/read/locate.h"

namespace zelta {

namespace {

/// The ID that the walk is about. ReadRequest has cut one that was given to 32 bits.
std::uint64_t pivotOf(const ReadRequest& request) {
  if (request.key == nullptr || request.mode == CZELTA::ReadNext ||
      request.mode == CZELTA::ReadPrevious) {
    return request.table.currentObjectID;
  }
  std::uint64_t pivot = 0;
  std::memcpy(&pivot, request.key, sizeof(pivot));
  return pivot;
}

/// The result that the mode leads to from the pivot, or null.
const std::uint64_t* firstResult(const ReadRequest& request, std::uint64_t pivot) {
  const SortedIds& results = request.table.searchResults;
  switch (request.mode) {
    case CZELTA::ReadEqual: {
      const std::uint64_t* id = results.atOrAfter(pivot);
      return id != nullptr && *id == pivot ? id : nullptr;
    }
    case CZELTA::ReadLess:
    case CZELTA::ReadPrevious:
      return pivot == 0 ? nullptr : results.atOrBefore(pivot - 1);
    case CZELTA::ReadGreater:
    case CZELTA::ReadNext:
      return pivot + 1 == 0 ? nullptr : results.atOrAfter(pivot + 1);
    case CZELTA::ReadLessEqual:
      return results.atOrBefore(pivot);
    case CZELTA::ReadGreaterEqual:
      return results.atOrAfter(pivot);
    case CZELTA::ReadFirst:
      return results.empty() ? nullptr : results.begin();
    default:
      return results.empty() ? nullptr : results.end() - 1;
  }
}

/// The result that the mode leads to, less those that this transaction has deleted, or null.
const std::uint64_t* findResult(const ReadRequest& request) {
  const SortedIds& results = request.table.searchResults;
  const std::uint64_t* id = firstResult(request, pivotOf(request));
  if (id == nullptr) return nullptr;
  const std::uint64_t* const last = request.upward() ? results.end() - 1 : results.begin();
  while (find(request.table.deletedObjects, *id) != nullptr) {
    if (request.mode == CZELTA::ReadEqual || id == last) return nullptr;
    id += request.upward() ? 1 : -1;
  }
  return id;
}

}  // namespace

Result walkResults(const ReadRequest& request, const TableHeader_tag& header, Located& out) {
  const std::uint64_t* id = findResult(request);
  if (id == nullptr) return request.notFound();
  out.objectID = *id;
  if (find(request.table.addedObjects, *id) != nullptr) return {};
  // No object has it: a search of words may give such an ID, or it was added and taken back since.
  if (*id == 0 || *id > header.highestID) return request.notFound();
  SlotState state = SlotState::free;
  ZELTA_TRY(inspectSlot(request, header, out, &state));
  return state == SlotState::inUse ? Result() : Result::locked();
}

}  // namespace zelta
