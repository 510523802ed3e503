// A buffer that pages are read into, one at a time.

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
