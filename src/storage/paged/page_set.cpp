#include "storage/paged/page_set.h"

#include <algorithm>
#include <cassert>
#include <iterator>

namespace zelta {

PageNode* PageSet::add(std::uint64_t position) {
  if (slots_.size() < (std::size_t{size_} + 1) * 2) grow();
  Slot& slot = slots_[slotOf(position)];
  assert(slot.page == nullptr);
  PageNode* page = newPage();
  page->key = position;
  slot = {position, page};
  ++size_;
  order_.clear();
  return page;
}

void PageSet::erase(PageNode* page) {
  const std::size_t mask = slots_.size() - 1;
  std::size_t gap = slotOf(page->key);
  assert(slots_[gap].page == page);
  // Whoever was pushed past the slot moves up, so that no way to a page has a gap.
  for (std::size_t i = (gap + 1) & mask; slots_[i].page != nullptr; i = (i + 1) & mask) {
    const std::size_t pushed = (i - home(slots_[i].position)) & mask;
    if (pushed < ((i - gap) & mask)) continue;
    slots_[gap] = slots_[i];
    gap = i;
  }
  slots_[gap] = {};
  page->dropBytes();
  page->reset();
  page->right = spare_;
  spare_ = page;
  --size_;
  order_.clear();
}

void PageSet::clear() {
  if (slots_.empty()) return;
  blocks_.clear();
  used_ = kBlockPages;
  spare_ = nullptr;
  slots_ = std::vector<Slot>();
  order_ = std::vector<PageNode*>();
  size_ = 0;
}

std::span<PageNode* const> PageSet::ascending() {
  if (order_.size() == size_) return order_;
  std::vector<Slot> taken;
  taken.reserve(size_);
  std::copy_if(slots_.begin(), slots_.end(), std::back_inserter(taken),
               [](const Slot& slot) { return slot.page != nullptr; });
  std::sort(taken.begin(), taken.end(),
            [](const Slot& a, const Slot& b) { return a.position < b.position; });
  order_.reserve(size_);
  for (const Slot& slot : taken) order_.push_back(slot.page);
  return order_;
}

/// A page as new, without room.
PageNode* PageSet::newPage() {
  if (spare_ != nullptr) {
    PageNode* page = spare_;
    spare_ = static_cast<PageNode*>(page->right);
    return page;
  }
  if (used_ == kBlockPages) {
    blocks_.push_back(std::make_unique<PageNode[]>(kBlockPages));
    used_ = 0;
  }
  return &blocks_.back()[used_++];
}

void PageSet::grow() {
  std::vector<Slot> before(std::max(kFirstSlots, slots_.size() * 2));
  before.swap(slots_);
  for (const Slot& slot : before) {
    if (slot.page != nullptr) slots_[slotOf(slot.position)] = slot;
  }
}

}  // namespace zelta
