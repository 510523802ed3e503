// The calls of the platform by those of Windows: codes that pass through, locks, mutexes, volumes.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/file.h"
#include "platform/memory.h"
#include "platform/mutex.h"
#include "support/buffer_table.h"
#include "support/database_fixture.h"
#include "support/storage_fixture.h"

namespace zelta::testing {
namespace {

using platform::Disposition;
using platform::File;
using platform::Mutex;

SystemCode opened(const std::u16string& name, Disposition disposition) {
  File file = File::none;
  const SystemCode code = platform::openFile(name.c_str(), disposition, &file);
  EXPECT_EQ(code == 0, file != File::none);
  platform::closeFile(file);
  return code;
}

void put(File file, std::uint64_t position, const std::string& bytes) {
  std::uint32_t done = 0;
  ASSERT_EQ(platform::writeFile(file, position, bytes.data(),
                                static_cast<std::uint32_t>(bytes.size()), &done),
            0u);
  ASSERT_EQ(done, bytes.size());
}

std::string get(File file, std::uint64_t position, std::uint32_t length) {
  std::string bytes(length, '?');
  std::uint32_t done = 0;
  EXPECT_EQ(platform::readFile(file, position, bytes.data(), length, &done), 0u);
  bytes.resize(done);
  return bytes;
}

// -- Files ----------------------------------------------------------------------------------------

TEST(WindowsFiles, PassTheCodesOfTheSystemThrough) {
  FreshFolder folder;
  EXPECT_EQ(opened(folder.file("none"), Disposition::openExisting), code::kFileNotFound);
  EXPECT_EQ(opened(folder.file("none\\none"), Disposition::openAlways), code::kPathNotFound);
  EXPECT_EQ(opened(folder.file("one"), Disposition::createNew), 0u);
  EXPECT_EQ(opened(folder.file("one"), Disposition::createNew), code::kFileExists);
  EXPECT_EQ(opened(folder.file("one"), Disposition::openAlways), 0u);
  EXPECT_EQ(platform::createFolder(folder.file("sub").c_str()), 0u);
  EXPECT_EQ(platform::createFolder(folder.file("sub").c_str()), code::kAlreadyExists);
  EXPECT_EQ(platform::createFolder(folder.file("no\\sub").c_str()), code::kPathNotFound);
  EXPECT_EQ(opened(folder.file("sub"), Disposition::openExisting), code::kAccessDenied);
  EXPECT_EQ(platform::fileExists(folder.file("sub").c_str()), 0u);
  EXPECT_EQ(platform::fileExists(folder.file("none").c_str()), code::kFileNotFound);
  EXPECT_EQ(platform::fileExists(folder.file("none\\none").c_str()), code::kPathNotFound);
  EXPECT_EQ(platform::deleteFile(folder.file("none").c_str()), code::kFileNotFound);
  EXPECT_EQ(opened(folder.file("two"), Disposition::createNew), 0u);
  EXPECT_EQ(platform::moveFile(folder.file("one").c_str(), folder.file("two").c_str()),
            code::kAlreadyExists);
  EXPECT_EQ(platform::moveFile(folder.file("one").c_str(), folder.file("three").c_str()), 0u);
  EXPECT_FALSE(folder.has("one"));
  EXPECT_EQ(platform::deleteFile(folder.file("three").c_str()), 0u);
}

TEST(WindowsFiles, KeepTheirNameWhileTheyAreOpen) {
  FreshFolder folder;
  const OpenedFile file(folder.file("kept"));
  EXPECT_EQ(platform::deleteFile(folder.file("kept").c_str()), code::kSharingViolation);
  EXPECT_EQ(platform::moveFile(folder.file("kept").c_str(), folder.file("other").c_str()),
            code::kSharingViolation);
  EXPECT_TRUE(platform::isNamed(file, folder.file("kept").c_str()));
}

TEST(WindowsFiles, AreReadAndWrittenAtAPlace) {
  FreshFolder folder;
  const OpenedFile file(folder.file("data"));
  const OpenedFile other(folder.file("data"));
  put(file, 0, "0123456789");
  EXPECT_EQ(get(other, 2, 3), "234");
  EXPECT_EQ(get(other, 8, 10), "89") << "less at the end";
  EXPECT_EQ(get(other, 10, 10), "") << "nothing behind it";
  put(file, 12, "x");
  EXPECT_EQ(get(other, 9, 4), std::string("9\0\0x", 4)) << "a gap is zeros";
  std::uint64_t size = 0;
  EXPECT_EQ(platform::fileSize(other, &size), 0u);
  EXPECT_EQ(size, 13u);
  EXPECT_EQ(platform::setFileSize(file, 4), 0u);
  EXPECT_EQ(get(other, 0, 20), "0123");
  EXPECT_EQ(platform::setFileSize(file, 6), 0u);
  EXPECT_EQ(get(other, 0, 20), std::string("0123\0\0", 6));
  EXPECT_EQ(platform::flushFile(file), 0u);
}

TEST(WindowsFiles, ReachBeyondFourGigabytes) {
  constexpr std::uint64_t kFar = (std::uint64_t{1} << 32) + 5;
  FreshFolder folder;
  const OpenedFile file(folder.file("long"));
  put(file, kFar, "far");
  std::uint64_t size = 0;
  EXPECT_EQ(platform::fileSize(file, &size), 0u);
  EXPECT_EQ(size, kFar + 3);
  EXPECT_EQ(get(file, kFar, 3), "far");
  EXPECT_EQ(platform::setFileSize(file, kFar - 1), 0u);
  EXPECT_EQ(platform::fileSize(file, &size), 0u);
  EXPECT_EQ(size, kFar - 1);
}

/// Of these the system takes the last for the end of the file, the one before for where one is.
TEST(WindowsFiles, RefuseAPositionThatNoFileHas) {
  FreshFolder folder;
  folder.write("file", "0123456789");
  File file = File::none;
  ASSERT_EQ(platform::openFile(folder.file("file").c_str(), Disposition::openExisting, &file), 0u);
  for (const std::uint64_t position :
       {std::uint64_t{1} << 63, ~std::uint64_t{1}, ~std::uint64_t{0}}) {
    std::uint32_t done = 7;
    char byte = 'x';
    EXPECT_EQ(platform::readFile(file, position, &byte, 1, &done), code::kInvalidParameter);
    EXPECT_EQ(platform::writeFile(file, position, &byte, 1, &done), code::kInvalidParameter);
    EXPECT_EQ(done, 0u);
  }
  EXPECT_EQ(platform::closeFile(file), 0u);
  EXPECT_EQ(folder.bytes("file"), "0123456789");
}

TEST(WindowsFiles, TellWhenTheyWereWritten) {
  FreshFolder folder;
  const OpenedFile file(folder.file("data"));
  put(file, 0, "x");
  std::uint64_t time = 0;
  ASSERT_EQ(platform::lastWriteTime(file, &time), 0u);
  constexpr double kMinute = 600'000'000;
  EXPECT_NEAR(static_cast<double>(time), static_cast<double>(platform::systemTime()), kMinute);
}

TEST(WindowsFiles, WithoutAHandleAreRefused) {
  std::uint32_t done = 1;
  std::uint64_t value = 1;
  char byte = 0;
  EXPECT_EQ(platform::readFile(File::none, 0, &byte, 1, &done), code::kInvalidHandle);
  EXPECT_EQ(platform::writeFile(File::none, 0, &byte, 1, &done), code::kInvalidHandle);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(platform::fileSize(File::none, &value), code::kInvalidHandle);
  EXPECT_EQ(platform::setFileSize(File::none, 0), code::kInvalidHandle);
  EXPECT_EQ(platform::flushFile(File::none), code::kInvalidHandle);
  EXPECT_EQ(platform::lockWord(File::none, {0}), code::kInvalidHandle);
  EXPECT_EQ(platform::closeFile(File::none), 0u);
}

// -- Locks ----------------------------------------------------------------------------------------

SystemCode readWord(File file, platform::LockWord word) {
  std::uint32_t value = 0;
  std::uint32_t done = 0;
  return platform::readLockable(file, word, word.position, &value, 4, &done);
}

TEST(WindowsLocks, BelongToTheHandle) {
  FreshFolder folder;
  const OpenedFile first(folder.file("data"));
  const OpenedFile second(folder.file("data"));
  put(first, 0, std::string(100, 'x'));
  constexpr platform::LockWord kWord{32};
  EXPECT_EQ(platform::lockWord(first, kWord), 0u);
  EXPECT_EQ(platform::lockWord(first, kWord), code::kLockViolation);
  EXPECT_EQ(platform::lockWord(second, kWord), code::kLockViolation);
  EXPECT_EQ(platform::lockWord(second, {36}), 0u) << "the next word is another's to take";
  EXPECT_EQ(platform::unlockWord(second, kWord), code::kNotLocked);
  EXPECT_EQ(platform::unlockWord(first, kWord), 0u);
  EXPECT_EQ(platform::unlockWord(first, kWord), code::kNotLocked);
  EXPECT_EQ(platform::lockWord(second, kWord), 0u);
}

TEST(WindowsLocks, StopReadsThroughOtherHandles) {
  FreshFolder folder;
  const OpenedFile first(folder.file("data"));
  const OpenedFile second(folder.file("data"));
  put(first, 0, std::string(100, 'x'));
  for (const platform::LockWord word : {platform::LockWord{32}, platform::LockWord{44, 7}}) {
    EXPECT_EQ(readWord(second, word), 0u);
    ASSERT_EQ(platform::lockWord(first, word), 0u);
    EXPECT_EQ(readWord(second, word), code::kLockViolation);
    EXPECT_EQ(readWord(second, {60}), 0u);
    EXPECT_EQ(readWord(first, word), 0u) << "the owner reads on";
    ASSERT_EQ(platform::unlockWord(first, word), 0u);
    EXPECT_EQ(readWord(second, word), 0u);
  }
}

TEST(WindowsLocks, AreOfTheFileAndNotOfItsName) {
  FreshFolder folder;
  const OpenedFile one(folder.file("one"));
  const OpenedFile two(folder.file("two"));
  put(two, 0, std::string(100, 'x'));
  ASSERT_EQ(platform::lockWord(one, {8}), 0u);
  EXPECT_EQ(readWord(two, {8}), 0u);
  EXPECT_EQ(platform::lockWord(two, {8}), 0u);
}

TEST(WindowsLocks, GoWithTheHandle) {
  FreshFolder folder;
  const OpenedFile stays(folder.file("data"));
  put(stays, 0, std::string(100, 'x'));
  {
    const OpenedFile goes(folder.file("data"));
    for (std::uint64_t i = 0; i < 20; ++i) ASSERT_EQ(platform::lockWord(goes, {i * 4}), 0u);
    EXPECT_EQ(readWord(stays, {76}), code::kLockViolation);
  }
  for (std::uint64_t i = 0; i < 20; ++i) {
    EXPECT_EQ(readWord(stays, {i * 4}), 0u);
    EXPECT_EQ(platform::lockWord(stays, {i * 4}), 0u);
  }
}

TEST(WindowsLocks, LieBehindTheEndAndFarOut) {
  FreshFolder folder;
  const OpenedFile first(folder.file("data"));
  const OpenedFile second(folder.file("data"));
  for (const std::uint64_t position : {std::uint64_t{1000}, (std::uint64_t{1} << 32) + 8}) {
    EXPECT_EQ(platform::lockWord(first, {position}), 0u);
    EXPECT_EQ(platform::lockWord(second, {position}), code::kLockViolation);
    EXPECT_EQ(platform::lockWord(second, {position + 4}), 0u);
  }
}

// -- Mutexes --------------------------------------------------------------------------------------

class Held {
 public:
  explicit Held(const std::u16string& name) {
    EXPECT_EQ(platform::createMutex(platform::LocksFile::none, name.c_str(), &mutex_), 0u);
  }
  ~Held() { platform::closeMutex(mutex_); }
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;
  operator Mutex() const { return mutex_; }

 private:
  Mutex mutex_ = Mutex::none;
};

class WindowsMutexes : public ::testing::Test {
 protected:
  [[nodiscard]] std::u16string name(const char* end = "a.zlc") const {
    return u"Global\\" + folder_.file(end);
  }
  static SystemCode elsewhere(Mutex mutex, std::uint32_t milliseconds = 0) {
    SystemCode code = 0;
    std::thread([&] {
      code = platform::waitMutex(mutex, milliseconds);
      if (code == 0) static_cast<void>(platform::releaseMutex(mutex));
    }).join();
    return code;
  }
  FreshFolder folder_;
};

TEST_F(WindowsMutexes, AreOwnedByAThreadAndTakenAgainByIt) {
  const Held one(name());
  const Held two(name());
  EXPECT_EQ(platform::waitMutex(one, platform::kForever), 0u);
  EXPECT_EQ(platform::waitMutex(two, 0), 0u);
  EXPECT_EQ(elsewhere(two), code::kTimeout);
  EXPECT_EQ(platform::releaseMutex(one), 0u);
  EXPECT_EQ(elsewhere(one, 10), code::kTimeout);
  EXPECT_EQ(platform::releaseMutex(two), 0u);
  EXPECT_EQ(platform::releaseMutex(two), code::kNotOwner);
  EXPECT_EQ(elsewhere(one), 0u);
}

TEST_F(WindowsMutexes, OfAnotherNameAreOthers) {
  const Held one(name());
  const Held two(name("a.zl2"));
  EXPECT_EQ(platform::waitMutex(one, 0), 0u);
  EXPECT_EQ(elsewhere(two), 0u);
  EXPECT_EQ(platform::releaseMutex(one), 0u);
}

TEST_F(WindowsMutexes, AreGainedFromDeadOwners) {
  const Held mutex(name());
  std::thread([&] {
    ASSERT_EQ(platform::waitMutex(mutex, 0), 0u);
    platform::advanceChangeCount(mutex);
  }).join();
  EXPECT_EQ(platform::changeCount(mutex) & 1, 1u);
  bool abandoned = false;
  EXPECT_EQ(platform::waitMutex(mutex, 0, &abandoned), 0u);
  EXPECT_TRUE(abandoned);
  EXPECT_EQ(platform::changeCount(mutex) & 1, 0u) << "the change is over";
  EXPECT_EQ(platform::releaseMutex(mutex), 0u);
  EXPECT_EQ(platform::waitMutex(mutex, 0, &abandoned), 0u);
  EXPECT_FALSE(abandoned);
  EXPECT_EQ(platform::releaseMutex(mutex), 0u);
}

TEST_F(WindowsMutexes, CountChangesForAllHandles) {
  const Held writer(name());
  const Held reader(name());
  const std::uint32_t start = platform::changeCount(reader);
  EXPECT_EQ(start & 1, 0u);
  platform::advanceChangeCount(writer);
  EXPECT_EQ(platform::changeCount(reader) & 1, 1u);
  platform::advanceChangeCount(writer);
  EXPECT_EQ(platform::changeCount(reader) & 1, 0u);
  EXPECT_NE(platform::changeCount(reader), start);
}

TEST_F(WindowsMutexes, CountOnWhenASemaphoreIsFull) {
  const Held mutex(name());
  std::vector<std::uint32_t> even;
  constexpr int kChanges = 0x8010;  // a lap is 0x8000 of them
  for (int i = 0; i < kChanges; ++i) {
    platform::advanceChangeCount(mutex);
    if (i > 0x7FF0) {
      ASSERT_EQ(platform::changeCount(mutex) & 1, 1u);
    }
    platform::advanceChangeCount(mutex);
    if (i < 0x20 || i > 0x7FF0) {
      even.push_back(platform::changeCount(mutex));
      ASSERT_EQ(even.back() & 1, 0u);
    }
  }
  std::sort(even.begin(), even.end());
  EXPECT_EQ(std::adjacent_find(even.begin(), even.end()), even.end()) << "no count comes twice";
}

TEST_F(WindowsMutexes, AreClaimedByAHandle) {
  Mutex first = Mutex::none;
  ASSERT_EQ(platform::createMutex(platform::LocksFile::none, name().c_str(), &first), 0u);
  const Held second(name());
  EXPECT_EQ(platform::claimMutex(first), 0u);
  EXPECT_EQ(platform::claimMutex(first), 0u);
  EXPECT_EQ(platform::claimMutex(second), code::kTimeout);
  std::thread([&] { platform::closeMutex(first); }).join();
  EXPECT_EQ(platform::claimMutex(second), 0u) << "though another thread closed it";
  platform::unclaimMutex(second);
  const Held third(name());
  EXPECT_EQ(platform::claimMutex(third), 0u);
}

// -- Memory ---------------------------------------------------------------------------------------

TEST(WindowsMemory, IsAskedForWhatCanBeRead) {
  const char byte = 'x';
  EXPECT_TRUE(platform::isReadable(&byte));
  EXPECT_FALSE(platform::isReadable(nullptr));
  EXPECT_FALSE(platform::isReadable(reinterpret_cast<const void*>(std::uintptr_t{16})));
}

class WindowsValues : public DatabaseTest {};

TEST_F(WindowsValues, ThatCannotBeReadAreRefused) {
  CZELTA handle;
  ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 10000));
  const SchemaRecords records({{CZELTA::TypeUInt32}, {CZELTA::TypeText, 20}}, {}, 0);
  ASSERT_DONE(handle, handle.CreateTable(&records.schema, nullptr));
  CZELTA::Object object;
  ASSERT_DONE(handle, handle.NewObject(1, &object, 0));
  const void* nothing = reinterpret_cast<const void*>(std::uintptr_t{16});
  EXPECT_EQ(handle.PutVariableValues(1, nothing, 0, 0, 1, &object), ownCode(7));
  EXPECT_EQ(handle.PutVariableValues(1, nothing, 4, 0, 1, &object), ownCode(7));
  EXPECT_EQ(handle.PutVariableValues(1, "text", ~0u, 0, 1, &object), ownCode(7));
  ASSERT_DONE(handle, handle.PutVariableValues(1, "text", 5, 0, 1, &object));
  ASSERT_DONE(handle, handle.EndTransaction());
}

// -- Volumes --------------------------------------------------------------------------------------

TEST(WindowsVolumes, OfThisMachineAreLocal) {
  FreshFolder folder;
  const std::u16string path = folder.path().u16string();
  EXPECT_EQ(platform::volumeType(u"C:\\"), platform::VolumeType::local);
  EXPECT_EQ(platform::volumeType((path + u"\\").c_str()), platform::VolumeType::local);
  EXPECT_EQ(platform::volumeType(u"Q:\\"), platform::VolumeType::noRoot);
}

TEST(WindowsVolumes, OfOtherMachinesAreRemoteEvenOutOfReach) {
  for (const char16_t* folder : {u"\\\\server\\", u"\\\\server\\share\\", u"\\\\?\\UNC\\server\\",
                                 u"\\\\?\\unc\\server\\share\\folder\\", u"//server/share\\",
                                 u"\\/server\\", u"\\??\\UNC\\server\\share\\"}) {
    EXPECT_EQ(platform::volumeType(folder), platform::VolumeType::remote);
  }
  for (const char16_t* folder : {u"\\", u"\\\\", u"\\\\?\\", u"\\\\.\\", u"\\\\?\\C:\\"}) {
    EXPECT_NE(platform::volumeType(folder), platform::VolumeType::remote);
  }
}

}  // namespace
}  // namespace zelta::testing
