// Creating, opening and closing databases.
//
// Opening goes in the order lock file, databaseMutex, logMutex, control file, and does all that
// others must not see half done under databaseMutex: the first opener repairs there, and so others
// find a repaired database. Whatever fails on the way is undone by OpeningScope.

#include "frame/lifecycle.h"

#include <cstring>
#include <new>

#include "frame/control_file.h"
#include "frame/mutex_guard.h"
#include "frame/slots.h"
#include "frame/table_directory.h"
#include "frame/upcalls.h"
#include "platform/file_io.h"
#include "platform/text.h"

namespace zelta {

namespace {

constexpr std::size_t kExtensionLength = 4;

/// The path with its extension, with the platform's separators.
std::u16string fileNameOf(const char16_t* path) {
  const std::u16string name = withOwnSeparators(path);
  const std::u16string extension(extension::kControl);
  const bool has = name.size() >= kExtensionLength &&
                   compareNames(name.substr(name.size() - kExtensionLength), extension) == 0;
  return has ? name : name + extension;
}

/// Every folder on the way must lie on a disk of this machine.
bool isLocal(const std::u16string& name) {
  bool known = false;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (name[i] != platform::kSeparator) continue;
    const platform::VolumeType type = platform::volumeType(name.substr(0, i + 1).c_str());
    if (type == platform::VolumeType::unknown || type == platform::VolumeType::remote) return false;
    known = true;
  }
  return known;
}

/// Makes the folders that are missing. A failure to make one shows when the file is opened.
Result createFolders(MetaData& metaData, const std::u16string& name) {
  for (std::size_t i = 1; i < name.size(); ++i) {
    if (name[i] != platform::kSeparator) continue;
    const std::u16string folder = name.substr(0, i);
    const SystemCode failure = platform::fileExists(folder.c_str());
    if (failure == code::kFileNotFound) {
      static_cast<void>(platform::createFolder(folder.c_str()));
    } else if (failure != 0) {
      return reportSystemError(&metaData, failure, name.c_str());
    }
  }
  return {};
}

std::u16string withLast(std::u16string name, char16_t last) {
  name.back() = last;
  return name;
}

/// Opens the lock file and the mutexes that are needed before the control file is.
Result createMutexes(MetaData& metaData, const std::u16string& name) {
  const std::u16string locks = name.substr(0, name.size() - kExtensionLength) + extension::kLocks;
  SystemCode failure = platform::openLockFile(locks.c_str(), name.c_str(), &metaData.lockFile);
  if (failure == 0) failure = createFileMutex(metaData, name, &metaData.databaseMutex);
  if (failure == 0) {
    failure = createFileMutex(metaData, withLast(name, u'2'), &metaData.openerMutex);
  }
  return reportSystemError(&metaData, failure, name.c_str());
}

/// Called under databaseMutex.
Result createLogMutex(MetaData& metaData, const std::u16string& name) {
  const SystemCode failure = createFileMutex(metaData, withLast(name, u'l'), &metaData.logMutex);
  return reportSystemError(&metaData, failure, name.c_str());
}

/// Takes the control file's path apart: from then on paths of other files can be made.
void splitPath(MetaData& metaData, const std::u16string& name) {
  const std::size_t folder = name.rfind(platform::kSeparator) + 1;
  metaData.directoryPath = name.substr(0, folder);
  metaData.baseName = name.substr(folder, name.size() - folder - kExtensionLength);
}

/// The header of a database without tables, whose numbers of transactions begin behind the
/// exclusive one.
Result writeNewHeader(MetaData& metaData, const std::u16string& name) {
  ControlHeader_tag header{};
  std::memcpy(header.magic, "ZELC", 4);
  header.majorVersion = 1;
  header.minorVersion = 2;
  header.directoryEnd = kControlHeaderSize;
  header.lastTransaction = 1;
  const SystemCode failure = writeBuffer(metaData.controlFile, 0, &header, sizeof header);
  if (failure != 0) return reportSystemError(&metaData, failure, name.c_str());
  static_cast<void>(platform::flushFile(metaData.controlFile));
  return {};
}

/// Closes whatever is open; the pending text stays.
void closeAll(MetaData& metaData) {
  platform::closeFile(metaData.controlFile);
  platform::closeFile(metaData.logFile);
  metaData.controlFile = platform::File::none;
  metaData.logFile = platform::File::none;
  for (platform::Mutex* mutex :
       {&metaData.databaseMutex, &metaData.logMutex, &metaData.openerMutex}) {
    platform::closeMutex(*mutex);
    *mutex = platform::Mutex::none;
  }
  platform::closeLockFile(metaData.lockFile);
  metaData.lockFile = platform::LocksFile::none;
  metaData.directoryPath.clear();
  metaData.baseName.clear();
  metaData.leaveTransaction();
  metaData.ownerThread = 0;
}

/// Waits for a mutex; `guard` owns it then.
Result own(MetaData& metaData, MutexGuard& guard, platform::Mutex mutex, std::uint32_t milliseconds,
           const std::u16string& name) {
  const SystemCode failure = platform::waitMutex(mutex, milliseconds);
  if (failure == 0) guard.adopt(mutex);
  return reportSystemError(&metaData, failure, name.c_str());
}

/// The part of creation under the database's mutex.
Result initialise(const Session& session, const std::u16string& name) {
  MutexGuard database;
  ZELTA_TRY(
      own(session.metaData, database, session.metaData.databaseMutex, platform::kForever, name));
  ZELTA_TRY(writeNewHeader(session.metaData, name));
  ZELTA_TRY(createLogMutex(session.metaData, name));
  MutexGuard log;
  ZELTA_TRY(own(session.metaData, log, session.metaData.logMutex, platform::kForever, name));
  splitPath(session.metaData, name);
  ZELTA_TRY(recoverAtOpen(session));
  ZELTA_TRY(reportSystemError(&session.metaData, log.release(), name.c_str()));
  return reportSystemError(&session.metaData, database.release(), name.c_str());
}

/// Makes the file, which must not exist, and the folders on the way to it.
Result createControlFile(MetaData& metaData, const std::u16string& name) {
  SystemCode failure = openDatabaseFile(metaData, name.c_str(), platform::Disposition::createNew,
                                        &metaData.controlFile);
  if (failure == code::kPathNotFound) {
    ZELTA_TRY(createFolders(metaData, name));
    failure = openDatabaseFile(metaData, name.c_str(), platform::Disposition::createNew,
                               &metaData.controlFile);
  }
  return reportSystemError(&metaData, failure, name.c_str());
}

/// The part of opening under the database's mutex.
Result openLocked(const Session& session, const std::u16string& name) {
  MutexGuard database;
  ZELTA_TRY(own(session.metaData, database, session.metaData.databaseMutex, kLongWait, name));
  ZELTA_TRY(createLogMutex(session.metaData, name));
  if (const SystemCode failure =
          openDatabaseFile(session.metaData, name.c_str(), platform::Disposition::openExisting,
                           &session.metaData.controlFile);
      failure != 0) {
    return reportSystemError(&session.metaData, failure, name.c_str());
  }
  platform::lockUnderAllNames(session.metaData.controlFile);
  splitPath(session.metaData, name);
  ZELTA_TRY(recoverAtOpen(session));
  return reportSystemError(&session.metaData, database.release(), name.c_str());
}

/// Undoes a failed open or creation, also when memory ran out.
class OpeningScope {
 public:
  explicit OpeningScope(MetaData& metaData) : metaData_(metaData) {}
  ~OpeningScope() {
    if (succeeded_) return;
    closeAll(metaData_);
    if (made_ != nullptr) platform::discardFile(made_->c_str());
  }
  OpeningScope(const OpeningScope&) = delete;
  OpeningScope& operator=(const OpeningScope&) = delete;
  /// The file is this call's own: a failed creation leaves none behind.
  void deleteUnlessFinished(const std::u16string& name) { made_ = &name; }
  Result finish(Result result) {
    succeeded_ = result.ok();
    return result;
  }

 private:
  MetaData& metaData_;
  const std::u16string* made_ = nullptr;
  bool succeeded_ = false;
};

}  // namespace

SystemCode createFileMutex(const MetaData& metaData, const std::u16string& path,
                           platform::Mutex* out) {
  // The name differs as the path does; what a platform cannot have in a name, it replaces itself.
  return platform::createMutex(metaData.lockFile, (u"Global\\" + path).c_str(), out);
}

Result createDatabase(const Session& session, const char16_t* path) {
  const std::u16string name = fileNameOf(path);
  if (!isLocal(name)) return reportError(&session.metaData, Own::notLocal, name.c_str());
  OpeningScope scope(session.metaData);
  ZELTA_TRY(createControlFile(session.metaData, name));
  scope.deleteUnlessFinished(name);
  ZELTA_TRY(createMutexes(session.metaData, name));
  platform::bindLocks(session.metaData.controlFile, session.metaData.lockFile);
  platform::lockUnderAllNames(session.metaData.controlFile);
  return scope.finish(initialise(session, name));
}

Result openDatabase(const Session& session, const char16_t* path) {
  const std::u16string name = fileNameOf(path);
  if (const SystemCode failure = platform::fileExists(name.c_str()); failure != 0) {
    return reportSystemError(&session.metaData, failure, name.c_str());
  }
  if (!isLocal(name)) return reportError(&session.metaData, Own::notLocal, name.c_str());
  OpeningScope scope(session.metaData);
  if (const Result result = createMutexes(session.metaData, name); result.failed()) return result;
  return scope.finish(openLocked(session, name));
}

void closeDatabase(const Session& session) {
  if (session.metaData.transactionWord != 0) {
    try {
      endTransaction(session).ignore();
    } catch (const std::bad_alloc&) {
      // It looks dead to the others now, who repair it.
    }
  }
  destroyTables(session);
  // An exclusive reader owns the database's mutex until it ends, which may have failed.
  if (session.metaData.transactionWord == kExclusiveNumber && !session.metaData.mayWrite()) {
    static_cast<void>(platform::releaseMutex(session.metaData.databaseMutex));
  }
  closeAll(session.metaData);
  clearError(session.metaData);
}

}  // namespace zelta
