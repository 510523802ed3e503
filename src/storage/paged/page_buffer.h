// A buffer that pages are read into, one at a time. Each role that a page can have in an operation
// on a tree (index/tree/tree_pages.h) has one, so that a page stays where it is as long as no other
// one takes its role. The count of leases lets a debug build find whoever uses a page after that.

#ifndef ZELTA_STORAGE_PAGED_PAGE_BUFFER_H
#define ZELTA_STORAGE_PAGED_PAGE_BUFFER_H

#include <cstdint>

#include "frame/scratch_buffer.h"

namespace zelta {

class PageBuffer {
 public:
  /// The bytes for another page. Whoever had them before has them no more.
  [[nodiscard]] ScratchBuffer& lease() {
    ++leases_;
    return bytes_;
  }
  [[nodiscard]] const char* data() const { return bytes_.data(); }
  /// Counts on with each lease; who keeps the number can tell whether the bytes are still his.
  [[nodiscard]] std::uint32_t leases() const { return leases_; }

 private:
  ScratchBuffer bytes_;
  std::uint32_t leases_ = 0;
};

}  // namespace zelta

#endif  // ZELTA_STORAGE_PAGED_PAGE_BUFFER_H
