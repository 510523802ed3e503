#include "storage/paged/paged_flush.h"

#include <cassert>
#include <cstring>

#include "platform/file_io.h"
#include "storage/paged/atomic_manager_writer.h"

namespace zelta {

namespace {

using Image = PagedHeaderImage;

/// Files above the first size grow in steps of the second, where they grow by more than they need.
constexpr std::uint64_t kSmallFile = 64 * 1024;
constexpr std::uint64_t kReserve = 64 * 1024;
/// Ahead of each page or record in the journal stands its position.
constexpr std::uint64_t kPositionWord = sizeof(std::uint64_t);

}  // namespace

PagedFlush::PagedFlush(const PagedForm& form, AtomicManager& manager, PagedFileHeader& header,
                       const PagedRecord* record)
    : form_(form),
      manager_(manager),
      header_(header),
      record_(record),
      file_(manager.handle(form.file)),
      image_(form, manager.indexCount) {}

void PagedFlush::reach(Step step) {
  assert(static_cast<int>(step) == static_cast<int>(step_) + 1);
  step_ = step;
}

// -- Step 1: prepare ------------------------------------------------------------------------------

Result PagedFlush::prepare() {
  if (form_.writtenOften) ZELTA_TRY(measureFile());
  clearIntent(header_);
  header_.journalBase = header_.endOfFile;
  const std::uint64_t end = manager_.endOfFile(form_.file);
  PageFreeChain& freeSpace = manager_.freeSpace(form_.file);
  ZELTA_TRY(freeSpace.merge(end, &header_.newEndOfFile));
  header_.freeEntryCount = freeSpace.sumEntries(&header_.journalChecksum);
  if (header_.newEndOfFile < form_.headerSize(manager_.indexCount) || header_.newEndOfFile > end) {
    return reportError(&manager_.metaData, Own::freeList);
  }
  header_.newFreeHead = freeSpace.head();
  header_.pageEntryCount = manager_.changedPageCount(form_.file) + (record_ != nullptr ? 1 : 0);
  reach(Step::prepare);
  return form_.writtenOften || !changesAnything() ? Result{} : measureFile();
}

/// A file is at least as long as its header says: behind a damaged end there would be a hole.
Result PagedFlush::measureFile() {
  ZELTA_TRY(outcome(platform::fileSize(file_, &length_)));
  return length_ < header_.endOfFile ? manager_.corrupted(form_.file) : Result{};
}

bool PagedFlush::changesAnything() const {
  assert(step_ == Step::prepare);
  return header_.pageEntryCount != 0 || header_.freeEntryCount != 0 ||
         header_.newEndOfFile != header_.endOfFile || header_.newFreeHead != header_.freeHead ||
         (manager_.savedRoots(form_.file) != nullptr && rootsChanged());
}

/// Without roots to compare with they count as changed.
bool PagedFlush::rootsChanged() const {
  const std::uint64_t* saved = manager_.savedRoots(form_.file);
  return saved == nullptr ||
         std::memcmp(manager_.roots(form_.file), saved, image_.rootBytes()) != 0;
}

Result PagedFlush::write() {
  assert(changesAnything());
  ZELTA_TRY(writeJournal());
  ZELTA_TRY(writeIntent());
  ZELTA_TRY(apply());
  return finish();
}

// -- Step 2: journal ------------------------------------------------------------------------------

Result PagedFlush::writeJournal() {
  assert(step_ == Step::prepare);
  // Nothing that the file has now is overwritten before the intent stands.
  assert(journalStart(header_) >= header_.endOfFile);
  expectedBytes_ = journalBytes();
  GatheredWriter writer(file_, buffer(), expectedBytes_);
  std::uint64_t position = journalStart(header_);
  if (record_ != nullptr) ZELTA_TRY(putRecord(writer, position));
  ZELTA_TRY(putPages(writer, position));
  ZELTA_TRY(putFreeBlocks(writer, position));
  ZELTA_TRY(outcome(writer.finish()));
  if (form_.writtenOften && position > length_) reserveAhead(writer, position);
  header_.journalEnd = position;
  assert(position >= journalStart(header_));
  journalEnd_ = position;
  sum(&header_.newFreeHead, sizeof(header_) - Image::kSummedStart);
  sum(manager_.roots(form_.file), image_.rootBytes());
  reach(Step::journal);
  return {};
}

/// The record's entry: position, bytes, and zeros up to the size of its block, so that an entry is
/// as long as its first word says. The zeros add nothing to the checksum.
Result PagedFlush::putRecord(GatheredWriter& writer, std::uint64_t& position) {
  const std::uint64_t block = recordBlock();
  assert(block >= record_->length);
  sum(&record_->position, kPositionWord);
  sum(record_->bytes, record_->length);
  ZELTA_TRY(outcome(writer.write(position, &record_->position, kPositionWord)));
  position += kPositionWord;
  ZELTA_TRY(outcome(writer.write(position, record_->bytes, record_->length)));
  ZELTA_TRY(outcome(writer.zeros(position + record_->length, block - record_->length)));
  position += block;
  return {};
}

/// An entry for each changed page: position and bytes. A repair takes the length of an entry from
/// the first word of the page.
Result PagedFlush::putPages(GatheredWriter& writer, std::uint64_t& position) {
  return visitPages([&](const PageNode& page, const char* bytes) {
    assert(std::memcmp(bytes, &page.size, sizeof page.size) == 0);
    sum(&page.key, kPositionWord);
    sum(bytes, page.size);
    const SystemCode result = writer.write(position, &page.key, kPositionWord);
    position += kPositionWord + page.size;
    return result == 0 ? writer.write(position - page.size, bytes, page.size) : result;
  });
}

/// Their checksum is in the journal's already.
Result PagedFlush::putFreeBlocks(GatheredWriter& writer, std::uint64_t& position) {
  return outcome(manager_.freeSpace(form_.file).writeEntries(writer, position));
}

/// Lets a file that grows grow by more than is needed, so that the next journals find room and need
/// no system call. The journal stands already: that there is no room for more is no failure.
void PagedFlush::reserveAhead(GatheredWriter& writer, std::uint64_t end) {
  if (end < kSmallFile) return;
  const SystemCode result = writer.zeros(end, kReserve - end % kReserve);
  if (result == 0) static_cast<void>(writer.finish());
}

// -- Step 3: intent -------------------------------------------------------------------------------

/// The commit point of the file: before its end the file is as it was, from there on a repair makes
/// the change.
Result PagedFlush::writeIntent() {
  assert(step_ == Step::journal);
  assert(header_.newEndOfFile != 0 && header_.journalEnd != 0);
  constexpr std::uint64_t kStart = Image::kIntentStart;
  PagedFileHeader shown = header_;
  // Where the order of writes is all that is relied on, the word that says that a journal stands
  // comes last.
  if (!form_.outlastsPower) shown.newEndOfFile = 0;
  image_.putHeader(shown);
  image_.putJournalRoots(manager_.roots(form_.file));
  ZELTA_TRY(writeHead(kStart, image_.bytes() + kStart, image_.rootsStart() - kStart));
  if (!form_.outlastsPower) {
    ZELTA_TRY(writeHead(offsetof(PagedFileHeader, newEndOfFile), &header_.newEndOfFile,
                        sizeof header_.newEndOfFile));
  }
  ZELTA_TRY(flushToDisk());
  reach(Step::intent);
  return {};
}

// -- Step 4: apply --------------------------------------------------------------------------------

/// Writes the final images over what they replace. A death in here costs nothing: the journal
/// stands.
Result PagedFlush::apply() {
  assert(step_ == Step::intent);
  assert(header_.journalBase == header_.endOfFile);
  GatheredWriter writer(file_, buffer(), expectedBytes_);
  if (record_ != nullptr) {
    ZELTA_TRY(outcome(writer.write(record_->position, record_->bytes, record_->length)));
  }
  ZELTA_TRY(visitPages([&](const PageNode& page, const char* bytes) {
    return writer.write(page.key, bytes, page.size);
  }));
  ZELTA_TRY(outcome(writer.finish()));
  // The roots go before the journal is cleared, so that even a write cut in two is made good.
  if (rootsChanged()) {
    ZELTA_TRY(writeHead(image_.rootsStart(), manager_.roots(form_.file), image_.rootBytes()));
  }
  ZELTA_TRY(manager_.freeSpace(form_.file).apply());
  ZELTA_TRY(flushToDisk());
  reach(Step::apply);
  return {};
}

// -- Step 5: finish -------------------------------------------------------------------------------

/// The new numbers come first, while the journal still says the same; then it goes, from its base
/// on: one without a base has been applied.
Result PagedFlush::finish() {
  assert(step_ == Step::apply);
  constexpr std::uint64_t kStart = Image::kChainStart;
  header_.freeHead = header_.newFreeHead;
  header_.endOfFile = header_.newEndOfFile;
  clearIntent(header_);
  image_.putAtRest(header_);
  ZELTA_TRY(writeHead(kStart, image_.bytes() + kStart, image_.rootsStart() - kStart));
  ZELTA_TRY(flushToDisk());
  reach(Step::finish);
  return {};
}

// -- Small helpers --------------------------------------------------------------------------------

/// Writes a part of the header: at once, or in the order of its words if that is what protects it.
Result PagedFlush::writeHead(std::uint64_t position, const void* bytes, std::uint64_t length) {
  const auto size = static_cast<std::uint32_t>(length);
  return outcome(form_.outlastsPower ? writeBuffer(file_, position, bytes, size)
                                     : writeHeaderInOrder(file_, position, bytes, size));
}

Result PagedFlush::flushToDisk() {
  return form_.outlastsPower ? outcome(platform::flushFile(file_)) : Result{};
}

ScratchBuffer& PagedFlush::buffer() const { return manager_.metaData.scratchFor(Scratch::journal); }

/// Exact for a file that is written often; for the other one from the usual size of a page.
std::uint64_t PagedFlush::journalBytes() const {
  std::uint64_t bytes = std::uint64_t{kFreeEntrySize} * header_.freeEntryCount;
  if (!form_.writtenOften) {
    return bytes + header_.pageEntryCount * (header_.pageSize + kPositionWord);
  }
  if (record_ != nullptr) bytes += kPositionWord + recordBlock();
  const auto count = [&](const PageNode& page) {
    bytes += kPositionWord + page.size;
    return Result();
  };
  manager_.visitChangedPages(form_.file, count).ignore();
  return bytes;
}

/// Bytes of the record's block, which its own first word states.
std::uint32_t PagedFlush::recordBlock() const {
  assert(record_ != nullptr);
  std::uint32_t size = 0;
  std::memcpy(&size, record_->bytes, sizeof(size));
  return size;
}

void PagedFlush::sum(const void* bytes, std::uint64_t length) {
  xorChecksum64(header_.journalChecksum, bytes, length);
}

/// Visits the changed pages in the order of their positions.
template <class Visit>
Result PagedFlush::visitPages(const Visit& visit) {
  return manager_.visitChangedPages(form_.file, [&](const PageNode& page) {
    const char* bytes = nullptr;
    ZELTA_TRY(manager_.changedBytes(page, &bytes, manager_.metaData.scratchFor(Scratch::transfer)));
    return outcome(visit(page, bytes));
  });
}

}  // namespace zelta
