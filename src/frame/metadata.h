// The database that a handle has open: its files and mutexes, the running transaction, the scratch
// buffers and the text of the last failure. One thread uses it at a time. It knows nothing of
// tables (storage/table.h); a Session is both.
//
// State of the transaction: `transactionWord` 0 means none. A writer has a slot at `slotPosition`,
// whose owner's word this handle keeps locked; a reader has none. `leaveSlot` says that a decided
// commit is still to be carried out by somebody else: nothing but ending the transaction is allowed
// then.

#ifndef ZELTA_FRAME_METADATA_H
#define ZELTA_FRAME_METADATA_H

#include <array>
#include <cstdint>
#include <string>

#include "frame/result.h"
#include "frame/scratch_buffer.h"
#include "platform/file.h"
#include "platform/lock_file.h"
#include "platform/mutex.h"

namespace zelta {

struct UInt32AVLTree;

/// Roles of the scratch buffers, which keep their memory from call to call. A role is for one
/// function at a time: whoever fills it must not call another one that does.
enum class Scratch : std::size_t {
  object = 0,     ///< a second version of an object; the buffer that changes places with a table's
  directory = 1,  ///< copies of the table directory
  record = 2,     ///< assembly of records
  transfer = 3,   ///< streams between files
  journal = 4,    ///< assembly of journals
  logName = 5,    ///< names of log files
  image = 6       ///< the image of a new directory
};

/// What a handle may do to the database at this moment.
enum class Access {
  read,    ///< look at what is committed; also: no transaction
  repair,  ///< complete what others have left: the first opener, and a begin that has no place yet
  write    ///< the running transaction has a place and may change tables
};

struct MetaData {
  MetaData() = default;
  ~MetaData();
  MetaData(const MetaData&) = delete;
  MetaData& operator=(const MetaData&) = delete;

  platform::LocksFile lockFile = platform::LocksFile::none;  ///< holds the mutexes and the locks
  platform::Mutex databaseMutex =
      platform::Mutex::none;                         ///< guards control file and slots, briefly
  platform::Mutex logMutex = platform::Mutex::none;  ///< guards header, tree and chain of the log
  platform::Mutex openerMutex =
      platform::Mutex::none;  ///< claimed by the first opener until it closes
  platform::File controlFile =
      platform::File::none;  ///< a database is open exactly when this is a file
  platform::File logFile = platform::File::none;  ///< the log file in use, opened on first need
  std::u16string directoryPath;      ///< the path up to and including the last separator
  std::u16string baseName;           ///< file name of the control file without its extension
  char16_t* errorMessage = nullptr;  ///< owned (malloc); null when no failure text is pending
  std::array<ScratchBuffer, 7> scratch{{ScratchBuffer(kZeroTail)}};  ///< see Scratch::object
  std::uint32_t transactionWord = 0;  ///< 0 none, 1 exclusive, else the transaction's number
  std::uint64_t slotPosition = 0;  ///< the transaction's place in the control file; 0: it has none
  Access access = Access::read;
  std::uint32_t slotAreaStart = 0;  ///< end of the directory when the transaction began
  std::uint32_t lockOrderReached =
      0;  ///< highest lock order of a table in which an object was locked
  std::uint32_t* lockKey = nullptr;  ///< furthest key locked there, a copy of its own (malloc)
  std::uint64_t lockObjectID = 0;    ///< furthest object ID locked there
  /// A committed transaction could not be applied: its slot keeps the number, so that the next
  /// begin replays its log entry.
  bool leaveSlot = false;
  std::uint32_t ownerThread = 0;  ///< thread that began the transaction

  [[nodiscard]] ScratchBuffer& scratchFor(Scratch role) {
    return scratch[static_cast<std::size_t>(role)];
  }
  [[nodiscard]] bool isOpen() const { return controlFile != platform::File::none; }
  [[nodiscard]] bool mayWrite() const { return access != Access::read; }

  /// The transaction of this number runs from now on; it has its place in the control file.
  void enterTransaction(std::uint32_t number, std::uint64_t position) {
    transactionWord = number;
    slotPosition = position;
    access = Access::write;
  }
  /// A transaction that only reads; it has no place.
  void enterReading(std::uint32_t number) {
    transactionWord = number;
    slotPosition = 0;
    access = Access::read;
  }
  /// No transaction runs.
  void leaveTransaction() { enterReading(0); }
};

/// A handle: its database, and the tables that it has open in it.
struct Session {
  MetaData& metaData;
  UInt32AVLTree*& tables;
};

/// Frees the pending failure text.
void clearError(MetaData& metaData);

/// Frees scratch buffers: all of them, or those that have grown large.
void trimScratch(MetaData& metaData, bool all);

/// Path of a file of the database: directory + name + extension.
[[nodiscard]] std::u16string databasePath(const MetaData& metaData, const std::u16string& name,
                                          const char16_t* extension);

/// A path with the separators of this platform. Files may come from one that has others.
[[nodiscard]] std::u16string withOwnSeparators(std::u16string path);

namespace extension {
inline constexpr const char16_t* kControl = u".zlc";
inline constexpr const char16_t* kTable = u".zlt";
inline constexpr const char16_t* kIndex = u".zli";
inline constexpr const char16_t* kMemory = u".zlm";
inline constexpr const char16_t* kLog = u".zll";
inline constexpr const char16_t* kLocks = u".zlk";
}  // namespace extension

}  // namespace zelta

#endif  // ZELTA_FRAME_METADATA_H
