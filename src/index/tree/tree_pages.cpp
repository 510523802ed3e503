#include "index/tree/tree_pages.h"

#include <cassert>
#include <cstring>

namespace zelta {

namespace {

/// Upper limit of a page's size: sizes are counted in 32 bits.
constexpr std::uint64_t kLargestPage = 0x7FFFFFFF;

}  // namespace

Result TreePages::store(std::uint64_t position, TreePage* page, bool* moved) const {
  char* held = nullptr;
  ZELTA_TRY(tree_.manager().writePage(tree_.file(), position, page->bytes(), &held));
  assert(position != 0);
  *moved = held != nullptr && held != page->bytes();
  if (*moved) *page = TreePage(held);
  return {};
}

Result TreePages::allocate(std::uint64_t size, PageRole role, std::uint64_t* position,
                           TreePage* page) const {
  if (size > kLargestPage) return reportSystemError(&tree_.metaData(), code::kNoMemory);
  PageBuffer& into = buffer(role);
  char* bytes = nullptr;
  ZELTA_TRY(tree_.manager().allocatePage(tree_.file(), static_cast<std::uint32_t>(size), &bytes,
                                         position, into.lease()));
  *page = pageIn(bytes, into);
  return {};
}

Result TreePages::free(std::uint64_t position, std::uint32_t size) const {
  return tree_.manager().freePage(tree_.file(), position, size);
}

TreePage TreePages::copyAside(const char* bytes, std::uint32_t size) const {
  PageBuffer& aside = buffer(PageRole::spare);
  assert(bytes != aside.data());
  char* copy = aside.lease().reserve(size);
  std::memcpy(copy, bytes, size);
  return TreePage(copy, &aside);
}

}  // namespace zelta
