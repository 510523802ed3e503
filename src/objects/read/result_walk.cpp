// Reading through the results of a search, in the order of object IDs. The results are a set of IDs
// as the search left it (Table::searchResults); what this transaction has deleted since is passed
// by.

#include "objects/read/result_walk.h"

#include <cstring>

#include "objects/read/locate.h"

namespace zelta {

namespace {

/// The ID that the walk is about. It has 32 bits here whatever the width of the table's IDs is.
std::uint64_t pivotOf(const ReadRequest& request) {
  std::uint32_t pivot = 0;
  if (request.key == nullptr || request.mode == CZELTA::ReadNext ||
      request.mode == CZELTA::ReadPrevious) {
    return static_cast<std::uint32_t>(request.table.currentObjectID);
  }
  std::memcpy(&pivot, request.key, sizeof(pivot));
  return pivot;
}

/// The result that the mode leads to from the pivot, or null.
UInt64AVLTree* firstResult(const ReadRequest& request, std::uint64_t pivot) {
  UInt64AVLTree* results = request.table.searchResults;
  UInt64AVLTree* equal = find(results, pivot);
  switch (request.mode) {
    case CZELTA::ReadEqual:
      return equal;
    case CZELTA::ReadLess:
    case CZELTA::ReadPrevious:
      return findPrevious(results, pivot);
    case CZELTA::ReadGreater:
    case CZELTA::ReadNext:
      return findNext(results, pivot);
    case CZELTA::ReadLessEqual:
      return equal != nullptr ? equal : findPrevious(results, pivot);
    case CZELTA::ReadGreaterEqual:
      return equal != nullptr ? equal : findNext(results, pivot);
    case CZELTA::ReadFirst: {
      UInt64AVLTree* zero = find(results, 0);
      return zero != nullptr ? zero : findNext(results, 0);
    }
    default: {
      UInt64AVLTree* last = find(results, ~std::uint64_t{0});
      return last != nullptr ? last : findPrevious(results, ~std::uint64_t{0});
    }
  }
}

}  // namespace

Result walkResults(const ReadRequest& request, const TableHeader_tag& header, Located& out) {
  Table& table = request.table;
  const UInt64AVLTree* node = firstResult(request, pivotOf(request));
  while (node != nullptr && find(table.deletedObjects, node->key) != nullptr) {
    if (request.mode == CZELTA::ReadEqual) return request.notFound();
    node = request.upward() ? findNext(table.searchResults, node->key)
                            : findPrevious(table.searchResults, node->key);
  }
  if (node == nullptr) return request.notFound();
  out.objectID = node->key;
  if (find(table.addedObjects, node->key) != nullptr) return {};
  // An ID that has no slot yet can only be one that was added and taken back since the search.
  if (node->key == 0 || node->key > header.highestID) return Result::locked();
  SlotState state = SlotState::free;
  ZELTA_TRY(inspectSlot(request, header, out, &state));
  return state == SlotState::inUse ? Result() : Result::locked();
}

}  // namespace zelta
