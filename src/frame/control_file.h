// The control file: its header, the table directory behind it (table_directory.h), and behind that
// the slots of transactions (slots.h). It is what makes files a database: which tables there are is
// said nowhere else.
//
// A change of the directory (directory_change.h) has two phases with an intent in the header. In
// the first, files are prepared and the change can be rolled back; in the second it is carried out,
// by whoever comes next if need be. databaseMutex guards header, directory and intent.

#ifndef ZELTA_FRAME_CONTROL_FILE_H
#define ZELTA_FRAME_CONTROL_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "frame/metadata.h"

namespace zelta {

/// Header of the control file. Behind it lies the table directory, up to `directoryEnd`, and behind
/// that the transaction slots.
struct ControlHeader_tag {
  char magic[4];                    ///< "ZELC"
  std::uint16_t majorVersion;       ///< 1
  std::uint16_t minorVersion;       ///< 2
  std::uint32_t tableCount;         ///< entries in the directory
  std::uint32_t directorySize;      ///< length of the entry area in 16-bit units
  std::uint32_t directoryEnd;       ///< file position behind the directory
  std::uint32_t logFlags;           ///< bit 0: numbered log files are kept
  std::uint16_t logRetentionHours;  ///< 0: 120
  std::uint16_t logFileMegabytes;   ///< 0: 32
  std::uint16_t firstLogFile;
  std::uint16_t lastLogFile;
  std::uint32_t
      lastTransaction;  ///< number given out last; also the lock of the exclusive transaction
  std::uint32_t
      exclusiveState;        ///< 0 idle, 1 exclusive transaction at work, 3 with a directory change
  std::uint32_t oldEnd;      ///< intent: `directoryEnd` before the change
  std::uint32_t imageEnd;    ///< intent: position behind the new image
  std::uint32_t imageStart;  ///< intent: end of the new directory; nonzero: a change is pending
  std::uint32_t changeChecksum;   ///< intent: over bytes 56 to 75 and the image
  std::uint16_t changeOperation;  ///< intent: a DirectoryChange
  std::uint16_t changeSuffix;     ///< intent: suffix of the temporary files of a schema change
  std::uint32_t changeTable;      ///< intent: table ID
  std::uint32_t newTableCount;    ///< intent; for changeSchema the table's new ID
  std::uint32_t newDirectorySize;
  std::uint32_t newDirectoryEnd;
};
static_assert(sizeof(ControlHeader_tag) == 76 && std::is_trivially_copyable_v<ControlHeader_tag>);
static_assert(std::has_unique_object_representations_v<ControlHeader_tag>);
static_assert(offsetof(ControlHeader_tag, lastTransaction) == 32);
static_assert(offsetof(ControlHeader_tag, oldEnd) == 40);
static_assert(offsetof(ControlHeader_tag, changeOperation) == 56);

/// Position of the directory, and end of a control file without tables.
inline constexpr std::uint32_t kControlHeaderSize = sizeof(ControlHeader_tag);
/// Position of the word that an exclusive transaction locks, and of its place (see Slot).
inline constexpr std::uint32_t kExclusiveWord = offsetof(ControlHeader_tag, lastTransaction);

/// Operations of a directory change, as the intent and the log name them.
enum class DirectoryChange : std::uint16_t {
  createFiles = 33,   ///< a table is being made: roll back
  create = 34,        ///< a table was made: enter it
  remove = 35,        ///< take a table out, keep its files
  removeFiles = 36,   ///< take a table out and delete its files
  add = 37,           ///< enter an existing table
  changeFiles = 38,   ///< a schema change is being prepared: roll back
  changeSchema = 39,  ///< put the files of a schema change in place
  upgrade = 43        ///< the directory moves behind the longer header of version 1.2
};

/// A failed call on the control file; success for 0.
Result reportControlFile(MetaData& metaData, SystemCode failure);

/// Refuses work that must wait until what the transaction committed before is carried out: Windows
/// code 1117 after `leaveSlot`. Another log entry would hide the one that is to be replayed. The
/// transaction can be ended only; whoever comes next carries the entry out.
Result requireCarriedOut(MetaData& metaData);

/// Reads the header into `header`, completing a pending directory change if this handle may write.
/// The intent (bytes 40 to 75) is always zero in the copy, and so is what lies under another's
/// lock.
Result refreshControlHeader(MetaData& metaData, ControlHeader_tag& header);

/// Repairs what a dead process left, if this is the first opener, and claims `openerMutex`. The
/// caller owns `databaseMutex`.
Result recoverAtOpen(const Session& session);

/// Opens or creates a file of the database, whose locks lie on the lock file; a sharing violation
/// is tried again, 10 times in all.
[[nodiscard]] SystemCode openDatabaseFile(const MetaData& metaData, const char16_t* name,
                                          platform::Disposition disposition, platform::File* out);

}  // namespace zelta

#endif  // ZELTA_FRAME_CONTROL_FILE_H
