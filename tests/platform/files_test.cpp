// Files and folders: which failure gives which code, what is read at the ends, what lasts.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <map>
#include <string>

#include "platform/clock.h"
#include "platform/file.h"
#include "support/database_fixture.h"

namespace {

/// Flushes of this process by the path of what was flushed, and a failure to give instead.
std::map<std::string, int> flushed;
int folderFailure = 0;

int noteFlush(int fd, long number) {
  char path[4096];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t length = readlink(link.c_str(), path, sizeof path);
  struct stat info {};
  if (folderFailure != 0 && fstat(fd, &info) == 0 && S_ISDIR(info.st_mode)) {
    errno = folderFailure;
    return -1;
  }
  if (length > 0) ++flushed[std::string(path, static_cast<std::size_t>(length))];
  return static_cast<int>(syscall(number, fd));
}

}  // namespace

// These stand in for the C library's in this program.
extern "C" int fsync(int fd) { return noteFlush(fd, SYS_fsync); }
extern "C" int fdatasync(int fd) { return noteFlush(fd, SYS_fdatasync); }

namespace zelta::testing {
namespace {

using platform::Disposition;
using platform::File;
using Line = ChildProcess::Line;

SystemCode opened(const std::u16string& name, Disposition disposition) {
  File file = File::none;
  const SystemCode code = platform::openFile(name.c_str(), disposition, &file);
  EXPECT_EQ(code == 0, file != File::none);
  platform::closeFile(file);
  return code;
}

struct Transfer {
  SystemCode code;
  std::uint32_t transferred;
  bool operator==(const Transfer& other) const {
    return code == other.code && transferred == other.transferred;
  }
};
void PrintTo(const Transfer& transfer, std::ostream* out) {
  *out << "code " << transfer.code << ", " << transfer.transferred << " bytes";
}

Transfer put(File file, std::uint64_t position, const std::string& bytes) {
  Transfer done{0, 99};
  done.code = platform::writeFile(file, position, bytes.data(),
                                  static_cast<std::uint32_t>(bytes.size()), &done.transferred);
  return done;
}
Transfer get(File file, std::uint64_t position, std::string& bytes) {
  Transfer done{0, 99};
  done.code = platform::readFile(file, position, bytes.data(),
                                 static_cast<std::uint32_t>(bytes.size()), &done.transferred);
  return done;
}

class Files : public ::testing::Test {
 protected:
  void SetUp() override {
    folder.write("file", "0123456789");
    std::filesystem::create_directory(folder.path() / "sub");
  }
  void TearDown() override { folderFailure = 0; }
  [[nodiscard]] std::u16string at(const std::string& name) const { return folder.file(name); }
  [[nodiscard]] std::string path(const std::string& name) const { return folder.path() / name; }
  /// Flushes of the test's folder itself.
  [[nodiscard]] int folderFlushes(const std::string& name = "") const {
    return flushed[name.empty() ? folder.path().string() : path(name)];
  }
  /// Runs the work where root's privileges are given up.
  static int asNobody(const std::function<int()>& work) {
    ChildProcess child([&](const Line&) {
      constexpr uid_t kNobody = 65534;
      if (geteuid() == 0 && seteuid(kNobody) != 0) return 255;
      return work();
    });
    return child.wait();
  }

  FreshFolder folder;
};

// -- Opening ------------------------------------------------------------------------------------

TEST_F(Files, OpenWithTheCodesOfTheirDispositions) {
  const struct {
    const char* name;
    SystemCode createNew, openExisting, openAlways;
  } cases[] = {
      {"file", code::kFileExists, 0, 0},
      {"missing/file", code::kPathNotFound, code::kPathNotFound, code::kPathNotFound},
      {"sub/missing/file", code::kPathNotFound, code::kPathNotFound, code::kPathNotFound},
      {"file/file", code::kPathNotFound, code::kPathNotFound, code::kPathNotFound},
      {"sub", code::kFileExists, code::kAccessDenied, code::kAccessDenied},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(opened(at(c.name), Disposition::createNew), c.createNew) << c.name;
    EXPECT_EQ(opened(at(c.name), Disposition::openExisting), c.openExisting) << c.name;
    EXPECT_EQ(opened(at(c.name), Disposition::openAlways), c.openAlways) << c.name;
  }
  EXPECT_EQ(opened(at("new"), Disposition::openExisting), code::kFileNotFound);
  EXPECT_FALSE(folder.has("new"));
  EXPECT_EQ(opened(at("new"), Disposition::createNew), 0u);
  EXPECT_TRUE(folder.has("new"));
  EXPECT_EQ(opened(at("new"), Disposition::createNew), code::kFileExists);
  EXPECT_EQ(opened(at("newer"), Disposition::openAlways), 0u);
  EXPECT_TRUE(folder.has("newer"));
  EXPECT_EQ(folder.bytes("file"), "0123456789") << "opening cuts nothing";
}

TEST_F(Files, WithTooLongANameGive206) {
  EXPECT_EQ(opened(at(std::string(300, 'n')), Disposition::openAlways), code::kNameTooLong);
  EXPECT_EQ(opened(at(std::string(5000, 'n')), Disposition::openAlways), code::kNameTooLong);
}

TEST_F(Files, ThatThisUserMayNotWriteGive5) {
  ASSERT_EQ(chmod(path("file").c_str(), 0444), 0);
  ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
  EXPECT_EQ(asNobody([&] {
              if (opened(at("file"), Disposition::openExisting) != code::kAccessDenied) return 1;
              if (opened(at("new"), Disposition::createNew) != code::kAccessDenied) return 2;
              if (platform::deleteFile(at("file").c_str()) != code::kAccessDenied) return 3;
              if (platform::createFolder(at("x").c_str()) != code::kAccessDenied) return 4;
              if (platform::moveFile(at("file").c_str(), at("g").c_str()) != code::kAccessDenied) {
                return 5;
              }
              return 0;
            }),
            0);
  ASSERT_EQ(chmod(path("sub").c_str(), 0700), 0);
  if (geteuid() == 0) {
    EXPECT_EQ(asNobody([&] {
                return opened(at("sub/f"), Disposition::openAlways) == code::kAccessDenied ? 0 : 1;
              }),
              0);
  }
}

TEST_F(Files, InTooLargeANumberGive4) {
  ChildProcess child([&](const Line&) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 24;
    setrlimit(RLIMIT_NOFILE, &limit);
    for (int i = 0; i < 24; ++i) {
      File file = File::none;
      const SystemCode code =
          platform::openFile(at("file").c_str(), Disposition::openExisting, &file);
      if (code == code::kTooManyFiles) return 0;
      if (code != 0) return 1;
    }
    return 2;
  });
  EXPECT_EQ(child.wait(), 0);
}

TEST_F(Files, AreMadeForWhomTheMaskLeaves) {
  for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{007}, mode_t{077}}) {
    const std::string name = "new" + std::to_string(mask);
    const mode_t former = umask(mask);
    EXPECT_EQ(opened(at(name), Disposition::createNew), 0u);
    umask(former);
    struct stat info {};
    ASSERT_EQ(stat(path(name).c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777u, 0666u & ~mask);
  }
}

TEST_F(Files, AreSharedByAllHandles) {
  const OpenedFile one(at("file"));
  const OpenedFile two(at("file"));
  EXPECT_EQ(put(one, 0, "ab"), (Transfer{0, 2}));
  EXPECT_EQ(put(two, 1, "XY"), (Transfer{0, 2}));
  EXPECT_EQ(folder.bytes("file"), "aXY3456789");
}

TEST_F(Files, TakeNamesOfAnyAlphabet) {
  const std::u16string name = folder.path().u16string() + u"/\u00e4\u4e2d\U0001F600 x.zlc";
  EXPECT_EQ(opened(name, Disposition::createNew), 0u);
  EXPECT_EQ(platform::fileExists(name.c_str()), 0u);
  EXPECT_TRUE(std::filesystem::exists(folder.path() / u8"\u00e4\u4e2d\U0001F600 x.zlc"));
  EXPECT_EQ(platform::deleteFile(name.c_str()), 0u);
}

TEST_F(Files, ThatAreNoneGiveACode) {
  std::uint64_t number = 0;
  std::string bytes(4, '?');
  EXPECT_EQ(get(File::none, 0, bytes), (Transfer{code::kInvalidHandle, 0}));
  EXPECT_EQ(put(File::none, 0, "x"), (Transfer{code::kInvalidHandle, 0}));
  EXPECT_EQ(platform::fileSize(File::none, &number), code::kInvalidHandle);
  EXPECT_EQ(platform::setFileSize(File::none, 0), code::kInvalidHandle);
  EXPECT_EQ(platform::flushFile(File::none), code::kInvalidHandle);
  EXPECT_EQ(platform::lastWriteTime(File::none, &number), code::kInvalidHandle);
  EXPECT_FALSE(platform::isNamed(File::none, at("file").c_str()));
  EXPECT_EQ(platform::closeFile(File::none), 0u);
  platform::beginStable(File::none, 4096);
  platform::endStable(File::none);
}

TEST_F(Files, AreClosedInAForkedChild) {
  const OpenedFile file(at("file"));
  platform::beginStable(file, 4096);
  ChildProcess child([&](const Line&) {
    std::uint64_t number = 0;
    std::string bytes(4, '?');
    if (!(get(file, 0, bytes) == Transfer{code::kInvalidHandle, 0})) return 1;
    if (!(put(file, 0, "x") == Transfer{code::kInvalidHandle, 0})) return 2;
    if (platform::fileSize(file, &number) != code::kInvalidHandle) return 3;
    if (platform::setFileSize(file, 0) != code::kInvalidHandle) return 4;
    if (platform::flushFile(file) != code::kInvalidHandle) return 5;
    if (platform::isNamed(file, at("file").c_str())) return 6;
    platform::endStable(file);
    return opened(at("file"), Disposition::openExisting) == 0 ? 0 : 7;
  });
  EXPECT_EQ(child.wait(), 0);
  std::string bytes(10, '?');
  EXPECT_EQ(get(file, 0, bytes), (Transfer{0, 10}));
  EXPECT_EQ(bytes, "0123456789");
}

// -- Reading, writing, sizes ----------------------------------------------------------------------

TEST_F(Files, AreReadShortAtTheirEndOnly) {
  const OpenedFile file(at("file"));
  const struct {
    std::uint64_t position;
    std::size_t length;
    std::string read;
  } cases[] = {{0, 10, "0123456789"}, {0, 11, "0123456789"}, {7, 10, "789"},      {9, 1, "9"},
               {10, 1, ""},           {11, 5, ""},           {1ull << 40, 5, ""}, {3, 0, ""}};
  for (const auto& c : cases) {
    std::string bytes(c.length, '?');
    EXPECT_EQ(get(file, c.position, bytes),
              (Transfer{0, static_cast<std::uint32_t>(c.read.size())}))
        << c.position;
    EXPECT_EQ(bytes, c.read + std::string(c.length - c.read.size(), '?')) << c.position;
  }
}

TEST_F(Files, RefuseAPositionThatNoFileHas) {
  const OpenedFile file(at("file"));
  std::string bytes(4, '?');
  EXPECT_EQ(get(file, 1ull << 63, bytes), (Transfer{code::kInvalidParameter, 0}));
  EXPECT_EQ(get(file, ~0ull, bytes), (Transfer{code::kInvalidParameter, 0}));
  EXPECT_NE(put(file, 1ull << 63, "x").code, 0u);
  EXPECT_NE(platform::setFileSize(file, 1ull << 63), 0u);
  EXPECT_EQ(folder.bytes("file"), "0123456789");
}

TEST_F(Files, GrowByAWriteBeyondTheirEnd) {
  const OpenedFile file(at("file"));
  EXPECT_EQ(put(file, 12, "ab"), (Transfer{0, 2}));
  EXPECT_EQ(put(file, 14, ""), (Transfer{0, 0}));
  EXPECT_EQ(put(file, 1000, ""), (Transfer{0, 0}));
  EXPECT_EQ(folder.bytes("file"), std::string("0123456789\0\0ab", 14));
  std::uint64_t size = 0;
  EXPECT_EQ(platform::fileSize(file, &size), 0u);
  EXPECT_EQ(size, 14u);
}

TEST_F(Files, AreCutAndExtendedWithZeros) {
  const OpenedFile file(at("file"));
  std::uint64_t size = 0;
  EXPECT_EQ(platform::setFileSize(file, 4), 0u);
  EXPECT_EQ(platform::setFileSize(file, 6), 0u);
  EXPECT_EQ(folder.bytes("file"), std::string("0123\0\0", 6));
  EXPECT_EQ(platform::setFileSize(file, 5ull << 32), 0u);
  EXPECT_EQ(platform::fileSize(file, &size), 0u);
  EXPECT_EQ(size, 5ull << 32);
  EXPECT_EQ(put(file, (5ull << 32) - 1, "end"), (Transfer{0, 3}));
  std::string bytes(4, '?');
  EXPECT_EQ(get(file, (5ull << 32) - 2, bytes), (Transfer{0, 4}));
  EXPECT_EQ(bytes, std::string("\0end", 4));
  EXPECT_EQ(platform::setFileSize(file, 0), 0u);
  EXPECT_EQ(folder.bytes("file"), "");
}

TEST_F(Files, OnAFullDiskGive112) {
  ASSERT_EQ(access("/dev/full", W_OK), 0) << "the device that is always full";
  const OpenedFile file(u"/dev/full");
  EXPECT_EQ(put(file, 0, "x"), (Transfer{code::kDiskFull, 0}));
}

TEST_F(Files, BeyondTheLargestSizeGive223AndTellWhatWasWritten) {
  ChildProcess child([&](const Line&) {
    const rlimit limit{100, 100};
    std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &limit);
    const OpenedFile file(at("file"));
    if (!(put(file, 90, std::string(20, 'x')) == Transfer{code::kFileTooLarge, 10})) return 1;
    if (!(put(file, 100, "x") == Transfer{code::kFileTooLarge, 0})) return 2;
    return platform::setFileSize(file, 101) == code::kFileTooLarge ? 0 : 3;
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(folder.bytes("file").size(), 100u);
}

TEST_F(Files, TellWhenTheyWereWrittenLast) {
  const std::uint64_t before = platform::systemTime();
  const OpenedFile file(at("new"));
  EXPECT_EQ(put(file, 0, "x").code, 0u);
  std::uint64_t time = 0;
  ASSERT_EQ(platform::lastWriteTime(file, &time), 0u);
  constexpr std::uint64_t kSecond = 10000000;
  EXPECT_GE(time + kSecond, before) << "the file system's clock ticks coarsely";
  EXPECT_LE(time, platform::systemTime());
}

// -- Names ----------------------------------------------------------------------------------------

TEST_F(Files, AreFoundByTheirName) {
  EXPECT_EQ(platform::fileExists(at("file").c_str()), 0u);
  EXPECT_EQ(platform::fileExists(at("sub").c_str()), 0u);
  EXPECT_EQ(platform::fileExists(at("sub/").c_str()), 0u);
  EXPECT_EQ(platform::fileExists(u"/"), 0u);
  EXPECT_EQ(platform::fileExists(at("missing").c_str()), code::kFileNotFound);
  EXPECT_EQ(platform::fileExists(at("missing/").c_str()), code::kFileNotFound);
  EXPECT_EQ(platform::fileExists(at("missing/x").c_str()), code::kPathNotFound);
  EXPECT_EQ(platform::fileExists(at("file/x").c_str()), code::kPathNotFound);
  std::filesystem::create_symlink(path("nowhere"), path("link"));
  EXPECT_EQ(platform::fileExists(at("link").c_str()), code::kFileNotFound);
}

TEST_F(Files, AreDeletedWithCodes) {
  EXPECT_EQ(platform::deleteFile(at("missing").c_str()), code::kFileNotFound);
  EXPECT_EQ(platform::deleteFile(at("missing/x").c_str()), code::kPathNotFound);
  EXPECT_EQ(platform::deleteFile(at("file/x").c_str()), code::kPathNotFound);
  EXPECT_EQ(platform::deleteFile(at("sub").c_str()), code::kAccessDenied);
  EXPECT_EQ(platform::deleteFile(at("file").c_str()), 0u);
  EXPECT_FALSE(folder.has("file"));
  EXPECT_EQ(platform::deleteFile(at("file").c_str()), code::kFileNotFound);
}

TEST_F(Files, AreMovedOverNothing) {
  folder.write("other", "other");
  const OpenedFile file(at("file"));
  EXPECT_EQ(platform::moveFile(at("file").c_str(), at("other").c_str()), code::kAlreadyExists);
  EXPECT_EQ(platform::moveFile(at("file").c_str(), at("sub").c_str()), code::kAlreadyExists);
  EXPECT_EQ(platform::moveFile(at("missing").c_str(), at("x").c_str()), code::kFileNotFound);
  EXPECT_EQ(platform::moveFile(at("missing/x").c_str(), at("x").c_str()), code::kPathNotFound);
  EXPECT_EQ(platform::moveFile(at("file").c_str(), at("missing/x").c_str()), code::kPathNotFound);
  EXPECT_EQ(platform::moveFile(at("file").c_str(), at("other/x").c_str()), code::kPathNotFound);
  EXPECT_EQ(folder.bytes("file"), "0123456789");
  EXPECT_EQ(folder.bytes("other"), "other");
  EXPECT_TRUE(platform::isNamed(file, at("file").c_str()));
  EXPECT_EQ(platform::moveFile(at("file").c_str(), at("sub/moved").c_str()), 0u);
  EXPECT_FALSE(folder.has("file"));
  EXPECT_FALSE(platform::isNamed(file, at("file").c_str()));
  EXPECT_TRUE(platform::isNamed(file, at("sub/moved").c_str()));
  EXPECT_EQ(folder.bytes("sub/moved"), "0123456789");
}

TEST_F(Files, ThatWereDeletedOrReplacedHaveNoNameAnyMore) {
  const OpenedFile file(at("file"));
  EXPECT_TRUE(platform::isNamed(file, at("file").c_str()));
  EXPECT_FALSE(platform::isNamed(file, at("missing").c_str()));
  ASSERT_EQ(platform::deleteFile(at("file").c_str()), 0u);
  EXPECT_FALSE(platform::isNamed(file, at("file").c_str()));
  folder.write("file", "0123456789");
  EXPECT_FALSE(platform::isNamed(file, at("file").c_str())) << "another file of that name";
  std::string bytes(4, '?');
  EXPECT_EQ(get(file, 3, bytes), (Transfer{0, 4}));
  EXPECT_EQ(bytes, "3456") << "the handle goes on with the old one";
}

TEST_F(Files, LieInFoldersThatAreMadeOneByOne) {
  EXPECT_EQ(platform::createFolder(at("a/b").c_str()), code::kPathNotFound);
  EXPECT_EQ(platform::createFolder(at("a").c_str()), 0u);
  EXPECT_EQ(platform::createFolder(at("a/b").c_str()), 0u);
  EXPECT_TRUE(std::filesystem::is_directory(path("a/b")));
  EXPECT_EQ(platform::createFolder(at("a").c_str()), code::kAlreadyExists);
  EXPECT_EQ(platform::createFolder(at("file").c_str()), code::kAlreadyExists);
  EXPECT_EQ(platform::createFolder(at("file/x").c_str()), code::kPathNotFound);
}

// -- Flushing -------------------------------------------------------------------------------------

TEST_F(Files, ThatAreNewLastWithTheirFolderFromTheFirstFlush) {
  const OpenedFile file(at("new"));
  EXPECT_EQ(folderFlushes(), 0);
  ASSERT_EQ(platform::flushFile(file), 0u);
  EXPECT_EQ(flushed[path("new")], 1);
  EXPECT_EQ(folderFlushes(), 1);
  ASSERT_EQ(platform::flushFile(file), 0u);
  EXPECT_EQ(flushed[path("new")], 2);
  EXPECT_EQ(folderFlushes(), 1) << "once is enough";
}

TEST_F(Files, ThatWereThereBeforeNeedNoFlushOfTheirFolder) {
  const OpenedFile file(at("file"));
  ASSERT_EQ(platform::flushFile(file), 0u);
  EXPECT_EQ(flushed[path("file")], 1);
  EXPECT_EQ(folderFlushes(), 0);
}

TEST_F(Files, ThatAreDeletedOrMovedStaySoFromTheNextFlushInTheFolder) {
  const OpenedFile file(at("file"));
  const OpenedFile below(at("sub/below"));
  ASSERT_EQ(platform::flushFile(below), 0u);
  ASSERT_EQ(folderFlushes("sub"), 1);
  folder.write("a", "a");
  folder.write("b", "b");
  ASSERT_EQ(platform::deleteFile(at("a").c_str()), 0u);
  ASSERT_EQ(platform::flushFile(below), 0u);
  EXPECT_EQ(folderFlushes(), 0) << "another folder's change";
  ASSERT_EQ(platform::flushFile(file), 0u);
  EXPECT_EQ(folderFlushes(), 1);
  EXPECT_EQ(folderFlushes("sub"), 1);
  ASSERT_EQ(platform::moveFile(at("b").c_str(), at("sub/b").c_str()), 0u);
  ASSERT_EQ(platform::flushFile(below), 0u);
  EXPECT_EQ(folderFlushes("sub"), 2) << "where it came to";
  ASSERT_EQ(platform::flushFile(file), 0u);
  EXPECT_EQ(folderFlushes(), 2) << "where it came from";
}

TEST_F(Files, ReportAFolderThatCannotBeFlushedAndTryAgain) {
  const OpenedFile file(at("new"));
  folderFailure = EIO;
  EXPECT_EQ(platform::flushFile(file), code::kDeviceError);
  EXPECT_EQ(platform::flushFile(file), code::kDeviceError);
  folderFailure = 0;
  EXPECT_EQ(platform::flushFile(file), 0u);
  EXPECT_EQ(folderFlushes(), 1);
}

TEST_F(Files, AreFlushedThoughTheirFolderWasRemoved) {
  const OpenedFile file(at("sub/new"));
  std::filesystem::remove_all(path("sub"));
  EXPECT_EQ(put(file, 0, "x").code, 0u);
  EXPECT_EQ(platform::flushFile(file), 0u);
}

}  // namespace
}  // namespace zelta::testing
