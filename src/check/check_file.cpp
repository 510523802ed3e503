#include "check/check_file.h"

#include <algorithm>
#include <cstring>

#include "platform/codes.h"
#include "platform/file_io.h"
#include "platform/text.h"

namespace zelta::check {

namespace {

/// Bytes that are read when a file is walked from front to back, and when it is not.
constexpr std::uint64_t kStream = 128 * 1024;
constexpr std::uint64_t kPiece = 4 * 1024;
constexpr std::uint64_t kWord = 4;  ///< what is locked at a time

}  // namespace

CheckFile::CheckFile(const std::u16string& path) : name_(platform::narrow(path.c_str())) {
  failure_ = platform::openFile(path.c_str(), platform::Disposition::openExisting, &file_);
  if (failure_ != 0) file_ = platform::File::none;
  if (failure_ == 0) failure_ = platform::fileSize(file_, &size_);
  if (failure_ != 0) size_ = 0;
}

bool CheckFile::isMissing() const {
  return failure_ == code::kFileNotFound || failure_ == code::kPathNotFound;
}

bool CheckFile::readOpenParts(std::uint64_t offset, char* bytes, std::uint64_t length) {
  const SystemCode failure =
      readLargeBuffer(file_, offset, bytes, static_cast<std::int64_t>(length));
  if (failure != code::kLockViolation) return failure == 0;
  if (length == 1) {
    *bytes = 0;
    return true;
  }
  const std::uint64_t half = length / 2;
  return readOpenParts(offset, bytes, half) &&
         readOpenParts(offset + half, bytes + half, length - half);
}

const char* CheckFile::view(std::uint64_t offset, std::uint64_t length) {
  if (offset > size_ || length > size_ - offset) return nullptr;
  if (offset >= start_ && offset + length <= start_ + held_) {
    return window_.data() + (offset - start_);
  }
  const bool onward = held_ != 0 && offset >= start_ && offset <= start_ + held_;
  const std::uint64_t wanted =
      std::min(std::max(length, onward ? kStream : kPiece), size_ - offset);
  if (window_.size() < wanted || window_.size() / 4 > std::max(wanted, kStream)) {
    window_ = std::vector<char>(wanted);
  }
  held_ = 0;
  start_ = offset;
  if (!read(offset, window_.data(), wanted)) return nullptr;
  held_ = wanted;
  return window_.data();
}

bool CheckFile::read(std::uint64_t offset, char* bytes, std::uint64_t length) {
  if (!readOpenParts(offset, bytes, length)) return false;
  if (!overlays_) return true;
  const std::uint64_t end = offset + length;
  for (auto piece = overlays_->lower_bound(offset / kOverlaid * kOverlaid);
       piece != overlays_->end() && piece->first < end; ++piece) {
    const std::uint64_t from = std::max(offset, piece->first);
    const std::uint64_t to = std::min(end, piece->first + kOverlaid);
    std::memcpy(bytes + (from - offset), piece->second.data() + (from - piece->first), to - from);
  }
  return true;
}

bool CheckFile::overlay(std::uint64_t offset, const void* bytes, std::uint64_t length) {
  if (offset > size_ || length > size_ - offset) return false;
  if (!overlays_) overlays_ = std::make_shared<Overlays>();
  const char* next = static_cast<const char*>(bytes);
  for (std::uint64_t at = offset, end = offset + length; at < end;) {
    const std::uint64_t start = at / kOverlaid * kOverlaid;
    const auto [piece, added] = overlays_->try_emplace(start);
    if (added && !readOpenParts(start, piece->second.data(), std::min(kOverlaid, size_ - start))) {
      overlays_->erase(piece);
      return false;
    }
    const std::uint64_t some = std::min(end, start + kOverlaid) - at;
    std::memcpy(piece->second.data() + (at - start), next, some);
    at += some;
    next += some;
  }
  held_ = 0;
  return true;
}

bool CheckFile::cut(std::uint64_t size) {
  if (size > size_) return false;
  size_ = size;
  held_ = 0;
  return true;
}

void CheckFile::seeAs(const CheckFile& other) {
  overlays_ = other.overlays_;
  size_ = std::min(size_, other.size_);
  held_ = 0;
}

SystemCode CheckFile::readNow(std::uint64_t offset, void* bytes, std::uint32_t length) {
  return readBuffer(file_, offset, bytes, length);
}

bool CheckFile::isLocked(std::uint64_t offset) {
  char word[kWord];
  return readNow(offset, word, sizeof word) == code::kLockViolation;
}

std::uint64_t CheckFile::firstNonzero(std::uint64_t from, std::uint64_t to) {
  while (from < to) {
    const std::uint64_t length = std::min(kPiece, to - from);
    const char* bytes = view(from, length);
    if (bytes == nullptr) return to;
    const char* end = bytes + length;
    const char* found = std::find_if(bytes, end, [](char byte) { return byte != 0; });
    if (found != end) return from + static_cast<std::uint64_t>(found - bytes);
    from += length;
  }
  return to;
}

void Findings::add(CheckKind kind, const CheckFile& file, std::uint64_t offset, std::string what) {
  if (!full()) list.push_back({kind, file.name(), offset, std::move(what)});
}

void checkTiling(Findings& findings, const CheckFile& file, std::vector<Extent>& extents,
                 std::uint64_t from, std::uint64_t to, bool complete) {
  std::sort(extents.begin(), extents.end(),
            [](const Extent& a, const Extent& b) { return a.position < b.position; });
  std::uint64_t at = from;
  const auto gap = [&](std::uint64_t until) {
    if (at < until && complete) {
      findings.damage(file, at, text(until - at) + " bytes belong to nothing");
    }
  };
  for (const Extent& extent : extents) {
    if (findings.full()) return;
    if (extent.position < at) {
      findings.damage(file, extent.position, "lies over something else, up to " + text(at));
    }
    gap(extent.position);
    at = std::max(at, extent.position + extent.size);
  }
  gap(to);
}

void checkFreeChain(Findings& findings, CheckFile& file, std::uint64_t headOffset,
                    std::uint64_t from, std::uint64_t to, std::vector<Extent>& extents) {
  constexpr std::uint64_t kHead = 16;
  constexpr std::uint32_t kMarker = 0xFFFFFFFF;
  std::uint64_t linkOffset = headOffset;
  std::uint64_t position = file.number<std::uint64_t>(headOffset);
  std::uint64_t floor = from;
  bool touches = false;
  while (position != 0 && !findings.full()) {
    if (position < floor || position >= to || to - position < kHead) {
      return findings.damage(file, linkOffset,
                             "free block " + text(position) + " lies outside or does not ascend");
    }
    const char* head = file.view(position, kHead);
    if (head == nullptr) return findings.damage(file, linkOffset, "free block cannot be read");
    const auto size = load<std::uint32_t>(head, 0);
    const auto next = load<std::uint64_t>(head, 8);
    if (load<std::uint32_t>(head, 4) != kMarker) {
      return findings.damage(file, position + 4, "free block has no marker");
    }
    if (size < kHead || size > to - position) {
      return findings.damage(file, position, "free block of impossible size " + text(size));
    }
    if (touches && position == floor) {
      findings.damage(file, position, "free block was not joined with the one before");
    }
    extents.push_back({position, size});
    floor = position + size;
    touches = true;
    linkOffset = position + 8;
    position = next;
  }
  if (touches && floor == to) {
    findings.damage(file, linkOffset - 8, "free block at the end of the file was not given up");
  }
}

std::uint64_t foldBytes(const char* bytes, std::uint64_t length) {
  std::uint64_t sum = 0;
  for (std::uint64_t i = 0; i < length; ++i) {
    sum ^= std::uint64_t{static_cast<unsigned char>(bytes[i])} << (8 * (i % 8));
  }
  return sum;
}

}  // namespace zelta::check
