#include "storage/free_space/free_extents.h"

#include "storage/trees/avl_detail.h"

namespace zelta {

namespace {

/// Positions are unique; they need nothing to tell them apart.
struct ExtentOrder {
  using Node = FreeExtentNode;
  bool before(const Node& a, const Node& b) const { return a.span.position < b.span.position; }
};

}  // namespace

void FreeExtents::add(FileSpan span) {
  newest_ = new FreeExtentNode{.span = span};
  avl::insert(ExtentOrder{}, newest_, root_);
}

void FreeExtents::addToRun(FileSpan span, std::uint64_t largest) {
  if (newest_ != nullptr && newest_->span.end() == span.position &&
      newest_->span.size <= largest - span.size) {
    newest_->span.size += span.size;
    return;
  }
  add(span);
}

void FreeExtents::deleteNodes() {
  avl::postOrder(avl::detachAll(root_), [](FreeExtentNode* node) { delete node; });
}

}  // namespace zelta
