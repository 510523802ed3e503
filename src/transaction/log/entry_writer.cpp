#include "transaction/log/entry_writer.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "platform/file_io.h"

namespace zelta {

EntryWriter::EntryWriter(const LogFile& log, const LogEntry& entry)
    : log_(log),
      entry_(entry),
      next_(entry.body()),
      buffer_(log.metaData().scratchFor(Scratch::image).reserve(kCapacity)) {}

Result EntryWriter::write(const void* data, std::uint64_t length) {
  assert(entry_.position != 0 && used_ < kCapacity);
  const char* bytes = static_cast<const char*>(data);
  while (length > 0) {
    const std::uint64_t piece = std::min(length, kCapacity - used_);
    if (bytes != nullptr) {
      std::memcpy(buffer_ + used_, bytes, piece);
      bytes += piece;
    } else {
      std::memset(buffer_ + used_, 0, piece);
    }
    used_ += piece;
    length -= piece;
    if (used_ == kCapacity) ZELTA_TRY(writeOut());
  }
  return {};
}

Result EntryWriter::writeOut() {
  xorChecksum64(sum_, buffer_, used_);  // every piece but the last is a multiple of 8
  const std::uint64_t position = next_;
  const std::uint64_t length = used_;
  next_ += length;
  used_ = 0;
  return log_.write(position, buffer_, length);
}

Result EntryWriter::finish(std::uint32_t sections) {
  assert(sections != 0);
  const std::uint64_t end = next_ + used_;
  if (end > entry_.end()) return reportError(&log_.metaData(), Own::logFile);
  ZELTA_TRY(write(nullptr, entry_.end() - end));
  ZELTA_TRY(writeOut());
  entry_.head.sectionCount = sections;
  entry_.head.checksum = sum_;
  // The commit point.
  return log_.report(log_.completeEntry(entry_));
}

}  // namespace zelta
