#include "transaction/log_section.h"

#include <cstring>

namespace zelta {

namespace {

constexpr std::uint32_t kVersionSize = 2;

std::uint64_t numberOf(const char* bytes, std::uint32_t size) {
  std::uint64_t number = 0;
  std::memcpy(&number, bytes, size);
  return number;
}

Result readDeleted(EntryReader& reader, std::uint64_t count, std::uint32_t idSize,
                   std::vector<std::uint64_t>& out) {
  if (count > reader.left() / idSize) return reader.malformed();
  out.reserve(count);
  for (std::uint64_t i = 0; i < count; ++i) {
    const char* bytes = nullptr;
    ZELTA_TRY(reader.take(idSize, &bytes));
    const std::uint64_t id = numberOf(bytes, idSize);
    if (id == 0 || (!out.empty() && id <= out.back())) return reader.malformed();
    out.push_back(id);
  }
  return {};
}

Result readImages(EntryReader& reader, std::uint64_t size, std::uint32_t idSize,
                  std::vector<PendingObject>& out) {
  const std::uint32_t smallest = kVersionSize + idSize;
  if (size > reader.left()) return reader.malformed();
  for (const std::uint64_t end = reader.position() + size; reader.position() != end;) {
    const std::uint64_t left = end - reader.position();
    PendingObject image;
    image.position = reader.position();
    const char* bytes = nullptr;
    if (left < 4 + smallest) return reader.malformed();
    ZELTA_TRY(reader.take(4 + smallest, &bytes));
    image.length = static_cast<std::uint32_t>(numberOf(bytes, 4));
    image.objectID = numberOf(bytes + 4 + kVersionSize, idSize);
    const std::uint64_t taken = logImageSize(image.length);
    if (image.length < smallest || taken > left) return reader.malformed();
    if (image.objectID == 0 || (!out.empty() && image.objectID <= out.back().objectID)) {
      return reader.malformed();
    }
    ZELTA_TRY(reader.skip(taken - 4 - smallest));
    out.push_back(image);
  }
  return {};
}

}  // namespace

Result readTableSection(EntryReader& reader, const LogTableSection_tag& head, std::uint32_t idSize,
                        TableSection& out) {
  constexpr std::uint32_t kNarrow = 4;
  constexpr std::uint32_t kWide = 8;
  const std::uint64_t start = reader.position();
  const std::uint32_t first = idSize != 0 ? idSize : kNarrow;
  for (std::uint32_t size = first;; size = kWide) {
    reader.goBack(start);
    out.tableId = head.tableId;
    out.deleted.clear();
    out.images.clear();
    Result result = readDeleted(reader, head.deletedCount, size, out.deleted);
    if (result.ok()) result = readImages(reader, head.imageBytes, size, out.images);
    if (result.ok() || idSize != 0 || size == kWide) return result;
  }
}

}  // namespace zelta
