// Files and byte-range locks. Every call returns 0 or a Windows code (codes.h).
//
// Positions are absolute, so that no call depends on a file position. A handle is for one thread at
// a time. Locks belong to the handle: they exclude other handles of this process too, and die with
// it.

#ifndef ZELTA_PLATFORM_FILE_H
#define ZELTA_PLATFORM_FILE_H

#include <cstdint>

#include "platform/codes.h"
#include "platform/lock_file.h"

namespace zelta::platform {

/// An open file. All bits set: no file.
enum class File : std::uintptr_t { none = ~std::uintptr_t{0} };

/// What openFile() does with a file that is there or is missing; the numbers are those of
/// CreateFileW.
enum class Disposition : std::uint32_t { createNew = 1, openExisting = 3, openAlways = 4 };

/// Opens a file for reading and writing, shared for both with everybody. Who may open a new file is
/// up to the platform: on Linux the umask decides, on Windows all users may. Codes: 2 the file is
/// missing, 3 its folder is; 80 createNew found a file; 5; 32.
[[nodiscard]] SystemCode openFile(const char16_t* name, Disposition disposition, File* out);

/// From now on the locks of the file's words lie on the lock file, where nobody can place any who
/// may not write the file. All handles of a file must be bound alike, before the first lock. It
/// changes nothing where locks stop reads.
void bindLocks(File file, LocksFile lockFile);
/// Locks words of a bound file on the file itself too, so that they are met by whoever has it open
/// under another name, with another lock file.
void lockUnderAllNames(File file);

/// Gives up all locks of the handle, then closes it. File::none is ignored.
SystemCode closeFile(File file);

/// Reads up to `length` bytes; `*transferred` is less only at the end of the file (0 behind it).
[[nodiscard]] SystemCode readFile(File file, std::uint64_t position, void* buffer,
                                  std::uint32_t length, std::uint32_t* transferred);

/// Writes `length` bytes; a write beyond the end extends the file, a gap reads as zeros. A process
/// that is killed meanwhile has written all of it or nothing if it lies within the first 512 bytes.
[[nodiscard]] SystemCode writeFile(File file, std::uint64_t position, const void* buffer,
                                   std::uint32_t length, std::uint32_t* transferred);

/// The same for such short writes as are made often: a process that is killed meanwhile leaves a
/// beginning, in whole words of 8 bytes if `position` is a multiple of 8.
[[nodiscard]] SystemCode writeInOrder(File file, std::uint64_t position, const void* buffer,
                                      std::uint32_t length, std::uint32_t* transferred);

/// Until endStable() nobody else cuts the file: the caller holds the mutex under which it is cut.
/// This lets the platform serve reads and writes of its first `window` bytes from memory that it
/// shares with the file; such memory counts as the process's. `version` other than 0: as long as it
/// is the same, nobody else has changed the file's length. endStable() tells whether this handle
/// has. File::none is ignored.
void beginStable(File file, std::uint64_t window, std::uint64_t version = 0);
bool endStable(File file);

/// Gives the bytes of the file themselves, between beginStable() and endStable(), or null if they
/// are not served from memory. They must not be written to, and follow what is written to the file.
[[nodiscard]] SystemCode viewFile(File file, std::uint64_t position, std::uint32_t length,
                                  const char** bytes);
/// The same also of a file whose reads are served from memory, see serveReads(), while others change
/// it: the bytes may be different each time that they are looked at. Good until the next call.
[[nodiscard]] SystemCode peekFile(File file, std::uint64_t position, std::uint32_t length,
                                  const char** bytes);

/// For a handle that only reads, without that mutex: once it has read often, its reads of the first
/// `window` bytes may be served from memory too. Meanwhile nobody's cuts shorten the file.
void serveReads(File file, std::uint64_t window);

[[nodiscard]] SystemCode fileSize(File file, std::uint64_t* size);

/// Cuts or extends the file (with zeros). A cut leaves the file as it is while another handle is
/// served reads of it.
[[nodiscard]] SystemCode setFileSize(File file, std::uint64_t size);

/// Returns once all that was written to the file, and its entry in the folder, is on the disk.
[[nodiscard]] SystemCode flushFile(File file);

/// Time of the last write, in 100 ns since 1601.
[[nodiscard]] SystemCode lastWriteTime(File file, std::uint64_t* time);

/// Whether the file is still the one that stands under `name`: false once that was deleted or
/// replaced.
[[nodiscard]] bool isNamed(File file, const char16_t* name);

[[nodiscard]] SystemCode deleteFile(const char16_t* name);
/// Deletes a file when things are given up, for want of memory as well: what fails is ignored.
void discardFile(const char16_t* name) noexcept;
/// Never replaces an existing target (183).
[[nodiscard]] SystemCode moveFile(const char16_t* from, const char16_t* to);
/// 0 if a file or folder of the name exists.
[[nodiscard]] SystemCode fileExists(const char16_t* name);
[[nodiscard]] SystemCode createFolder(const char16_t* name);

/// A word of 4 bytes in a file that can be locked. Locks are exclusive and never wait. `ordinal`
/// numbers the words of a kind that are locked in large numbers, from 1 on, so that a platform can
/// keep their locks side by side elsewhere; 0 for the others. A word must be named alike in all
/// calls.
struct LockWord {
  std::uint64_t position;
  std::uint64_t ordinal = 0;
};

/// Code 33 if the word is locked, be it through this very handle.
[[nodiscard]] SystemCode lockWord(File file, LockWord word);
/// Code 158 if this handle does not hold the word.
SystemCode unlockWord(File file, LockWord word);

/// As readFile(), for a range that holds or touches the given word: code 33, and nothing read, if
/// another handle has it locked.
[[nodiscard]] SystemCode readLockable(File file, LockWord word, std::uint64_t position,
                                      void* buffer, std::uint32_t length,
                                      std::uint32_t* transferred);

/// Kinds of volume, with the numbers of GetDriveTypeW.
enum class VolumeType : std::uint32_t {
  unknown = 0,
  noRoot = 1,
  removable = 2,
  local = 3,
  remote = 4
};

/// The volume on which a folder lies; `folder` ends in a separator. A folder that does not exist is
/// `noRoot`.
[[nodiscard]] VolumeType volumeType(const char16_t* folder);

/// The platform's separator of folders in a path.
#ifdef _WIN32
inline constexpr char16_t kSeparator = u'\\';
#else
inline constexpr char16_t kSeparator = u'/';
#endif

}  // namespace zelta::platform

#endif  // ZELTA_PLATFORM_FILE_H
