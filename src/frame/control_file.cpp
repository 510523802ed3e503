// Reading the control file's header, and the repair at first open. Words of the header and of slots
// may be locked by transactions that live, so that it is read in parts, and waited for with bounds.

#include "frame/control_file.h"

#include <cstring>

#include "frame/directory_change.h"
#include "frame/slots.h"
#include "frame/table_directory.h"
#include "frame/upcalls.h"
#include "platform/clock.h"
#include "platform/file_io.h"

namespace zelta {

Result reportControlFile(MetaData& metaData, SystemCode failure) {
  // A handle without a database has no name to tell.
  const char16_t* name = metaData.isOpen() ? metaData.baseName.c_str() : nullptr;
  return reportSystemError(&metaData, failure, name, extension::kControl);
}

namespace {

constexpr std::uint32_t kIntentStart = offsetof(ControlHeader_tag, oldEnd);

Result reportDamaged(MetaData& metaData) {
  return reportError(&metaData, Own::controlFile, metaData.baseName.c_str(), extension::kControl);
}

/// Reads bytes of the header, waiting for a lock on them to go away.
SystemCode readPatiently(platform::File file, std::uint32_t from, char* out, std::uint32_t length) {
  constexpr int kAttempts = 250;
  constexpr int kQuick = 150;
  SystemCode failure = 0;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    failure = readBuffer(file, from, out, length);
    if (failure != code::kLockViolation) break;
    platform::sleepMilliseconds(attempt < kQuick ? 0 : 10);
  }
  return failure;
}

/// Reads what this handle may see of the header.
SystemCode readHeaderBytes(MetaData& metaData, ControlHeader_tag& header) {
  char* bytes = reinterpret_cast<char*>(&header);
  std::memset(bytes, 0, sizeof header);
  if (!metaData.mayWrite()) {
    return readPatiently(metaData.controlFile, 0, bytes, kExclusiveWord);
  }
  if (metaData.transactionWord == 1) {
    const SystemCode failure = readPatiently(metaData.controlFile, 0, bytes, sizeof header);
    if (failure != code::kEndOfFile) return failure;
    // An empty database of version 1.1 has the 64 bytes of its header and no more.
    std::uint32_t count = 0;
    std::memset(bytes, 0, sizeof header);
    if (readBuffer(metaData.controlFile, 0, bytes, sizeof header, &count) != 0) return failure;
    return count >= kOldHeaderSize && header.minorVersion == 1 ? 0 : failure;
  }
  if (const SystemCode failure = readPatiently(metaData.controlFile, 0, bytes, kExclusiveWord);
      failure != 0) {
    return failure;
  }
  const SystemCode failure = readPatiently(metaData.controlFile, kIntentStart, bytes + kIntentStart,
                                           sizeof header - kIntentStart);
  // An empty database of version 1.1 ends here. That it is of this version is what is to be told.
  return failure == code::kEndOfFile && header.minorVersion == 1 ? 0 : failure;
}

/// What must be right before anything else of the header is looked at.
Result checkHeader(MetaData& metaData, const ControlHeader_tag& header) {
  if (std::memcmp(header.magic, "ZELC", 4) != 0) return reportDamaged(metaData);
  if (header.majorVersion != 1 || (header.minorVersion != 1 && header.minorVersion != 2)) {
    return reportError(&metaData, Own::controlVersion, nullptr, nullptr, header.majorVersion,
                       header.minorVersion);
  }
  return {};
}

/// Whether the numbers of the directory agree. Whoever walks slots or cuts the file relies on it.
bool isConsistent(const ControlHeader_tag& header) {
  constexpr std::uint64_t kIndexRecordSize = 8;
  return header.directoryEnd == kControlHeaderSize + std::uint64_t{header.directorySize} * 2 +
                                    header.tableCount * kIndexRecordSize;
}

/// One reading of the header. A change that stands is completed by whoever may write; to a reader
/// its numbers are the old or the new ones.
Result readAndComplete(MetaData& metaData, ControlHeader_tag& header) {
  if (const SystemCode failure = readHeaderBytes(metaData, header); failure != 0) {
    return reportControlFile(metaData, failure);
  }
  ZELTA_TRY(checkHeader(metaData, header));
  if (header.minorVersion == 1) return upgradeControlFile(metaData, header);
  Result result;
  if (header.imageStart != 0 && metaData.mayWrite())
    result = finishPendingChange(metaData, header, true);
  clearIntent(header);
  return result;
}

}  // namespace

SystemCode openDatabaseFile(const MetaData& metaData, const char16_t* name,
                            platform::Disposition disposition, platform::File* out) {
  constexpr int kAttempts = 10;
  SystemCode failure = 0;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (attempt > 0) platform::sleepMilliseconds(0);
    failure = platform::openFile(name, disposition, out);
    if (failure != code::kSharingViolation) break;
  }
  if (failure == 0) platform::bindLocks(*out, metaData.lockFile);
  return failure;
}

Result requireCarriedOut(MetaData& metaData) {
  if (!metaData.leaveSlot) return {};
  return reportSystemError(&metaData, code::kDeviceError, metaData.baseName.c_str(),
                           extension::kLog);
}

Result refreshControlHeader(MetaData& metaData, ControlHeader_tag& header) {
  constexpr int kAttempts = 10;
  for (int attempt = 1;; ++attempt) {
    ZELTA_TRY(readAndComplete(metaData, header));
    std::uint64_t size = 0;
    if (const SystemCode failure = platform::fileSize(metaData.controlFile, &size); failure != 0) {
      return reportControlFile(metaData, failure);
    }
    if (isConsistent(header) && header.directoryEnd <= size) return {};
    // A reader holds no lock: it may have come in the middle of a write.
    if (metaData.mayWrite() || attempt == kAttempts) return reportDamaged(metaData);
    platform::sleepMilliseconds(1);
  }
}

// -- The first opener -----------------------------------------------------------------------------

namespace {

/// Lets a first opener's rights and locks go at the end of its repair.
class OpenerScope {
 public:
  explicit OpenerScope(MetaData& metaData) : metaData_(metaData) {}
  ~OpenerScope() {
    metaData_.leaveTransaction();
    if (!succeeded_) platform::unclaimMutex(metaData_.openerMutex);
    Slot::exclusive(metaData_.controlFile).unlockOwner();
  }
  OpenerScope(const OpenerScope&) = delete;
  OpenerScope& operator=(const OpenerScope&) = delete;
  void succeed() { succeeded_ = true; }

 private:
  MetaData& metaData_;
  bool succeeded_ = false;
};

/// Whether some slot's owner lives.
Result findLiveSlot(MetaData& metaData, std::uint32_t directoryEnd, bool* live) {
  *live = false;
  SlotWalk walk(metaData.controlFile);
  ZELTA_TRY(reportControlFile(metaData, walk.begin(directoryEnd)));
  if (walk.fileSize() < directoryEnd) return reportDamaged(metaData);
  while (walk.next()) {
    const SystemCode failure = walk.slot().lockOwner();
    if (failure == code::kLockViolation) {
      *live = true;
      return {};
    }
    if (failure != 0) return reportControlFile(metaData, failure);
    walk.slot().unlockOwner();
  }
  return {};
}

/// Memory files hold nothing that outlives the last closer.
Result cutMemoryFiles(MetaData& metaData, const ControlHeader_tag& header) {
  TableDirectory directory;
  ZELTA_TRY(directory.read(metaData, header));
  for (const DirectoryEntry& entry : directory.entries()) {
    const std::u16string path = databasePath(metaData, entry.name, extension::kMemory);
    platform::File file = platform::File::none;
    SystemCode failure =
        openDatabaseFile(metaData, path.c_str(), platform::Disposition::openExisting, &file);
    if (failure == code::kFileNotFound || failure == code::kPathNotFound) continue;
    if (failure == 0) failure = truncateFile(file, 0);
    platform::closeFile(file);
    if (failure != 0) return reportSystemError(&metaData, failure, path.c_str());
  }
  return {};
}

/// A dead exclusive transaction: its commit is carried out, and its place is free.
Result recoverExclusive(const Session& session, ControlHeader_tag& header) {
  constexpr std::uint32_t kState = offsetof(ControlHeader_tag, exclusiveState);
  std::uint32_t state = 0;
  if (const SystemCode failure = readBuffer(session.metaData.controlFile, kState, &state, 4);
      failure != 0) {
    return reportControlFile(session.metaData, failure);
  }
  if (state == 0) return {};
  ZELTA_TRY(recoverCommitted(session, kExclusiveNumber, header));
  state = 0;
  SystemCode failure = writeBuffer(session.metaData.controlFile, kState, &state, 4);
  if (failure == 0) failure = platform::flushFile(session.metaData.controlFile);
  if (failure != 0) return reportControlFile(session.metaData, failure);
  return refreshControlHeader(session.metaData,
                              header);  // a replayed change moves the directory's end
}

/// All slots are those of dead transactions: their commits are carried out, and the slots go.
Result recoverSlots(const Session& session, const ControlHeader_tag& header) {
  SlotWalk walk(session.metaData.controlFile);
  ZELTA_TRY(reportControlFile(session.metaData, walk.begin(header.directoryEnd)));
  while (walk.next()) {
    std::uint32_t number = 0;
    ZELTA_TRY(reportControlFile(session.metaData, walk.slot().readNumber(&number)));
    if (number >= kFirstSlotNumber) ZELTA_TRY(recoverCommitted(session, number, header));
  }
  return reportControlFile(session.metaData,
                           truncateFile(session.metaData.controlFile, header.directoryEnd));
}

/// What a first opener does if nobody lives. Memory files are cut first: nothing that dead
/// transactions left in them may be met by a replay.
Result repairAtOpen(const Session& session) {
  ControlHeader_tag header;
  ZELTA_TRY(refreshControlHeader(session.metaData, header));
  bool live = false;
  ZELTA_TRY(findLiveSlot(session.metaData, header.directoryEnd, &live));
  if (live || header.directoryEnd == kControlHeaderSize) return {};
  ZELTA_TRY(cutMemoryFiles(session.metaData, header));
  ZELTA_TRY(recoverExclusive(session, header));
  return recoverSlots(session, header);
}

}  // namespace

/// Whoever gets the exclusive word and then the claim is the first opener. The word is held during
/// the repair, so that no writer begins beside it.
Result recoverAtOpen(const Session& session) {
  const SystemCode failure = Slot::exclusive(session.metaData.controlFile).lockOwner();
  if (failure == code::kLockViolation)
    return {};  // an exclusive transaction is at work: somebody lives
  if (failure != 0) return reportControlFile(session.metaData, failure);
  OpenerScope scope(session.metaData);
  const SystemCode claimed = platform::claimMutex(session.metaData.openerMutex);
  if (claimed == code::kTimeout) {
    scope.succeed();  // somebody else opened first
    return {};
  }
  if (claimed != 0) return reportControlFile(session.metaData, claimed);
  session.metaData.transactionWord = kExclusiveNumber;
  session.metaData.access = Access::repair;
  const Result result = repairAtOpen(session);
  if (result.failed()) {
    destroyTables(session);
    return result;
  }
  scope.succeed();
  return {};
}

}  // namespace zelta
