#include "index/words/posting_chain.h"

#include <algorithm>
#include <cassert>

namespace zelta {

// -- A page ---------------------------------------------------------------------------------------

bool PostingPage::attach(TreePage page, std::uint32_t width) {
  std::uint16_t tag = 0;
  std::uint16_t entries = 0;
  page_ = page;
  width_ = width;
  std::memcpy(&size_, page.bytes(), 4);
  if (size_ < kPostingHead) return false;
  std::memcpy(&tag, page.bytes() + 4, 2);
  std::memcpy(&entries, page.bytes() + 6, 2);
  count_ = entries;
  return tag == kPostingTag && kPostingHead + std::uint64_t{width} * count_ <= size_;
}

void PostingPage::makeEmpty(TreePage page, std::uint32_t width) {
  page_ = page;
  width_ = width;
  std::memcpy(&size_, page.bytes(), 4);
  std::memcpy(page.bytes() + 4, &kPostingTag, 2);
  setCount(0);
}

std::uint64_t PostingPage::next() const {
  std::uint64_t position;
  std::memcpy(&position, page_.bytes() + 8, 8);
  return position;
}

void PostingPage::setNext(std::uint64_t position) { std::memcpy(page_.bytes() + 8, &position, 8); }

std::uint64_t PostingPage::id(std::uint32_t number) const {
  assert(number < count_);
  std::uint64_t value = 0;
  std::memcpy(&value, at(number), width_);
  return value;
}

void PostingPage::appendTo(std::vector<std::uint64_t>& ids) const {
  const std::size_t before = ids.size();
  ids.resize(before + count_);
  if (width_ == sizeof(std::uint64_t)) {
    std::memcpy(ids.data() + before, at(0), std::size_t{count_} * width_);
    return;
  }
  for (std::uint32_t i = 0; i < count_; ++i) {
    std::uint32_t id;
    std::memcpy(&id, at(i), sizeof id);
    ids[before + i] = id;
  }
}

void PostingPage::append(std::uint64_t objectID) {
  assert(hasRoom());
  std::memcpy(at(count_), &objectID, width_);
  setCount(count_ + 1);
}

void PostingPage::erase(std::uint32_t number) {
  assert(number < count_);
  std::memmove(at(number), at(count_ - 1), width_);
  truncate(count_ - 1);
}

void PostingPage::truncate(std::uint32_t count) {
  assert(count <= count_);
  std::memset(at(count), 0, std::size_t{width_} * (count_ - count));
  setCount(count);
}

void PostingPage::setCount(std::uint32_t count) {
  const auto stored = static_cast<std::uint16_t>(count);
  std::memcpy(page_.bytes() + 6, &stored, 2);
  count_ = count;
}

// -- A chain --------------------------------------------------------------------------------------

namespace {

constexpr std::uint32_t kUnderfull =
    40;                                ///< percent of fill below which a page looks for a partner
constexpr std::uint32_t kMerged = 80;  ///< percent that two pages stay below that become one

}  // namespace

PostingChain::PostingChain(const IndexTree& tree)
    : tree_(tree),
      store_(tree, Own::postings),
      width_(tree.shape().idBytes),
      unit_(tree.pageSize()) {}

void PostingChain::reset() {
  assert(!changed_);
  where_.assign(expected_.size(), kNone);
  asked_ = 0;
  pages_.clear();
  pageCount_ = 0;
  current_ = kNone;
}

/// The object's place among those that were to be expected, or their number. Most are asked for in
/// their order, so the last place and the next one are looked at first.
std::size_t PostingChain::placeOf(std::uint64_t objectID) {
  const std::size_t end = std::min(asked_ + 2, expected_.size());
  for (; asked_ < end; ++asked_) {
    if (expected_[asked_].objectID() == objectID) return asked_;
  }
  const auto isBelow = [](const WordChange& change, std::uint64_t id) {
    return change.objectID() < id;
  };
  const auto place = std::lower_bound(expected_.begin(), expected_.end(), objectID, isBelow);
  asked_ = static_cast<std::size_t>(place - expected_.begin());
  return place != expected_.end() && place->objectID() == objectID ? asked_ : expected_.size();
}

std::uint32_t PostingChain::pageOf(std::uint64_t objectID) {
  const std::size_t place = placeOf(objectID);
  assert(place < expected_.size());
  return where_[place];
}

void PostingChain::locate(std::uint64_t objectID, std::uint32_t page) {
  const std::size_t place = placeOf(objectID);
  if (place < expected_.size()) where_[place] = page;
}

namespace {

/// Whether one of the IDs lies in [from, from + range]. All are looked at, without a branch.
template <typename Id>
bool anyWithin(const char* ids, std::uint32_t count, std::uint64_t from, std::uint64_t range) {
  const auto first = static_cast<Id>(from);
  const auto most = static_cast<Id>(range);
  bool any = false;
  for (std::uint32_t i = 0; i < count; ++i) {
    Id id;
    std::memcpy(&id, ids + std::size_t{i} * sizeof id, sizeof id);
    any |= static_cast<Id>(id - first) <= most;
  }
  return any;
}

}  // namespace

void PostingChain::locateAll(const PostingPage& bytes, std::uint32_t page) {
  if (expected_.empty()) return;
  const std::uint64_t from = expected_.front().objectID();
  const std::uint64_t range = expected_.back().objectID() - from;
  const bool any = width_ == 4 ? anyWithin<std::uint32_t>(bytes.ids(), bytes.count(), from, range)
                               : anyWithin<std::uint64_t>(bytes.ids(), bytes.count(), from, range);
  if (!any) return;
  for (std::uint32_t i = 0; i < bytes.count(); ++i) locate(bytes.id(i), page);
}

Result PostingChain::open(std::uint64_t first) {
  reset();
  std::uint64_t position = first;
  std::uint64_t left = tree_.mostPages();
  ZELTA_TRY(forEachPostingPage(tree_, first, &left, [&](const PostingPage& page) {
    const auto number = static_cast<std::uint32_t>(pages_.size());
    if (number != 0) pages_[number - 1].next = number;
    pages_.push_back({position, page.count(), kNone});
    locateAll(page, number);
    position = page.next();
  }));
  pageCount_ = static_cast<std::uint32_t>(pages_.size());
  first_ = 0;
  last_ = pageCount_ - 1;
  room_ = first_;
  return {};
}

Result PostingChain::create(std::uint64_t one, std::uint64_t other) {
  reset();
  TreePage bytes;
  std::uint64_t position = 0;
  ZELTA_TRY(store_.allocate(unit_, PageRole::sibling, &position, &bytes));
  page_.makeEmpty(bytes, width_);
  for (const std::uint64_t id : {one, other}) {
    if (!page_.hasRoom()) return store_.corrupted();
    page_.append(id);
    locate(id, 0);
  }
  pages_.push_back({position, 2, kNone});
  pageCount_ = 1;
  first_ = last_ = room_ = current_ = 0;
  changed_ = true;
  return {};
}

/// Takes a page at hand.
Result PostingChain::use(std::uint32_t page) {
  if (current_ == page) return {};
  ZELTA_TRY(store());
  TreePage bytes;
  ZELTA_TRY(store_.load(pages_[page].position, PageRole::sibling, &bytes));
  const bool sound = page_.attach(bytes, width_);
  if (!sound || page_.count() != pages_[page].count) return store_.corrupted();
  current_ = page;
  return {};
}

Result PostingChain::store() {
  const std::uint32_t page = current_;
  current_ = kNone;
  if (page == kNone || !changed_) return {};
  changed_ = false;
  pages_[page].count = page_.count();
  TreePage bytes = page_.page();
  bool moved = false;
  return store_.store(pages_[page].position, &bytes, &moved);
}

bool PostingChain::isFull(std::uint32_t count) const {
  return count >= kMostPostings || unit_ < kPostingHead + std::uint64_t{width_} * (count + 1);
}

Result PostingChain::add(std::uint64_t objectID, bool* full) {
  *full = false;
  assert(!has(objectID));
  if (current_ != kNone) pages_[current_].count = page_.count();
  for (; room_ != kNone && isFull(pages_[room_].count); room_ = pages_[room_].next) {
  }
  if (room_ == kNone) {
    const std::uint32_t power = tree_.table().index(tree_.index()).maximumObjectPower;
    const std::uint64_t mostIDs = std::uint64_t{(unit_ - kPostingHead) / width_} * pageCount_;
    *full = power != 0 && mostIDs > std::uint64_t{1} << power;
    return *full ? Result() : extend(objectID);
  }
  ZELTA_TRY(use(room_));
  if (!page_.hasRoom()) return store_.corrupted();
  page_.append(objectID);
  changed_ = true;
  locate(objectID, room_);
  return {};
}

/// Adds a page to the chain, which takes a quarter of the last one's IDs and one more.
Result PostingChain::extend(std::uint64_t objectID) {
  const std::uint32_t source = last_;
  ZELTA_TRY(use(source));
  std::vector<std::uint64_t> moving;
  const std::uint32_t stay = page_.count() - page_.count() / 4;
  for (std::uint32_t i = stay; i < page_.count(); ++i) moving.push_back(page_.id(i));
  moving.push_back(objectID);

  TreePage bytes;
  std::uint64_t position = 0;
  page_.truncate(stay);
  changed_ = true;
  ZELTA_TRY(store());
  ZELTA_TRY(store_.allocate(unit_, PageRole::sibling, &position, &bytes));
  const auto fresh = static_cast<std::uint32_t>(pages_.size());
  page_.makeEmpty(bytes, width_);
  for (const std::uint64_t id : moving) {
    if (!page_.hasRoom()) return store_.corrupted();
    page_.append(id);
    locate(id, fresh);
  }
  pages_.push_back({position, page_.count(), kNone});
  pages_[source].next = fresh;
  last_ = fresh;
  ++pageCount_;
  current_ = fresh;
  changed_ = true;
  ZELTA_TRY(use(source));
  page_.setNext(position);
  changed_ = true;
  room_ = isFull(page_.count()) ? fresh : source;
  return {};
}

Result PostingChain::remove(std::uint64_t objectID, bool* empty) {
  *empty = false;
  const std::uint32_t page = pageOf(objectID);
  assert(page != kNone);
  locate(objectID, kNone);
  ZELTA_TRY(use(page));
  const std::uint32_t count = page_.count();
  if (page == first_ && count == 1) {
    // The next page becomes the first one; one without IDs would keep a word that nobody has.
    do {
      *empty = pages_[first_].next == kNone;
      ZELTA_TRY(freePage(first_));
    } while (!*empty && pages_[first_].count == 0);
    return {};
  }
  std::uint32_t number = 0;
  while (number < count && page_.id(number) != objectID) ++number;
  if (number == count) return store_.corrupted();
  page_.erase(number);
  changed_ = true;
  pages_[page].count = page_.count();
  room_ = first_;
  const std::uint64_t used = std::uint64_t{count - 1} * width_ * 100;
  if (std::uint64_t{page_.size() - kPostingHead} * kUnderfull <= used) return {};
  const std::uint32_t other = partner(page, count);
  if (other == kNone) return {};
  // Pages are numbered in the order of the chain.
  return other < page ? merge(other, page) : merge(page, other);
}

/// Whether so many IDs, less one, leave a page filled below a percentage.
bool PostingChain::fitTogether(std::uint64_t count, std::uint32_t percent) const {
  return std::uint64_t{unit_ - kPostingHead} * percent > (count - 1) * width_ * 100;
}

/// The page that a page which had `count` IDs joins: the emptiest before it, or else the first
/// behind it, if the two are not too full.
std::uint32_t PostingChain::partner(std::uint32_t page, std::uint32_t count) const {
  std::uint32_t smallest = kNone;
  for (std::uint32_t i = first_; i != page; i = pages_[i].next) {
    if (smallest == kNone || pages_[i].count < pages_[smallest].count) smallest = i;
  }
  const auto fits = [&](std::uint32_t other) {
    const std::uint64_t both = std::uint64_t{count} + pages_[other].count;
    return both - 1 <= kMostPostings && fitTogether(both, kMerged);
  };
  if (smallest != kNone && fits(smallest)) return smallest;
  for (std::uint32_t i = pages_[page].next; i != kNone; i = pages_[i].next) {
    if (fits(i)) return i;
  }
  return kNone;
}

/// Moves all IDs of a page to one nearer to the chain's start.
Result PostingChain::merge(std::uint32_t into, std::uint32_t from) {
  ZELTA_TRY(use(from));
  std::vector<std::uint64_t> moving;
  for (std::uint32_t i = 0; i < page_.count(); ++i) moving.push_back(page_.id(i));
  ZELTA_TRY(use(into));
  for (const std::uint64_t id : moving) {
    if (!page_.hasRoom()) return store_.corrupted();
    page_.append(id);
    locate(id, into);
  }
  changed_ = true;
  return freePage(from);
}

std::uint32_t PostingChain::before(std::uint32_t page) const {
  std::uint32_t i = first_;
  while (pages_[i].next != page) i = pages_[i].next;
  return i;
}

/// Takes a page out of the chain, whose IDs are gone.
Result PostingChain::freePage(std::uint32_t page) {
  ZELTA_TRY(store());
  const std::uint32_t behind = pages_[page].next;
  if (page == first_) {
    first_ = behind;
  } else {
    const std::uint32_t front = before(page);
    ZELTA_TRY(use(front));
    page_.setNext(behind == kNone ? 0 : pages_[behind].position);
    changed_ = true;
    ZELTA_TRY(store());
    pages_[front].next = behind;
    if (last_ == page) last_ = front;
  }
  room_ = first_;
  --pageCount_;
  return store_.free(pages_[page].position, unit_);
}

Result PostingChain::free() {
  current_ = kNone;
  changed_ = false;
  for (std::uint32_t i = first_; i != kNone; i = pages_[i].next) {
    ZELTA_TRY(store_.free(pages_[i].position, unit_));
  }
  pageCount_ = 0;
  return {};
}

}  // namespace zelta
