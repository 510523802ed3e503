// A log file as an operation meets it: its handle, its header as last read, and logMutex while that
// is held. The log has a checksummed entry for each committed transaction, written before any table
// changes.
//
// logMutex guards header, tree and chain of free blocks, of all log files of a database. An entry's
// body is written outside of it; meanwhile the entry's lock tells that its writer lives.
//
// Failures are reported with the database's name and ".zll". Changes use the scratch buffer
// `journal`.

#ifndef ZELTA_TRANSACTION_LOG_LOG_FILE_H
#define ZELTA_TRANSACTION_LOG_LOG_FILE_H

#include <cstdint>
#include <span>
#include <string>

#include "frame/metadata.h"
#include "frame/mutex_guard.h"
#include "platform/file.h"
#include "transaction/log/log_format.h"

namespace zelta {

/// Which file that is may change: by rotation, by another process that has begun the next one, by a
/// search in old ones. So an object is turned to a file by useCurrent() or open(), and its header
/// is read before anything else is asked. Order of locks: databaseMutex, then logMutex; a table's
/// mutex may be held when logMutex is taken.
class LogFile {
 public:
  /// Without a file. `metaData` outlives the object.
  explicit LogFile(MetaData& metaData) : LogFile(metaData, platform::File::none) {}
  /// With a handle that is another's, and stays open behind the object.
  LogFile(MetaData& metaData, platform::File file) : metaData_(metaData), file_(file) {}
  ~LogFile() { close(); }
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  [[nodiscard]] MetaData& metaData() const { return metaData_; }
  [[nodiscard]] platform::File handle() const { return file_; }
  [[nodiscard]] bool isOpen() const { return file_ != platform::File::none; }

  // -- Which file

  /// Turns to the file in use, MetaData::logFile, which may be none.
  void useCurrent();
  /// Makes a handle the one in use, and closes the one that was before.
  void makeCurrent(platform::File file, const LogHeader_tag& header);
  /// Closes the file in use.
  void closeCurrent();
  /// Opens the file of a path with a handle of its own, which is closed when the object turns to
  /// another file or ends. There may be none: the object is without a file then.
  Result open(const std::u16string& path);
  /// Leaves the object without a file.
  void close();

  // -- The mutex

  /// Waits for logMutex, which is held until unlock() or the end of the object. A failure is
  /// reported with the database's name and `reportedAs`.
  Result lock(std::uint32_t milliseconds, const char16_t* reportedAs = extension::kLog);
  void unlock();
  [[nodiscard]] bool locked() const { return mutex_.held(); }

  // -- The header

  /// As it was read last, and as changes have left it since. The intent is zero in it.
  [[nodiscard]] const LogHeader_tag& header() const { return header_; }
  [[nodiscard]] LogHeader_tag& header() { return header_; }

  /// Reads and checks the header, and finishes or rolls back a pending change; without `mayRepair`
  /// such a change gives own code 5. With `mayRepair` the mutex must be held.
  Result readHeader(bool mayRepair);
  /// The same under the mutex, for which it waits.
  Result readHeaderLocked();
  /// Reads the header as it stands. `*blank`: the file was just made and has none yet.
  Result readRawHeader(bool* blank);
  /// Writes the part of the header that changes.
  Result writeHeader();
  /// Ends a change: clears the intent on disk and in the header, with `end` as the end of the log,
  /// flushes, and cuts the file there.
  Result endChange(std::uint64_t end);

  // -- Entries

  /// Finds the last entry of a number. `*position` 0: there is none. Reads the header first, and
  /// repairs it if the transaction may write; the mutex must be held then.
  Result find(std::uint32_t number, std::uint64_t* position);
  /// Reserves an entry of `length` bytes (head included) under `number`. `entry` receives its place
  /// and its head as it stands in the file: the length is that of the block, which may be longer,
  /// and must be filled to its end. `expected` not 0: the entry must land there, else own code 68.
  /// Code 38: a complete equal entry stands there already.
  ///
  /// The entry survives a power failure once the caller has flushed the file. The mutex must be
  /// held.
  Result append(std::uint32_t number, std::uint64_t length, LogEntry* entry,
                std::uint64_t expected = 0);
  /// Takes the entry at `position` out of the file; 0: the last one of the number. Own code 33: not
  /// found. The mutex must be held.
  Result remove(std::uint32_t number, std::uint64_t position);
  /// Reads the head of an entry whose writer may live. Code 33: it does. 38: the file ends before.
  [[nodiscard]] SystemCode readHead(std::uint64_t position, LogEntryHead_tag* head) const;
  /// Whether an entry is complete: it lies in the file, has sections, and its checksum holds. One
  /// without sections was never completed, whatever its checksum. Uses the scratch buffer
  /// `transfer`.
  Result verifyEntry(const LogEntry& entry, bool* complete) const;
  /// Writes the head of a reserved entry from its magic on, behind a body that is written: that
  /// makes it complete. 0 or the system's code; the entry survives a power failure then.
  [[nodiscard]] SystemCode completeEntry(const LogEntry& entry) const;
  /// Makes an entry incomplete, so that nobody applies it.
  [[nodiscard]] SystemCode retireEntry(std::uint64_t position) const;

  // -- Bytes

  Result read(std::uint64_t position, void* bytes, std::uint32_t length) const;
  Result write(std::uint64_t position, const void* bytes, std::uint64_t length) const;
  Result flush() const;
  /// Folds the words of a range into a checksum, piece by piece through `buffer`, whose size is a
  /// multiple of 8.
  Result addChecksum(std::uint64_t position, std::uint64_t end, std::span<char> buffer,
                     std::uint64_t& checksum) const;
  /// Reports a code of the system; 0 is none.
  Result report(SystemCode code) const;
  /// Own code 56.
  Result broken() const;

 private:
  // The two ways of append(), and what it compares
  Result appendFirst(const LogEntryHead_tag& head);
  Result appendNext(std::uint64_t expected, LogEntry* entry);
  Result findExpected(std::uint64_t expected, LogEntry* entry, bool* found) const;
  Result positionDiffers(std::uint64_t expected) const;
  Result readRemoved(std::uint32_t number, LogEntry* entry) const;
  /// Takes the last entry out. The header alone says that the log is empty, in one write.
  Result makeEmpty();

  MetaData& metaData_;
  platform::File file_;
  bool opened_ = false;  ///< `file_` is closed with the object
  LogHeader_tag header_{};
  MutexGuard mutex_;
};

/// How long an operation waits for logMutex.
inline constexpr std::uint32_t kLogMutexWait = 600000;  // ms

/// Takes an entry out of the file in use, as LogFile::remove() does. Waits for logMutex itself.
Result removeLogEntry(MetaData& metaData, std::uint32_t number, std::uint64_t position);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_LOG_LOG_FILE_H
