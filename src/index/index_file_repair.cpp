// What becomes of an index file whose writer died. Until its journal is complete and summed up, a
// commit is undone by cutting the file; from then on it is completed, as the journal holds final
// images. A build that died leaves an empty file.

#include <cstring>

#include "index/index_file_layout.h"
#include "platform/file_io.h"
#include "storage/page_journal.h"

namespace zelta::index_file {

namespace {

class Repair {
 public:
  Repair(MetaData& metaData, Table& table, IndexFileHeader_tag& header, HeaderImage& image)
      : metaData_(metaData),
        table_(table),
        header_(header),
        image_(image),
        journal_(
            metaData, table, PageFile::index, table.indexFile,
            {journalStart(header), header.journalEnd, header.journalPages,
             header.journalFreeRecords, indexHeaderSize(table.indexCount), header.newFileEnd}) {}

  Result run(bool* abandoned);

 private:
  [[nodiscard]] Result outcome(SystemCode result) const {
    return result == 0 ? Result{} : failed(metaData_, table_, result);
  }
  Result readPendingRoots();
  Result rollForward();
  Result rollBack();
  Result reset(std::uint64_t target);

  MetaData& metaData_;
  Table& table_;
  IndexFileHeader_tag& header_;
  HeaderImage& image_;
  PageJournal journal_;
};

Result Repair::run(bool* abandoned) {
  *abandoned = header_.journalEnd == 0;
  if (*abandoned) {
    abandonFile(table_);
    return {};
  }
  std::uint64_t length = 0;
  ZELTA_TRY(outcome(platform::fileSize(table_.indexFile, &length)));
  if (header_.journalEnd > length) return rollBack();
  // Applied already; only the header is left.
  if (header_.rollbackEnd == 0) return reset(header_.newFileEnd);
  ZELTA_TRY(readPendingRoots());
  bool right = header_.journalEnd >= journalStart(header_);
  if (right) {
    std::uint64_t sum = 0;
    xorChecksum64(sum, image_.bytes() + kSummedStart, image_.liveStart() - kSummedStart);
    ZELTA_TRY(journal_.addTo(sum));
    right = sum == header_.journalSum;
  }
  if (right) ZELTA_TRY(journal_.check(&right));
  return right ? rollForward() : rollBack();
}

Result Repair::readPendingRoots() {
  return outcome(readBuffer(table_.indexFile, image_.pendingStart(),
                            image_.bytes() + image_.pendingStart(),
                            static_cast<std::uint32_t>(image_.rootBytes())));
}

Result Repair::rollForward() {
  ZELTA_TRY(journal_.apply());
  ZELTA_TRY(outcome(writeBuffer(table_.indexFile, image_.liveStart(),
                                image_.bytes() + image_.pendingStart(),
                                static_cast<std::int64_t>(image_.rootBytes()))));
  // All of it must be on the disk before the journal that could bring it there again is given up.
  ZELTA_TRY(outcome(platform::flushFile(table_.indexFile)));
  header_.freeListHead = header_.newFreeListHead;
  return reset(header_.newFileEnd);
}

/// The end stays as it is: the new one is written only when all has been applied. That a commit
/// names another end to go back to is damage, and nothing to be cut off for.
Result Repair::rollBack() {
  if (header_.rollbackEnd != 0 && header_.rollbackEnd != header_.fileEnd) {
    return corrupted(metaData_, table_);
  }
  return reset(header_.fileEnd);
}

Result Repair::reset(std::uint64_t target) {
  if (target < indexHeaderSize(table_.indexCount)) return corrupted(metaData_, table_);
  header_.fileEnd = target;
  clearIntent(header_);
  image_.putHeader(header_);
  image_.clearPending();
  ZELTA_TRY(outcome(writeBuffer(table_.indexFile, kChainStart, image_.bytes() + kChainStart,
                                static_cast<std::int64_t>(image_.liveStart() - kChainStart))));
  ZELTA_TRY(outcome(platform::flushFile(table_.indexFile)));
  // Only ever cut: a damaged header must not make the file grow.
  std::uint64_t length = 0;
  ZELTA_TRY(outcome(platform::fileSize(table_.indexFile, &length)));
  return length > target ? outcome(truncateFile(table_.indexFile, target)) : Result{};
}

}  // namespace

Result repairIndexFile(MetaData& metaData, Table& table, IndexFileHeader_tag& header,
                       HeaderImage& image, bool* abandoned) {
  return Repair(metaData, table, header, image).run(abandoned);
}

}  // namespace zelta::index_file
