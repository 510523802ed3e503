// Files and byte-range locks by the calls of Windows, whose codes pass through.
//
// Nothing is mapped into memory: a file that some process maps cannot be cut. So the calls that let
// a platform serve reads from memory do nothing here, which their contract allows.
//
// Locks lie on the very words, whatever ordinal those have: the system refuses to let other handles
// read a locked range. Where it does not (see read_probe.cpp), a mark stands for each locked word,
// and readLockable() asks for the mark first: a named object that exists as long as somebody holds
// a handle to it, and so goes with the process that made it.

#include "platform/file.h"

#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "platform/windows/windows_internal.h"

namespace zelta::platform {

using namespace windows;

namespace {

struct FileRecord {
  ~FileRecord() {
    if (handle != INVALID_HANDLE_VALUE) closeHandle(handle);
  }
  HANDLE handle = INVALID_HANDLE_VALUE;
  std::unordered_map<std::uint64_t, HANDLE> held;  ///< positions of locked words, and their marks
  std::wstring marks;  ///< what the names of this file's marks begin with
#ifdef ZELTA_FAULTS
  std::string path;
#endif
};

constexpr DWORD kWordSize = 4;

FileRecord* recordOf(File file) {
  if (file == File::none) return nullptr;
  return reinterpret_cast<FileRecord*>(static_cast<std::uintptr_t>(file));
}

DWORD low(std::uint64_t value) { return static_cast<DWORD>(value); }
DWORD high(std::uint64_t value) { return static_cast<DWORD>(value >> 32); }

OVERLAPPED placeOf(std::uint64_t position) {
  OVERLAPPED place = {};
  place.Offset = low(position);
  place.OffsetHigh = high(position);
  return place;
}

// -- Marks of locked words, where the system does not stop reads ----------------------------------

constexpr std::wstring_view kMarks = L"Global\\zelta-word-";
constexpr std::size_t kMarksLength = kMarks.size() + 3 * 8 + 1;

void appendHex(std::wstring& text, DWORD value) {
  for (int shift = 28; shift >= 0; shift -= 4) text += L"0123456789abcdef"[value >> shift & 15];
}

/// Allocates nothing, for the file may have been made just now. Empty if the system fails.
void nameMarks(HANDLE handle, std::wstring& reserved) {
  BY_HANDLE_FILE_INFORMATION info;
  if (!GetFileInformationByHandle(handle, &info)) return;
  reserved = kMarks;
  for (const DWORD part : {info.dwVolumeSerialNumber, info.nFileIndexHigh, info.nFileIndexLow}) {
    appendHex(reserved, part);
  }
  reserved += L'-';
}

std::wstring markName(const FileRecord& record, std::uint64_t position) {
  return record.marks.empty() ? record.marks : record.marks + std::to_wstring(position);
}

HANDLE makeMark(const std::wstring& name) {
  SECURITY_ATTRIBUTES* attributes = nullptr;
  if (name.empty() || mutexSecurity(&attributes) != 0) return nullptr;
  // Whoever held the word before may not have given its mark up yet: then both stand for it.
  return keepHandle(CreateMutexW(attributes, FALSE, name.c_str()));
}

void dropMark(HANDLE mark) {
  if (mark != nullptr) closeHandle(mark);
}

bool isMarked(const FileRecord& record, std::uint64_t position) {
  const std::wstring name = markName(record, position);
  if (name.empty()) return false;
  const HANDLE mark = OpenMutexW(SYNCHRONIZE, FALSE, name.c_str());
  dropMark(mark);
  return mark != nullptr;
}

// -- Transfers ------------------------------------------------------------------------------------

/// The system takes some of the positions that no file has for the end or the place last used.
bool isPlace(std::uint64_t position) { return position >> 63 == 0; }

SystemCode readRecord(FileRecord* record, std::uint64_t position, void* buffer,
                      std::uint32_t length, std::uint32_t* transferred) {
  if (!isPlace(position)) return code::kInvalidParameter;
#ifdef ZELTA_FAULTS
  const Asked asked = ask(Call::read, record->path, position, length);
  if (asked.code != 0) return asked.code;
  if (asked.cut < length) length = static_cast<std::uint32_t>(asked.cut);
#endif
  OVERLAPPED place = placeOf(position);
  DWORD done = 0;
  SystemCode failure = 0;
  if (!ReadFile(record->handle, buffer, length, &done, &place)) {
    failure = lastCode();
    if (failure == code::kEndOfFile) failure = 0;  // at a given place it is told as a failure
  }
  *transferred = done;
#ifdef ZELTA_FAULTS
  if (asked.die) dieNow();
#endif
  return failure;
}

}  // namespace

SystemCode openFile(const char16_t* name, Disposition disposition, File* out) {
  *out = File::none;
#ifdef ZELTA_FAULTS
  const std::string path = narrow(name);
  ZELTA_ASK(open, path, static_cast<std::uint64_t>(disposition));
#endif
  SECURITY_ATTRIBUTES* attributes = nullptr;
  if (const SystemCode failure = fileSecurity(&attributes); failure != 0) return failure;
  auto record = std::make_unique<FileRecord>();
#ifdef ZELTA_FAULTS
  record->path = path;
#endif
  if (!locksStopReads()) record->marks.reserve(kMarksLength);
  record->handle = keepHandle(CreateFileW(
      wide(name), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, attributes,
      static_cast<DWORD>(disposition), FILE_FLAG_RANDOM_ACCESS | FILE_ATTRIBUTE_NORMAL, nullptr));
  if (record->handle == INVALID_HANDLE_VALUE) return lastCode();
  if (!locksStopReads()) nameMarks(record->handle, record->marks);
  *out = static_cast<File>(reinterpret_cast<std::uintptr_t>(record.release()));
  return 0;
}

SystemCode closeFile(File file) {
  FileRecord* record = recordOf(file);
  if (record == nullptr) return 0;
  // The system would give locks up too, but in its own time.
  for (const auto& [position, mark] : record->held) {
    UnlockFile(record->handle, low(position), high(position), kWordSize, 0);
    dropMark(mark);
  }
  const SystemCode result =
      closeHandle(std::exchange(record->handle, INVALID_HANDLE_VALUE)) ? 0 : lastCode();
  delete record;
  return result;
}

void bindLocks(File /*file*/, LocksFile /*lockFile*/) {}
void lockUnderAllNames(File /*file*/) {}

SystemCode readFile(File file, std::uint64_t position, void* buffer, std::uint32_t length,
                    std::uint32_t* transferred) {
  *transferred = 0;
  FileRecord* record = recordOf(file);
  if (record == nullptr) return code::kInvalidHandle;
  return readRecord(record, position, buffer, length, transferred);
}

SystemCode writeFile(File file, std::uint64_t position, const void* buffer, std::uint32_t length,
                     std::uint32_t* transferred) {
  *transferred = 0;
  FileRecord* record = recordOf(file);
  if (record == nullptr) return code::kInvalidHandle;
  if (!isPlace(position)) return code::kInvalidParameter;
#ifdef ZELTA_FAULTS
  const Asked asked = ask(Call::write, record->path, position, length, buffer);
  if (asked.code != 0 && asked.cut >= length) return asked.code;
  if (asked.cut < length) length = static_cast<std::uint32_t>(asked.cut);
#endif
  OVERLAPPED place = placeOf(position);
  DWORD done = 0;
  SystemCode failure = 0;
  if (!WriteFile(record->handle, buffer, length, &done, &place)) failure = lastCode();
  *transferred = done;
#ifdef ZELTA_FAULTS
  if (asked.die) dieNow();
  if (asked.code != 0) return asked.code;
#endif
  return failure;
}

SystemCode writeInOrder(File file, std::uint64_t position, const void* buffer, std::uint32_t length,
                        std::uint32_t* transferred) {
  return writeFile(file, position, buffer, length, transferred);
}

void beginStable(File /*file*/, std::uint64_t /*window*/, std::uint64_t /*version*/) {}

// Without a state of lengths (see lengthState) nobody asks whether this handle has changed one.
bool endStable(File /*file*/) { return false; }

SystemCode viewFile(File file, std::uint64_t /*position*/, std::uint32_t /*length*/,
                    const char** bytes) {
  *bytes = nullptr;
  return recordOf(file) == nullptr ? code::kInvalidHandle : 0;
}

SystemCode peekFile(File file, std::uint64_t position, std::uint32_t length, const char** bytes) {
  return viewFile(file, position, length, bytes);
}

void serveReads(File /*file*/, std::uint64_t /*window*/) {}

SystemCode fileSize(File file, std::uint64_t* size) {
  *size = 0;
  FileRecord* record = recordOf(file);
  if (record == nullptr) return code::kInvalidHandle;
  DWORD upper = 0;
  const DWORD lower = GetFileSize(record->handle, &upper);
  if (lower == INVALID_FILE_SIZE && GetLastError() != 0) return GetLastError();
  *size = std::uint64_t{upper} << 32 | lower;
  return 0;
}

SystemCode setFileSize(File file, std::uint64_t size) {
  FileRecord* record = recordOf(file);
  if (record == nullptr) return code::kInvalidHandle;
  ZELTA_ASK(truncate, record->path, size);
  LARGE_INTEGER distance;
  distance.QuadPart = static_cast<LONGLONG>(size);
  if (!SetFilePointerEx(record->handle, distance, nullptr, FILE_BEGIN)) return lastCode();
  return SetEndOfFile(record->handle) ? 0 : lastCode();
}

SystemCode flushFile(File file) {
  FileRecord* record = recordOf(file);
  if (record == nullptr) return code::kInvalidHandle;
  ZELTA_ASK(flush, record->path);
  return FlushFileBuffers(record->handle) ? 0 : lastCode();
}

SystemCode lastWriteTime(File file, std::uint64_t* time) {
  FileRecord* record = recordOf(file);
  if (record == nullptr) return code::kInvalidHandle;
  FILETIME written;
  if (!GetFileTime(record->handle, nullptr, nullptr, &written)) return lastCode();
  *time = std::uint64_t{written.dwHighDateTime} << 32 | written.dwLowDateTime;
  return 0;
}

// An open file is not shared for deletion: nobody can take its name away.
bool isNamed(File file, const char16_t* /*name*/) { return recordOf(file) != nullptr; }

SystemCode deleteFile(const char16_t* name) {
  ZELTA_ASK(remove, narrow(name));
  return DeleteFileW(wide(name)) ? 0 : lastCode();
}

void discardFile(const char16_t* name) noexcept {
  try {
    static_cast<void>(deleteFile(name));
  } catch (const std::bad_alloc&) {  // only tests ask before they delete
    DeleteFileW(wide(name));
  }
}

SystemCode moveFile(const char16_t* from, const char16_t* to) {
  ZELTA_ASK(rename, narrow(from));
  return MoveFileW(wide(from), wide(to)) ? 0 : lastCode();
}

SystemCode fileExists(const char16_t* name) {
  return GetFileAttributesW(wide(name)) == INVALID_FILE_ATTRIBUTES ? lastCode() : 0;
}

SystemCode createFolder(const char16_t* name) {
  ZELTA_ASK(createFolder, narrow(name));
  return CreateDirectoryW(wide(name), nullptr) ? 0 : lastCode();
}

SystemCode lockWord(File file, LockWord word) {
  FileRecord* record = recordOf(file);
  if (record == nullptr) return code::kInvalidHandle;
  ZELTA_ASK(lock, record->path, word.position, kWordSize);
  const std::wstring mark = markName(*record, word.position);
  const auto [place, added] = record->held.try_emplace(word.position, nullptr);
  if (!added) return code::kLockViolation;
  if (!LockFile(record->handle, low(word.position), high(word.position), kWordSize, 0)) {
    const SystemCode failure = lastCode();
    record->held.erase(place);
    return failure;
  }
  place->second = makeMark(mark);
  return 0;
}

SystemCode unlockWord(File file, LockWord word) {
  FileRecord* record = recordOf(file);
  if (record == nullptr) return code::kInvalidHandle;
  ZELTA_ASK(unlock, record->path, word.position, kWordSize);
  const auto place = record->held.find(word.position);
  if (place == record->held.end()) return code::kNotLocked;
  const HANDLE mark = place->second;
  record->held.erase(place);
  const SystemCode failure =
      UnlockFile(record->handle, low(word.position), high(word.position), kWordSize, 0)
          ? 0
          : lastCode();
  dropMark(mark);
  return failure;
}

SystemCode readLockable(File file, LockWord word, std::uint64_t position, void* buffer,
                        std::uint32_t length, std::uint32_t* transferred) {
  *transferred = 0;
  FileRecord* record = recordOf(file);
  if (record == nullptr) return code::kInvalidHandle;
  if (record->held.find(word.position) == record->held.end() && isMarked(*record, word.position)) {
    return code::kLockViolation;
  }
  return readRecord(record, position, buffer, length, transferred);
}

}  // namespace zelta::platform
