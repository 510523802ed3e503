// What stands in a log file: records, tags, magic numbers and sizes.
//
// A log file is a small database of its own: a header with an intent, a B+Tree of transaction
// numbers that leads to the entries, a chain of free blocks (wide ones), and the entries. The
// single form ("x.zll", magic "ZELL") loses an entry as soon as it is applied. The numbered form
// ("x.0000.zll" on, magic "ZELO") keeps them; a full file is followed by the next number.

#ifndef ZELTA_TRANSACTION_LOG_LOG_FORMAT_H
#define ZELTA_TRANSACTION_LOG_LOG_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "platform/file.h"

namespace zelta {

// -- The header -----------------------------------------------------------------------------------

/// From `oldEnd` on the intent: zero while the file is at rest.
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

inline constexpr std::uint64_t kLogHeaderSize = sizeof(LogHeader_tag);
/// The bytes of the header that change: all behind magic, version and number.
inline constexpr std::uint64_t kLogMutableStart = offsetof(LogHeader_tag, rootPosition);
inline constexpr std::uint64_t kLogIntentStart = offsetof(LogHeader_tag, oldEnd);
/// The part of the intent that its checksum covers.
inline constexpr std::uint64_t kLogSummedStart = offsetof(LogHeader_tag, newRoot);

/// Whether a block lies behind the header and before the end of a log.
[[nodiscard]] constexpr bool liesInLog(std::uint64_t position, std::uint64_t length,
                                       std::uint64_t endOfLog) {
  return position >= kLogHeaderSize && position <= endOfLog && endOfLog - position >= length;
}

// -- Entries --------------------------------------------------------------------------------------

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

/// The lock that marks an entry in the making. Read a head with platform::readLockable() and this
/// word where its writer may live.
[[nodiscard]] constexpr platform::LockWord logEntryLock(std::uint64_t position) {
  return {position + offsetof(LogEntryHead_tag, checksum)};
}

/// An entry and its place in a file.
struct LogEntry {
  std::uint64_t position = 0;  ///< 0: there is none
  LogEntryHead_tag head{};

  [[nodiscard]] std::uint64_t body() const { return position + sizeof head; }
  [[nodiscard]] std::uint64_t end() const { return position + head.blockLength; }
};

// -- Sections of entries --------------------------------------------------------------------------

/// Head of a section of table edits. Behind it: the deleted IDs, ascending, 4 or 8 bytes each;
/// then the images, each in logImageSize() bytes.
struct LogTableSection_tag {
  char magic[4];  ///< "ZELD"
  std::uint32_t tableId;
  std::uint64_t deletedCount;
  std::uint64_t imageBytes;

  [[nodiscard]] bool isTableEdit() const { return std::memcmp(magic, "ZELD", 4) == 0; }
  [[nodiscard]] bool isSchemaChange() const { return std::memcmp(magic, "ZELS", 4) == 0; }
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
static_assert(sizeof(LogSchemaSection_tag) == sizeof(LogTableSection_tag));
static_assert(std::has_unique_object_representations_v<LogSchemaSection_tag>);

/// Bytes of an object's image in a section: a length of 32 bits, the object, zeros to a multiple of
/// 4.
[[nodiscard]] constexpr std::uint64_t logImageSize(std::uint64_t objectLength) {
  return (objectLength + 7) & ~std::uint64_t{3};
}

// -- The tree of entries --------------------------------------------------------------------------

inline constexpr std::uint32_t kLogKeysPerNode = 25;
enum class LogNodeType : std::uint16_t { leaf = 27753, inner = 28265 };

/// A node. Equal keys may lie on both sides of a separator; unused keys and values are zero.
struct LogNode_tag {
  std::uint64_t blockLength;  ///< 320, or a little more if the block was so long
  LogNodeType type;
  std::uint16_t keyCount;
  std::uint32_t keys[kLogKeysPerNode];        ///< transaction numbers, ascending, may repeat
  std::uint64_t values[kLogKeysPerNode + 1];  ///< positions of entries, or of one more child
};
static_assert(sizeof(LogNode_tag) == 320);
static_assert(std::has_unique_object_representations_v<LogNode_tag>);
static_assert(offsetof(LogNode_tag, keys) == 12);
static_assert(offsetof(LogNode_tag, values) == 112);

inline constexpr std::uint32_t kLogNodeSize = sizeof(LogNode_tag);
/// Places of the root and the entry in a log that was empty.
inline constexpr std::uint64_t kLogFirstRoot = kLogHeaderSize;
inline constexpr std::uint64_t kLogFirstEntry = kLogFirstRoot + kLogNodeSize;
/// The smallest block that the chain gives out: in the single form it must do for a node.
[[nodiscard]] inline std::uint64_t smallestBlock(const LogHeader_tag& header) {
  return header.isSingle() ? kLogNodeSize : sizeof(LogEntryHead_tag);
}

/// A changed node, as it stands in the copy area.
struct LogNodeRecord_tag {
  std::uint64_t position;
  LogNode_tag node;
};
static_assert(sizeof(LogNodeRecord_tag) == 328);
static_assert(std::has_unique_object_representations_v<LogNodeRecord_tag>);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_LOG_LOG_FORMAT_H
