#include "index/tree/index_tree.h"

#include <algorithm>
#include <cassert>

namespace zelta {

IndexTree::IndexTree(AtomicManager& manager, PageFile file, std::uint32_t index)
    : manager_(&manager), file_(file), index_(index) {
  assert(index < manager.table.indexCount);
  shape_.variable = table().keyShape(index).variable();
  shape_.keyWords = table().index(index).keyWords;
  shape_.idBytes = table().idSize();
}

std::uint64_t IndexTree::mostPages() const {
  return manager_->endOfFile(file_) / std::max(pageSize(), 1u) + 1;
}

Result IndexTree::damaged(Own code) const {
  return reportError(&metaData(), code, table().cName(), nullptr, index_);
}

Result IndexTree::keyMissing(std::uint64_t objectID) const {
  return reportError(&metaData(), Own::keyNotFound, table().cName(), extension::kTable,
                     static_cast<std::int64_t>(objectID), index_);
}

Result IndexTree::keyExists(std::uint64_t holder) const {
  return reportError(&metaData(), Own::keyExists, table().cName(), nullptr,
                     static_cast<std::int64_t>(holder), index_);
}

Result IndexTree::fileDamaged(SystemCode failure) const { return manager_->failed(file_, failure); }

}  // namespace zelta
