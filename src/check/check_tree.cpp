#include "check/check_tree.h"

namespace zelta::check {

bool TreePages::readHead(std::uint64_t position, std::uint64_t linkOffset, PageHead& head) {
  constexpr std::uint64_t kHead = 8;
  if (position < place_.from || position >= place_.to || place_.to - position < kHead) {
    return fail(linkOffset, "page " + text(position) + " lies outside");
  }
  if (!seen_.insert(position).second) {
    return fail(linkOffset, "page " + text(position) + " is reached twice");
  }
  const char* bytes = file_.view(position, kHead);
  if (bytes == nullptr) return fail(linkOffset, "page cannot be read");
  head.position = position;
  head.linkOffset = linkOffset;
  head.size = load<std::uint32_t>(bytes, 0);
  head.tag = load<std::uint16_t>(bytes, 4);
  head.count = load<std::uint16_t>(bytes, 6);
  if (head.size % 4 == 0 && head.size >= kHead && head.size <= place_.to - position) return true;
  return fail(position, "page of impossible size " + text(head.size));
}

bool TreePages::readPage(const PageHead& head, std::vector<std::uint32_t>& words) {
  bytes_ += head.size;
  if (bytes_ > place_.to - place_.from) return fail(head.linkOffset, "pages lie in each other");
  const char* bytes = file_.view(head.position, head.size);
  if (bytes == nullptr) return fail(head.linkOffset, "page cannot be read");
  words.resize(head.size / 4);
  std::memcpy(words.data(), bytes, head.size);
  extents_.push_back({head.position, head.size});
  ++findings_.counts.pages;
  return true;
}

}  // namespace zelta::check
