// The log: a checksummed entry for each committed transaction, written before any table changes.
//
// A log file is a small database of its own: a header with an intent, a B+Tree of transaction
// numbers that leads to the entries, a chain of free blocks (wide ones), and the entries. The
// single form ("x.zll", magic "ZELL") loses an entry as soon as it is applied. The numbered form
// ("x.0000.zll" on, magic "ZELO") keeps them; a full file is followed by the next number.
//
// logMutex guards header, tree and chain. An entry's body is written outside of it; meanwhile the
// entry's lock tells that its writer lives.
//
// Failures are reported with the database's name and ".zll". Appending and removing use the scratch
// buffer `journal`.

#ifndef ZELTA_TRANSACTION_LOG_FILE_H
#define ZELTA_TRANSACTION_LOG_FILE_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "frame/control_file.h"
#include "frame/metadata.h"
#include "platform/file.h"

namespace zelta {

struct LogHeader_tag {
  char magic[4];               ///< "ZELL" or "ZELO"
  std::uint8_t majorVersion;   ///< 1
  std::uint8_t minorVersion;   ///< 0
  std::uint16_t fileNumber;    ///< 0 in the single form
  std::uint64_t rootPosition;  ///< 0: no entry
  std::uint64_t freeHead;
  std::uint64_t endOfLog;        ///< 0 in a file begun by rotation, until its first entry
  std::uint64_t oldEnd;          ///< intent: `endOfLog` before the change
  std::uint64_t intentEnd;       ///< intent: end of the copy area
  std::uint64_t intentStart;     ///< intent: `endOfLog` after the change; nonzero: one is pending
  std::uint64_t intentChecksum;  ///< intent: over the bytes from 64 on and the copy area
  std::uint64_t newRoot;
  std::uint64_t newFreeHead;
  std::uint64_t newEntryPosition;  ///< 0 for a removal
  std::uint64_t newEntryLength;
  std::uint32_t nodeCount;  ///< nodes in the copy area
  std::uint32_t freeCount;  ///< free-block entries behind them
  std::uint32_t newEntryNumber;
  std::uint32_t zero;

  [[nodiscard]] bool isSingle() const { return std::memcmp(magic, "ZELL", 4) == 0; }
  [[nodiscard]] bool isNumbered() const { return std::memcmp(magic, "ZELO", 4) == 0; }
};
static_assert(sizeof(LogHeader_tag) == 112);
static_assert(std::has_unique_object_representations_v<LogHeader_tag>);
static_assert(offsetof(LogHeader_tag, rootPosition) == 8);
static_assert(offsetof(LogHeader_tag, endOfLog) == 24);
static_assert(offsetof(LogHeader_tag, oldEnd) == 32);
static_assert(offsetof(LogHeader_tag, intentStart) == 48);
static_assert(offsetof(LogHeader_tag, newRoot) == 64);
static_assert(offsetof(LogHeader_tag, newEntryNumber) == 104);

/// Head of an entry, and of the block that holds it. Sections follow, then zeros up to the block's
/// end.
struct LogEntryHead_tag {
  std::uint64_t blockLength;   ///< of the whole entry, this head included
  char magic[4];               ///< "ZELL" in both forms
  std::uint32_t number;        ///< of the transaction; 1 for exclusive ones and schema records
  std::uint32_t sectionCount;  ///< 0: the entry is incomplete, whatever the checksum says
  std::uint32_t zero;
  std::uint64_t checksum;  ///< xorChecksum64 of the block from offset 32 on; place of the lock

  [[nodiscard]] bool isEntry() const { return std::memcmp(magic, "ZELL", 4) == 0; }
};
static_assert(sizeof(LogEntryHead_tag) == 32);
static_assert(std::has_unique_object_representations_v<LogEntryHead_tag>);
static_assert(offsetof(LogEntryHead_tag, magic) == 8);
static_assert(offsetof(LogEntryHead_tag, sectionCount) == 16);
static_assert(offsetof(LogEntryHead_tag, checksum) == 24);

/// Head of a section of table edits. Behind it: the deleted IDs, ascending, 4 or 8 bytes each;
/// then the images, each in logImageSize() bytes.
struct LogTableSection_tag {
  char magic[4];  ///< "ZELD"
  std::uint32_t tableId;
  std::uint64_t deletedCount;
  std::uint64_t imageBytes;
};
static_assert(sizeof(LogTableSection_tag) == 24);
static_assert(std::has_unique_object_representations_v<LogTableSection_tag>);

/// Head of a section of a schema change; its body follows.
struct LogSchemaSection_tag {
  char magic[4];  ///< "ZELS"
  std::uint32_t tableId;
  std::uint32_t operation;  ///< a DirectoryChange
  std::uint32_t zero;
  std::uint64_t bodyLength;
};
static_assert(sizeof(LogSchemaSection_tag) == 24);
static_assert(std::has_unique_object_representations_v<LogSchemaSection_tag>);

/// Bytes of an object's image in a section: a length of 32 bits, the object, zeros to a multiple of
/// 4.
[[nodiscard]] constexpr std::uint64_t logImageSize(std::uint64_t objectLength) {
  return (objectLength + 7) & ~std::uint64_t{3};
}

/// The lock that marks an entry in the making. Read a head with platform::readLockable() and this
/// word where its writer may live.
[[nodiscard]] constexpr platform::LockWord logEntryLock(std::uint64_t position) {
  return {position + offsetof(LogEntryHead_tag, checksum)};
}

/// Makes `logFile` the file that the control header calls for, and rotates a numbered one that has
/// grown above its limit: `header` takes the new file numbers then. `logHeader` receives the log's
/// header as it stands in the file. The caller owns databaseMutex.
Result prepareLogFile(MetaData& metaData, ControlHeader_tag& header, LogHeader_tag& logHeader);

/// Reads and checks the header, and finishes or rolls back a pending change; without `mayRepair`
/// such a change gives own code 5. The intent is zero in the copy. The caller owns logMutex.
Result readLogHeader(MetaData& metaData, platform::File file, LogHeader_tag& logHeader,
                     bool mayRepair);

/// Reserves an entry of `length` bytes (head included) under `number`. `entryHead` receives its
/// head as it stands in the file: the length is that of the block, which may be longer, and must
/// be filled to its end. `expected` not 0: the entry must land there. Code 38: a complete equal
/// entry stands there already.
///
/// The entry survives a power failure once the caller has flushed the file. The caller owns
/// logMutex.
Result appendLogEntry(MetaData& metaData, platform::File file, LogHeader_tag& logHeader,
                      std::uint32_t number, std::uint64_t length, std::uint64_t* position,
                      LogEntryHead_tag* entryHead, std::uint64_t expected);

/// Writes the head of a reserved entry from its magic on, behind a body that is written: that makes
/// it complete. 0 or the system's code; the entry survives a power failure then.
[[nodiscard]] SystemCode completeLogEntry(platform::File file, std::uint64_t position,
                                          const LogEntryHead_tag& head);

/// Whether an entry is complete: it lies in the file, has sections, and its checksum holds. One
/// without sections was never completed, whatever its checksum.
Result verifyLogEntry(MetaData& metaData, platform::File file, const LogEntryHead_tag& head,
                      std::uint64_t position, bool* complete);

/// Takes the entry at `position` out of `logFile`; 0: the last one of the number. Own code 33: not
/// found. Waits for logMutex itself.
Result removeLogEntry(MetaData& metaData, std::uint32_t number, std::uint64_t position);

/// Finds the last entry of a number. `*position` 0: there is none. In the single form `*out` is
/// `logFile`; in the numbered form it is a handle that the caller closes. `header` null: its log
/// words are read from the control file. Waits for logMutex itself, unless the transaction may not
/// write: such a one waits for nobody, and may meet a change halfway, which is a failure.
Result findLogEntry(MetaData& metaData, const ControlHeader_tag* header, std::uint32_t number,
                    LogHeader_tag& logHeader, platform::File* out, std::uint64_t* position);

/// Path of the log file: the single one, or the one of a number.
[[nodiscard]] std::u16string singleLogName(const MetaData& metaData);
[[nodiscard]] std::u16string numberedLogName(const MetaData& metaData, std::uint16_t number);

/// Numbers from `first` to `last` (they may go round), in this order, of which there may be a file.
/// What a control file says must not cost a try for each of 65,536 names.
[[nodiscard]] std::vector<std::uint16_t> numbersInUse(const MetaData& metaData, std::uint16_t first,
                                                      std::uint16_t last);

/// Deletes numbered files from `first` on that are older than the retention time, up to `last`,
/// and the one whose number comes next after `last` if the numbers have gone round. `first` moves
/// on.
Result deleteOldLogFiles(MetaData& metaData, const ControlHeader_tag& header, std::uint16_t& first,
                         std::uint16_t last);

/// Makes a numbered log file without an entry, whatever stood there. It is `logFile` then. After a
/// failure the file is gone, if it could be opened.
Result emptyLogFile(MetaData& metaData, std::uint16_t number, LogHeader_tag& logHeader);

/// Begins a numbered log file in this way and enters both numbers in the control file.
Result beginLogFile(MetaData& metaData, ControlHeader_tag& header, std::uint16_t first,
                    std::uint16_t last, LogHeader_tag& logHeader);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_LOG_FILE_H
