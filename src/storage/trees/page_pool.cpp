#include "storage/trees/page_pool.h"

#include <cstdlib>
#include <new>

#include "storage/trees/avl_detail.h"

namespace zelta {

namespace {

/// Spare pages keep room of up to this size.
constexpr std::uint32_t kLargestSpare = 8192;

}  // namespace

PageNode::~PageNode() { std::free(bytes); }

/// After a failure (std::bad_alloc) the page is as it was.
void PageNode::makeRoom(std::uint32_t wanted) {
  if (bytes == nullptr || capacity < wanted) {
    auto* fresh = static_cast<char*>(std::malloc(wanted));
    if (fresh == nullptr) throw std::bad_alloc();
    std::free(bytes);
    bytes = fresh;
    capacity = wanted;
  }
  size = wanted;
}

void PageNode::dropBytes() {
  std::free(bytes);
  bytes = nullptr;
  capacity = 0;
}

void PageNode::reset() {
  size = 0;
  shadowSize = 0;
  shadowPosition = 0;
  unsaved = false;
  newer = nullptr;
  older = nullptr;
}

PagePool::~PagePool() {
  for (std::size_t i = 0; i < used_; ++i) delete slots_[i];
}

PageNode* PagePool::take() { return used_ == 0 ? new PageNode : slots_[--used_]; }

void PagePool::release(PageNode* page) {
  if (used_ == slots_.size()) {
    delete page;
    return;
  }
  if (page->capacity > kLargestSpare) page->dropBytes();
  page->reset();
  slots_[used_++] = page;
}

void PagePool::releaseNodes(UInt64AVLTree*& root) {
  avl::postOrder(avl::detachAll(root),
                 [this](UInt64AVLTree* node) { release(static_cast<PageNode*>(node)); });
}

}  // namespace zelta
