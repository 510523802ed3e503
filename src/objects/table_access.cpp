#include "objects/table_access.h"

#include <cassert>

#include "frame/preserved_error.h"
#include "index/file/index_file.h"

namespace zelta {

Result TableAccess::acquire(std::uint32_t milliseconds) {
  assert(!owned());
  memoryOpen_ = false;
  indexOpen_ = false;
  return mutex_.acquire(table, milliseconds);
}

void TableAccess::announceChange() {
  assert(owned());
  mutex_.announceChange();
}

void TableAccess::leave() {
  if (!owned()) return;
  const PreservedError kept(metaData);
  release().ignore();
}

Result TableAccess::readHeader() {
  memoryOpen_ = false;
  indexOpen_ = false;
  return readTableHeader(metaData, table.cName(), table.tableFile, header, owned());
}

Result TableAccess::openMemory() {
  assert(owned());
  ZELTA_TRY(readMemoryFileHeader(needManager(), memoryHeader, true));
  memoryOpen_ = true;
  attach();
  return {};
}

Result TableAccess::openIndex() {
  assert(header.endOfFile != 0);
  constexpr bool kMustExist = true;
  ZELTA_TRY(openIndexFile(needManager(), indexHeader, &header, owned(), kMustExist));
  indexOpen_ = true;
  attach();
  return {};
}

AtomicManager& TableAccess::needManager() {
  if (!manager_) manager_.emplace(table);
  return *manager_;
}

void TableAccess::attach() {
  assert(manager_);
  manager_->attach(
      indexOpen_ ? table.indexFile : platform::File::none, indexOpen_ ? &indexHeader : nullptr,
      memoryOpen_ ? table.memoryFile : platform::File::none, memoryOpen_ ? &memoryHeader : nullptr);
}

}  // namespace zelta
