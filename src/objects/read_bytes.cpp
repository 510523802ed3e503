#include "objects/read_bytes.h"

#include <algorithm>
#include <cstring>

#include "index/bplus_tree.h"
#include "index/kinds.h"
#include "objects/object_buffer.h"
#include "platform/file_io.h"
#include "schema/object_view.h"
#include "storage/memory_file_map.h"
#include "storage/memory_file_remove.h"

namespace zelta {

namespace {

/// A record's length word, which follows the size of its block.
constexpr std::uint32_t kLengthOffset = 4;
/// Buffers up to this size stay even if an object needs much less.
constexpr std::uint64_t kSmallBuffer = 64 * 1024;
/// Least and most that is read of a record before its length is known.
constexpr std::uint64_t kSmallestGuess = 512;
constexpr std::uint64_t kLargestGuess = 64 * 1024;

Result failed(MetaData& metaData, const Table& table, SystemCode result,
              const char16_t* fileExtension) {
  return reportSystemError(&metaData, result, table.cName(), fileExtension);
}

Result badRecord(MetaData& metaData, const Table& table, std::uint64_t position,
                 std::uint64_t value) {
  return reportError(&metaData, Own::tableFile, table.cName(), extension::kTable,
                     static_cast<std::int64_t>(position), static_cast<std::int64_t>(value));
}

/// The content of a placeholder is still to come from the log. One in a table whose records have a
/// length has none that an object can have; any other looks like an object but for its version.
Result refusePlaceholder(MetaData& metaData, const Table& table, std::uint64_t position,
                         const char* object) {
  std::uint16_t version = 0;
  std::memcpy(&version, object, sizeof(version));
  if (version != kPlaceholderVersion) return {};
  return badRecord(metaData, table, position, version);
}

/// Whether the file has the bytes for which a buffer would have to grow: a length that stands in a
/// file must not become memory before it is proven.
SystemCode requireBytesFor(const ScratchBuffer& buffer, std::uint64_t need, platform::File file,
                           std::uint64_t position, std::uint64_t length) {
  return need <= buffer.size() ? 0 : requireBytes(file, position, length);
}

/// Room for an object of `length` bytes. Returns whether the buffer's content is still there.
bool makeRoom(Table& table, std::uint64_t length) {
  const std::uint64_t need = length + leadOf(table);
  const std::uint64_t capacity = table.objectBuffer.size();
  const bool small = capacity <= kSmallBuffer || capacity <= need * 2;
  if (table.objectBuffer.data() != nullptr && capacity >= need && small) return true;
  table.objectBuffer.release();
  table.objectBuffer.reserveExactly(need);
  return false;
}

/// The buffer no longer holds the object that it held.
void forgetObject(Table& table) {
  table.objectData = nullptr;
  table.objectLength = 0;
}

Result readFixed(MetaData& metaData, Table& table, const TableHeader_tag& header,
                 std::uint64_t position) {
  if (header.endOfFile - position < table.fixedAreaSize) {
    return badRecord(metaData, table, position, table.fixedAreaSize);
  }
  SystemCode result =
      requireBytesFor(table.objectBuffer, std::uint64_t{table.fixedAreaSize} + kFixedLead,
                      table.tableFile, position, table.fixedAreaSize);
  if (result != 0) return failed(metaData, table, result, extension::kTable);
  makeRoom(table, table.fixedAreaSize);
  result = readBuffer(table.tableFile, position, table.objectBuffer.data() + kFixedLead,
                      table.fixedAreaSize);
  if (result != 0) return failed(metaData, table, result, extension::kTable);
  ZELTA_TRY(refusePlaceholder(metaData, table, position, table.objectBuffer.data() + kFixedLead));
  placeObject(table, table.fixedAreaSize);
  return {};
}

/// Reads record head and object together: the length is guessed from the object before and from
/// what objects of this table usually take. `lastLength` is that of the object before.
Result readVariable(MetaData& metaData, Table& table, const TableHeader_tag& header,
                    std::uint64_t position, std::uint32_t lastLength) {
  // The record lands so that the object in it comes to stand where it belongs.
  constexpr std::uint32_t kShift = kVariableLead - kRecordHead;
  const std::uint64_t rest = header.endOfFile - position;
  if (rest < kRecordFraming) return badRecord(metaData, table, position + kLengthOffset, 0);
  std::uint64_t guess = std::max<std::uint64_t>(
      {std::uint64_t{lastLength} + lastLength / 4, header.defaultObjectSize, kSmallestGuess});
  guess = std::min({guess, kLargestGuess, rest - kRecordHead});
  if (table.objectBuffer.data() == nullptr || table.objectBuffer.size() < guess + kVariableLead) {
    makeRoom(table, guess);
  }
  char* buffer = table.objectBuffer.data();
  std::uint32_t have = 0;
  SystemCode result = readBuffer(table.tableFile, position, buffer + kShift,
                                 static_cast<std::uint32_t>(guess + kRecordHead), &have);
  if (result == 0 && have < kRecordHead) result = code::kEndOfFile;
  if (result != 0) return failed(metaData, table, result, extension::kTable);
  std::uint32_t length = 0;
  std::memcpy(&length, buffer + kShift + kLengthOffset, sizeof(length));
  if (length < table.minimumObjectSize || length > rest - kRecordFraming) {
    return badRecord(metaData, table, position + kLengthOffset, length);
  }
  std::uint32_t done = std::min(have - kRecordHead, length);
  if (done < length) {
    result = requireBytesFor(table.objectBuffer, std::uint64_t{length} + kVariableLead,
                             table.tableFile, position + kRecordHead, length);
    if (result != 0) return failed(metaData, table, result, extension::kTable);
  }
  if (!makeRoom(table, length)) done = 0;
  if (done < length) {
    result = readLargeBuffer(table.tableFile, position + kRecordHead + done,
                             table.objectBuffer.data() + kVariableLead + done,
                             std::int64_t{length} - done);
    if (result != 0) return failed(metaData, table, result, extension::kTable);
  }
  placeObject(table, length);
  return {};
}

}  // namespace

Result readCommittedObject(MetaData& metaData, Table& table, const TableHeader_tag& header,
                           std::uint64_t objectID, std::uint64_t position) {
  const std::uint32_t lastLength = table.objectLength;
  forgetObject(table);
  if (table.isFixed()) {
    ZELTA_TRY(readFixed(metaData, table, header, position));
  } else {
    ZELTA_TRY(readVariable(metaData, table, header, position, lastLength));
  }
  if (objectIdOf(table, table.objectData) == objectID) return {};
  forgetObject(table);
  return badRecord(metaData, table, position, objectID);
}

namespace {

Result badMemory(MetaData& metaData, const Table& table) {
  return reportError(&metaData, Own::memoryFile, table.cName(), extension::kMemory);
}

Result pendingLength(MetaData& metaData, const Table& table, const AtomicManager& manager,
                     const Located& found, std::uint32_t* length) {
  *length = table.isFixed() ? table.fixedAreaSize : found.memoryLength;
  const std::uint64_t end = manager.memoryEndOfFile;
  const bool inside = *length >= table.minimumObjectSize && found.memoryPosition <= end &&
                      end - found.memoryPosition >= std::uint64_t{*length} + 4;
  return inside ? Result() : badMemory(metaData, table);
}

/// Whether memory may be taken for the pending version: the end in the header proves nothing.
Result requirePending(MetaData& metaData, const Table& table, const Located& found,
                      const ScratchBuffer& buffer, std::uint64_t need, std::uint32_t length) {
  const SystemCode result =
      requireBytesFor(buffer, need, table.memoryFile, found.memoryPosition + 4, length);
  return result == 0 ? Result() : failed(metaData, table, result, extension::kMemory);
}

Result readPending(MetaData& metaData, Table& table, const Located& found, char* object,
                   std::uint32_t length) {
  const SystemCode result =
      readLargeBuffer(table.memoryFile, found.memoryPosition + 4, object, length);
  if (result != 0) return failed(metaData, table, result, extension::kMemory);
  return objectIdOf(table, object) == found.objectID ? Result() : badMemory(metaData, table);
}

}  // namespace

Result readPendingObject(MetaData& metaData, Table& table, const AtomicManager& manager,
                         const Located& found) {
  std::uint32_t length = 0;
  ZELTA_TRY(pendingLength(metaData, table, manager, found, &length));
  forgetObject(table);
  ZELTA_TRY(requirePending(metaData, table, found, table.objectBuffer,
                           std::uint64_t{length} + leadOf(table), length));
  makeRoom(table, length);
  ZELTA_TRY(readPending(metaData, table, found, table.objectBuffer.data() + leadOf(table), length));
  placeObject(table, length);
  return {};
}

Result readVersionAside(MetaData& metaData, Table& table, const AtomicManager& manager,
                        const Located& found, ObjectBytes* object) {
  std::uint32_t length = 0;
  if (found.memoryPosition != 0) {
    ZELTA_TRY(pendingLength(metaData, table, manager, found, &length));
    ScratchBuffer& aside = metaData.scratchFor(Scratch::object);
    ZELTA_TRY(requirePending(metaData, table, found, aside, length, length));
    char* bytes = aside.reserve(length);
    ZELTA_TRY(readPending(metaData, table, found, bytes, length));
  } else {
    ZELTA_TRY(readCommittedAside(metaData, table, found.tablePosition, &length));
    const char* bytes = metaData.scratchFor(Scratch::object).data();
    if (objectIdOf(table, bytes) != found.objectID) {
      return badRecord(metaData, table, found.tablePosition, found.objectID);
    }
  }
  *object = {metaData.scratchFor(Scratch::object).data(), length};
  return {};
}

Result readCommittedAside(MetaData& metaData, Table& table, std::uint64_t position,
                          std::uint32_t* length) {
  std::uint64_t begin = position;
  *length = table.fixedAreaSize;
  if (!table.isFixed()) {
    SystemCode result =
        readBuffer(table.tableFile, position + kLengthOffset, length, sizeof(*length));
    if (result != 0) return failed(metaData, table, result, extension::kTable);
    begin += kRecordHead;
    result = requireBytes(table.tableFile, begin, *length);
    if (*length < table.minimumObjectSize || result == code::kEndOfFile) {
      return badRecord(metaData, table, position + kLengthOffset, *length);
    }
    if (result != 0) return failed(metaData, table, result, extension::kTable);
  }
  ScratchBuffer& aside = metaData.scratchFor(Scratch::object);
  SystemCode result = requireBytesFor(aside, *length, table.tableFile, begin, *length);
  if (result != 0) return failed(metaData, table, result, extension::kTable);
  char* object = aside.reserve(*length);
  result = readLargeBuffer(table.tableFile, begin, object, *length);
  if (result != 0) return failed(metaData, table, result, extension::kTable);
  return refusePlaceholder(metaData, table, position, object);
}

Result eraseSlotTransaction(MetaData& metaData, Table& table, std::uint32_t slotBase,
                            std::uint64_t objectID) {
  const std::uint32_t nobody = 0;
  const SystemCode result =
      writeBuffer(table.tableFile, slotPosition(slotBase, objectID) + 8, &nobody, sizeof(nobody));
  return result == 0 ? Result() : failed(metaData, table, result, extension::kTable);
}

Result dropTransactionEntries(MetaData& metaData, Table& table, ReadFiles& files,
                              std::uint32_t number) {
  struct IdSet {
    ~IdSet() { destroyAll(ids); }
    UInt64AVLTree* ids = nullptr;
  } entries;
  ZELTA_TRY(collectTransaction(files.manager, number, &entries.ids, nullptr));
  if (entries.ids != nullptr) {
    for (std::uint32_t i = 0; i < table.indexCount; ++i) {
      if (table.listKind(i)) continue;
      ZELTA_TRY(mergeEntries(metaData, table, nullptr, files.memoryHeader.pageSize, files.manager,
                             i, entries.ids, nullptr));
    }
  }
  return removeTransaction(files.manager, files.memoryHeader, table, number, nullptr);
}

}  // namespace zelta
