#include "platform/find_bytes.h"

#include <bit>
#include <cassert>
#include <cstddef>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace zelta::platform {

namespace {

/// Whether all but the first and the last byte agree.
bool agreesInside(const char* at, std::string_view what) {
  return what.size() <= 2 || std::memcmp(at + 1, what.data() + 1, what.size() - 2) == 0;
}

#if defined(__SSE2__)
/// The same for the first places, sixteen at a time: both ends of `what` are compared at once, and
/// seldom agree by chance. `*at` is left where fewer are left.
const char* findInBlocks(const char** at, const char* end, std::string_view what) {
  constexpr std::ptrdiff_t kBlock = 16;
  const __m128i first = _mm_set1_epi8(what.front());
  const __m128i last = _mm_set1_epi8(what.back());
  const auto length = static_cast<std::ptrdiff_t>(what.size());
  const auto load = [](const char* from) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
  };
  for (; end - *at >= length - 1 + kBlock; *at += kBlock) {
    const __m128i both = _mm_and_si128(_mm_cmpeq_epi8(load(*at), first),
                                       _mm_cmpeq_epi8(load(*at + length - 1), last));
    for (auto left = static_cast<unsigned>(_mm_movemask_epi8(both)); left != 0; left &= left - 1) {
      const char* place = *at + std::countr_zero(left);
      if (agreesInside(place, what)) return place;
    }
  }
  return nullptr;
}
#endif

}  // namespace

const char* findBytes(const char* at, const char* end, std::string_view what) {
  assert(!what.empty() && at <= end);
#if defined(__SSE2__)
  if (const char* place = findInBlocks(&at, end, what)) return place;
#endif
  for (; static_cast<std::size_t>(end - at) >= what.size(); ++at) {
    const auto places = static_cast<std::size_t>(end - at) - what.size() + 1;
    at = static_cast<const char*>(std::memchr(at, what.front(), places));
    if (at == nullptr) return nullptr;
    if (at[what.size() - 1] == what.back() && agreesInside(at, what)) return at;
  }
  return nullptr;
}

}  // namespace zelta::platform
