#include "objects/read/read_request.h"

#include <cassert>
#include <cstring>

#include "index/keys/keys.h"
#include "objects/current_keys.h"
#include "schema/object_view.h"

namespace zelta {

namespace {

/// IDs among the results of a search are given in 32 bits whatever the table's IDs have.
constexpr std::size_t kResultIdSize = 4;

bool isKnown(CZELTA::Mode mode) {
  return mode >= CZELTA::ReadEqual && mode <= CZELTA::ReadPrevious;
}

bool needsKey(CZELTA::Mode mode) {
  return mode >= CZELTA::ReadEqual && mode <= CZELTA::ReadGreaterEqual;
}

}  // namespace

std::uint64_t idAt(const Table& table, const void* key, IdWidth width) {
  return loadId(key, width == IdWidth::whole || table.wideIds());
}

Result ReadRequest::check() const {
  if (index > table.indexCount) {
    return reportError(&metaData, Own::parameter, table.cName(), nullptr, index);
  }
  if (byResults() && table.searchIndex != index) {
    return reportError(&metaData, Own::noSearch, nullptr, nullptr, std::int64_t{index} - 1);
  }
  if (!isKnown(mode)) return reportError(&metaData, Own::readMode, nullptr, nullptr, mode);
  return checkPivot();
}

/// A walk begins at a key: the given one, or that of the current object. One through the results of
/// a search can do without the former.
Result ReadRequest::checkPivot() const {
  if (needsKey(mode)) {
    const bool mayLack = byResults() && !table.searchInverted;
    if (key != nullptr || mayLack) return {};
    return reportError(&metaData, Own::parameter, table.cName());
  }
  const bool goesOn = mode == CZELTA::ReadNext || mode == CZELTA::ReadPrevious;
  if (!goesOn || !byTree()) return {};
  const std::uint32_t* current = nullptr;
  ZELTA_TRY(currentKey(table, index - 1, &current));
  return current != nullptr ? Result() : reportError(&metaData, Own::noObject);
}

Result ReadRequest::takeKey() {
  assert(index <= table.indexCount);
  if (key == nullptr) return {};
  if (byTree()) {
    std::uint32_t* made = nullptr;
    ZELTA_TRY(buildSearchKey(table, index - 1, key, &made));
    ownedKey_.take(table.keyPool(index - 1), table.keyShape(index - 1), made);
    searchKey = made;
    return {};
  }
  if (!needsKey(mode)) {
    id_ = 0;
  } else if (byResults() && !table.searchInverted) {
    std::memcpy(&id_, key, kResultIdSize);
  } else {
    id_ = idAt(table, key, width_);
  }
  key = &id_;
  return {};
}

}  // namespace zelta
