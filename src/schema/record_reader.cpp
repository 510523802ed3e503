#include "schema/record_reader.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "platform/file_io.h"
#include "schema/object_view.h"
#include "storage/table_file/table_file.h"

namespace zelta {

namespace {

using Kind = RecordFault::Kind;

/// A record's length word, which follows the size of its block.
constexpr std::uint32_t kLengthOffset = 4;
/// The object's place in a record of the memory file, behind the size of its block.
constexpr std::uint32_t kPendingHead = 4;
/// A tight buffer of up to this size stays even if an object needs much less.
constexpr std::uint64_t kSmallBuffer = 64 * 1024;
/// Least and most that is read of an object before its length is known.
constexpr std::uint64_t kSmallestGuess = 512;
constexpr std::uint64_t kLargestGuess = 64 * 1024;

RecordFault failed(SystemCode code) { return {Kind::system, 0, 0, code}; }

/// Whether an object's first bytes are those of one whose content is still to come.
bool isPlaceholder(const char* object) {
  return std::memcmp(object, &kPlaceholderVersion, sizeof kPlaceholderVersion) == 0;
}

}  // namespace

bool RecordBuffer::suits(std::uint64_t length) const {
  if (!holds(length)) return false;
  return !tight || bytes.size() <= kSmallBuffer || bytes.size() <= (length + lead) * 2;
}

/// A tight buffer is exchanged for one of the right size as soon as it is twice too large.
bool RecordBuffer::makeRoom(std::uint64_t length) {
  if (suits(length)) return true;
  bytes.release();
  if (tight) {
    bytes.reserveExactly(length + lead);
  } else {
    bytes.reserve(length + lead);
  }
  return false;
}

RecordReader RecordReader::aside(const Table& table) {
  return {table, {table.metaData.scratchFor(Scratch::object), kRecordHead, false}};
}

// -- Committed objects ----------------------------------------------------------------------------

RecordFault RecordReader::fetch(std::uint64_t objectID, std::uint64_t position,
                                const RecordRules& rules, std::uint64_t expected,
                                ObjectBytes* object) {
  assert(rules.shortest >= table_.headerSize());
  *object = {};
  ObjectBytes found;
  RecordFault fault = table_.isFixed() ? fetchFixed(position, rules, &found)
                                       : fetchVariable(position, rules, expected, &found);
  if (!fault.is(Kind::none)) return fault;
  if (objectIdOf(table_, found.data) == objectID) {
    *object = found;
  } else {
    fault = {Kind::otherObject, position, objectID};
  }
  return fault;
}

/// In a table without variable fields the record is the object.
RecordFault RecordReader::fetchFixed(std::uint64_t position, const RecordRules& rules,
                                     ObjectBytes* object) {
  const std::uint32_t length = table_.fixedAreaSize;
  if (rules.end - position < length) return {Kind::malformed, position, length};
  if (const SystemCode code = fetchRest(table_.tableFile, position, 0, length); code != 0) {
    return failed(code);
  }
  if (isPlaceholder(buffer_.object())) {
    return {Kind::placeholder, position, kPlaceholderVersion};
  }
  *object = {buffer_.object(), length};
  return {};
}

/// Reads record head and object together. The record lands so that the object in it comes to stand
/// where it belongs.
RecordFault RecordReader::fetchVariable(std::uint64_t position, const RecordRules& rules,
                                        std::uint64_t expected, ObjectBytes* object) {
  assert(buffer_.lead >= kRecordHead);
  const std::uint64_t lengthAt = position + kLengthOffset;
  const std::uint64_t rest = rules.end - position;
  if (rest < kRecordFraming) return {Kind::malformed, lengthAt, 0};
  const std::uint64_t guess =
      std::min(std::clamp(expected, kSmallestGuess, kLargestGuess), rest - kRecordHead);
  if (!buffer_.holds(guess)) buffer_.makeRoom(guess);
  char* record = buffer_.object() - kRecordHead;
  std::uint32_t have = 0;
  SystemCode code = readBuffer(table_.tableFile, position, record,
                               static_cast<std::uint32_t>(guess + kRecordHead), &have);
  if (code != 0) return failed(code);
  if (have < kRecordHead) return {Kind::cutShort, lengthAt, 0};
  std::uint32_t head[2];
  static_assert(sizeof head == kRecordHead);
  std::memcpy(head, record, sizeof head);
  const auto [block, length] = head;
  const bool vouched = rules.end != RecordRules::kUnknown;
  const bool marked =
      have >= kRecordHead + sizeof kPlaceholderVersion && isPlaceholder(record + kRecordHead);
  if (vouched ? length == 0 : marked) return {Kind::placeholder, lengthAt, length};
  const bool misfit =
      rules.wholeBlock && (block < std::uint64_t{length} + kRecordFraming || block > rest);
  if (length < rules.shortest || length > rest - kRecordFraming || misfit) {
    return {Kind::malformed, lengthAt, length};
  }
  have = std::min(have - kRecordHead, length);
  if (have < length || !buffer_.suits(length)) {
    code = fetchRest(table_.tableFile, position + kRecordHead, have, length);
  }
  if (code == code::kEndOfFile) {
    // A length that nothing else vouches for is to blame.
    return {vouched ? Kind::cutShort : Kind::malformed, lengthAt, length};
  }
  if (code != 0) return failed(code);
  *object = {buffer_.object(), length};
  return {};
}

/// Reads what the buffer lacks of an object whose first `have` bytes are there.
SystemCode RecordReader::fetchRest(platform::File file, std::uint64_t position, std::uint32_t have,
                                   std::uint32_t length) {
  if (have < length && !buffer_.holds(length)) {
    if (const SystemCode code = requireBytes(file, position, length); code != 0) return code;
  }
  if (!buffer_.makeRoom(length)) have = 0;
  return readLargeBuffer(file, position + have, buffer_.object() + have,
                         std::int64_t{length} - have);
}

Result RecordReader::reportFault(const RecordFault& fault) const {
  assert(!fault.is(Kind::none));
  switch (fault.kind) {
    case Kind::system:
    case Kind::cutShort:
      return reportSystemError(&table_.metaData,
                               fault.is(Kind::cutShort) ? code::kEndOfFile : fault.code,
                               table_.cName(), extension::kTable);
    default:
      return reportError(&table_.metaData, Own::tableFile, table_.cName(), extension::kTable,
                         static_cast<std::int64_t>(fault.position),
                         static_cast<std::int64_t>(fault.value));
  }
}

// -- Pending objects ------------------------------------------------------------------------------

Result RecordReader::badMemory() const {
  return reportError(&table_.metaData, Own::memoryFile, table_.cName(), extension::kMemory);
}

Result RecordReader::checkPending(const PendingObject& pending, std::uint64_t end) const {
  const std::uint32_t length = pendingLength(pending);
  const bool good = length >= table_.minimumObjectSize && pending.position <= end &&
                    end - pending.position >= std::uint64_t{length} + kPendingHead;
  return good ? Result{} : badMemory();
}

Result RecordReader::readPending(const PendingObject& pending, std::uint64_t end,
                                 ObjectBytes* object) {
  *object = {};
  ZELTA_TRY(checkPending(pending, end));
  const std::uint32_t length = pendingLength(pending);
  const SystemCode code = fetchRest(table_.memoryFile, pending.position + kPendingHead, 0, length);
  if (code != 0)
    return reportSystemError(&table_.metaData, code, table_.cName(), extension::kMemory);
  if (objectIdOf(table_, buffer_.object()) != pending.objectID) return badMemory();
  *object = {buffer_.object(), length};
  return {};
}

}  // namespace zelta
