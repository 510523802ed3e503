// The lock file behind named mutexes and locks: how it comes and goes, what it bears, and who may
// use it.

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <functional>
#include <memory>
#include <tuple>
#include <vector>

#include "platform/mutex_fixture.h"
#include "support/users.h"

namespace zelta::testing {
namespace {

using platform::LocksFile;

constexpr off_t kGuardByte = off_t{1} << 32;

class LockFiles : public Mutexes {
 protected:
  [[nodiscard]] SystemCode open(LocksFile* out) const {
    return platform::openLockFile(folder.file("the.zlk").c_str(), folder.file("the.zlc").c_str(),
                                  out);
  }
  /// What opening it comes to, alone and for a moment.
  [[nodiscard]] SystemCode opened() const {
    LocksFile locks = LocksFile::none;
    const SystemCode code = open(&locks);
    EXPECT_EQ(code == 0, locks != LocksFile::none);
    platform::closeLockFile(locks);
    return code;
  }
  void expectAMutex() const {
    const Handle mutex(name);
    EXPECT_EQ(waited(mutex, 0), kGained);
    EXPECT_EQ(elsewhere(), code::kTimeout);
    EXPECT_EQ(platform::releaseMutex(mutex), 0u);
  }
  [[nodiscard]] unsigned modeOf(const std::string& path) const {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? info.st_mode & 0777u : 0xFFFFu;
  }
};

TEST_F(LockFiles, LiveAsLongAsTheirLastUser) {
  EXPECT_FALSE(hasFile());
  {
    const Handle one(name);
    EXPECT_TRUE(hasFile());
    { const Handle two(name); }
    EXPECT_TRUE(hasFile());
    EXPECT_EQ(elsewhere(), 0u);
    EXPECT_TRUE(hasFile()) << "it has a user yet";
  }
  EXPECT_FALSE(hasFile());
}

TEST_F(LockFiles, AreMadeAnewFromWhateverAnEarlierOneLeft) {
  for (const std::size_t size :
       {std::size_t{0}, std::size_t{7}, std::size_t{4096}, std::size_t{99999}}) {
    folder.write("the.zlk", std::string(size, 'z'));
    expectAMutex();
    EXPECT_FALSE(hasFile());
  }
}

TEST_F(LockFiles, ForgetTheOwnersOfACopy) {
  const Handle mutex(name);
  ASSERT_EQ(waited(mutex, 0), kGained);
  const FreshFolder copy;
  copy.copyFrom(folder);
  ASSERT_TRUE(copy.has("the.zlk"));
  inThread([&] {
    const Handle other(copy.file("the.mutex"));
    EXPECT_EQ(waited(other, 0), kGained);
    EXPECT_EQ(platform::releaseMutex(other), 0u);
  });
  EXPECT_FALSE(copy.has("the.zlk"));
  EXPECT_EQ(platform::releaseMutex(mutex), 0u);
}

TEST_F(LockFiles, ForgetTheOwnersWhenAllUsersWereKilled) {
  for (int round = 0; round < 3; ++round) {
    ChildProcess one(owner());
    ASSERT_TRUE(one.hears('y'));
    one.kill();
    EXPECT_TRUE(hasFile());
    expectAMutex();
    EXPECT_FALSE(hasFile());
  }
}

/// Open files of this process under a name.
int openFilesOf(const std::string& path) {
  int found = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone) == path) ++found;
  }
  return found;
}

TEST_F(LockFiles, ThatAreRemovedWhileTheyAreOpenedAreMadeAnew) {
  ChildProcess killed(owner());
  ASSERT_TRUE(killed.hears('y'));
  killed.kill();
  ASSERT_TRUE(hasFile());
  // The last user removes the file while somebody else has opened it already.
  const int last = ::open(file().c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(last, 0);
  struct flock guard {};
  guard.l_type = F_WRLCK;
  guard.l_start = kGuardByte;
  guard.l_len = 1;
  ASSERT_EQ(fcntl(last, F_OFD_SETLK, &guard), 0);
  std::thread other([&] {
    const Handle mutex(name);
    EXPECT_TRUE(hasFile()) << "nobody else would meet this one";
    EXPECT_EQ(waited(mutex, 0), kGained);
    EXPECT_EQ(elsewhere(), code::kTimeout);
    EXPECT_EQ(platform::releaseMutex(mutex), 0u);
  });
  const auto began = Clock::now();
  while (openFilesOf(file()) < 2 && Clock::now() - began < std::chrono::seconds(20)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(openFilesOf(file()), 2);
  EXPECT_EQ(unlink(file().c_str()), 0);
  close(last);
  other.join();
}

TEST_F(LockFiles, RefuseWhatIsNoFile) {
  folder.write("victim", "content");
  std::filesystem::create_symlink(folder.path() / "victim", file());
  EXPECT_EQ(opened(), code::kAccessDenied);
  EXPECT_EQ(folder.bytes("victim"), "content");
  std::filesystem::remove(file());
  std::filesystem::create_directory(file());
  EXPECT_EQ(opened(), code::kAccessDenied);
  std::filesystem::remove(file());
  ASSERT_EQ(mkfifo(file().c_str(), 0666), 0);
  EXPECT_EQ(opened(), code::kAccessDenied);
  EXPECT_TRUE(hasFile());
}

TEST_F(LockFiles, LeaveAFileAloneThatBearsTheirNameToo) {
  folder.write("victim", "content");
  const std::string victim = (folder.path() / "victim").string();
  ASSERT_EQ(chmod(victim.c_str(), 0640), 0);
  std::filesystem::create_hard_link(victim, file());
  expectAMutex();
  EXPECT_FALSE(hasFile());
  EXPECT_EQ(folder.bytes("victim"), "content");
  EXPECT_EQ(modeOf(victim), 0640u);
}

TEST_F(LockFiles, AreUsedOnUnderASecondName) {
  const std::string second = (folder.path() / "second").string();
  {
    const Handle mutex(name);
    std::filesystem::create_hard_link(file(), second);
    ASSERT_EQ(waited(mutex, 0), kGained);
    EXPECT_EQ(elsewhere(), code::kTimeout);
    EXPECT_EQ(platform::releaseMutex(mutex), 0u);
  }
  EXPECT_FALSE(hasFile());
  std::filesystem::create_hard_link(second, file());
  expectAMutex();
  EXPECT_FALSE(hasFile());
}

TEST_F(LockFiles, AreCompleteAndInUseAsSoonAsTheyHaveTheirName) {
  constexpr int kRounds = 300;
  ASSERT_EQ(chmod((folder.path() / "the.zlc").c_str(), 0666), 0);
  const mode_t former = umask(077);
  std::atomic<bool> done{false};
  std::atomic<int> seen{0};
  std::thread watcher([&] {
    while (!done) {
      const int fd = ::open(file().c_str(), O_RDWR | O_CLOEXEC);
      if (fd < 0) continue;
      struct stat info {};
      struct stat named {};
      struct flock users {};
      users.l_type = F_WRLCK;
      users.l_start = kGuardByte + 1;
      users.l_len = 1;
      EXPECT_EQ(fcntl(fd, F_OFD_GETLK, &users), 0);
      EXPECT_EQ(fstat(fd, &info), 0);
      // The last user gives up the name first.
      if (lstat(file().c_str(), &named) == 0 && named.st_ino == info.st_ino) {
        ++seen;
        EXPECT_NE(users.l_type, F_UNLCK);
        EXPECT_GE(info.st_size, 4096);
        EXPECT_EQ(info.st_mode & 0777u, 0666u);
      }
      close(fd);
    }
  });
  for (int i = 0; (i < kRounds || seen == 0) && !HasFailure(); ++i) {
    EXPECT_EQ(opened(), 0u);
  }
  done = true;
  watcher.join();
  umask(former);
}

TEST_F(LockFiles, AreRemovedThoughAThreadEndedAsAnOwner) {
  {
    const Handle mutex(name);
    inThread([&] { ASSERT_EQ(waited(mutex, 0), kGained); });
    EXPECT_EQ(waited(mutex, 0), kGainedFromTheDead);
    EXPECT_EQ(platform::releaseMutex(mutex), 0u);
  }
  EXPECT_FALSE(hasFile());
}

TEST_F(LockFiles, HoldMutexesOfManyNames) {
  constexpr int kNames = 200;
  std::vector<std::unique_ptr<Handle>> all;
  for (int i = 0; i < kNames; ++i) {
    all.push_back(std::make_unique<Handle>(folder.file("t" + std::to_string(i))));
    ASSERT_EQ(waited(*all.back(), 0), kGained);
  }
  const ChildProcess other([&](const Line& line) {
    for (int i = kNames - 1; i >= 0; --i) {
      const Handle mine(folder.file("t" + std::to_string(i)));
      if (platform::waitMutex(mine, 0) != code::kTimeout) return 1;
    }
    const Handle another(folder.file("t" + std::to_string(kNames)));
    if (platform::waitMutex(another, 0) != 0) return 2;
    line.say('y');
    return 0;
  });
  EXPECT_TRUE(other.hears('y'));
  for (const auto& one : all) EXPECT_EQ(platform::releaseMutex(*one), 0u);
}

TEST_F(LockFiles, DoNotGrowWithNamesThatNobodyUsesAnyMore) {
  const Handle mutex(name);
  ASSERT_EQ(waited(mutex, 0), kGained);
  std::uintmax_t size = 0;
  for (int i = 0; i < 3000; ++i) {
    const Handle passing(folder.file("t" + std::to_string(i)));
    ASSERT_EQ(waited(passing, 0), kGained);
    ASSERT_EQ(platform::releaseMutex(passing), 0u);
    if (i == 1000) size = std::filesystem::file_size(file());
  }
  EXPECT_EQ(std::filesystem::file_size(file()), size);
  EXPECT_LT(size, 200000u);
  EXPECT_EQ(elsewhere(), code::kTimeout) << "those that are in use stay";
  EXPECT_EQ(platform::releaseMutex(mutex), 0u);
}

TEST_F(LockFiles, TakeNoWordOfOneFileForAnothers) {
  LocksFile locks = LocksFile::none;
  ASSERT_EQ(open(&locks), 0u);
  const OpenedFile one(folder.file("one"));
  const OpenedFile again(folder.file("one"));
  const OpenedFile two(folder.file("two"));
  for (const platform::File file :
       {platform::File(one), platform::File(again), platform::File(two)}) {
    platform::bindLocks(file, locks);
  }
  for (const platform::LockWord word :
       {platform::LockWord{0}, {32}, {1ull << 40}, {96, 7}, {12, 1ull << 33}}) {
    ASSERT_EQ(platform::lockWord(one, word), 0u);
    EXPECT_EQ(platform::lockWord(one, word), code::kLockViolation);
    EXPECT_EQ(platform::lockWord(again, word), code::kLockViolation);
    EXPECT_EQ(platform::lockWord(two, word), 0u);
    EXPECT_EQ(platform::unlockWord(again, word), code::kNotLocked);
    char byte = 0;
    std::uint32_t count = 0;
    EXPECT_EQ(platform::readLockable(again, word, 0, &byte, 1, &count), code::kLockViolation);
    EXPECT_EQ(platform::readLockable(one, word, 0, &byte, 1, &count), 0u);
  }
  EXPECT_EQ(platform::lockWord(again, {36}), 0u) << "the next word";
  EXPECT_EQ(platform::lockWord(again, {108, 8}), 0u);
  platform::closeLockFile(locks);
  EXPECT_TRUE(hasFile()) << "files that have locks keep it";
  EXPECT_EQ(platform::lockWord(again, {32}), code::kLockViolation);
}

TEST_F(LockFiles, GiveUpTheLocksOfAHandleThatIsClosed) {
  LocksFile locks = LocksFile::none;
  ASSERT_EQ(open(&locks), 0u);
  const OpenedFile lasting(folder.file("one"));
  platform::bindLocks(lasting, locks);
  for (int i = 0; i < 40; ++i) {
    std::vector<std::unique_ptr<OpenedFile>> passing;
    for (std::uint64_t word = 0; word < 20; ++word) {
      passing.push_back(std::make_unique<OpenedFile>(folder.file("one")));
      platform::bindLocks(*passing.back(), locks);
      ASSERT_EQ(platform::lockWord(*passing.back(), {word * 8}), 0u);
      ASSERT_EQ(platform::lockWord(lasting, {word * 8}), code::kLockViolation);
    }
  }
  EXPECT_EQ(platform::lockWord(lasting, {0}), 0u);
  EXPECT_LE(openFilesOf(file()), 20) << "those that were lent are used again, or closed";
  platform::closeLockFile(locks);
}

/// Makes a process that shares the caller's open files until it is killed, as each new process does
/// for a moment: the handlers of a fork have not run in it.
pid_t sharer() {
  const auto child = static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
  while (child == 0) pause();
  return child;
}

void end(pid_t child) {
  EXPECT_EQ(kill(child, SIGKILL), 0);
  EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

TEST_F(LockFiles, GiveUpLocksThatANewProcessSharesYet) {
  LocksFile locks = LocksFile::none;
  ASSERT_EQ(open(&locks), 0u);
  const OpenedFile lasting(folder.file("one"));
  platform::bindLocks(lasting, locks);
  constexpr std::uint64_t kFiles = 40;
  std::vector<std::unique_ptr<OpenedFile>> passing;
  for (std::uint64_t word = 0; word < kFiles; ++word) {
    passing.push_back(std::make_unique<OpenedFile>(folder.file("one")));
    platform::bindLocks(*passing.back(), locks);
    ASSERT_EQ(platform::lockWord(*passing.back(), {word * 8}), 0u);
  }
  const pid_t child = sharer();
  ASSERT_GT(child, 0);
  passing.clear();
  for (std::uint64_t word = 0; word < kFiles; ++word) {
    EXPECT_EQ(platform::lockWord(lasting, {word * 8}), 0u) << word;
  }
  platform::closeLockFile(locks);
  end(child);
}

TEST_F(LockFiles, AreRemovedThoughANewProcessSharesThemYet) {
  LocksFile locks = LocksFile::none;
  ASSERT_EQ(open(&locks), 0u);
  const ChildProcess other([&](const Line& line) {
    LocksFile mine = LocksFile::none;
    if (open(&mine) != 0) return 1;
    const pid_t child = sharer();
    platform::closeLockFile(mine);
    line.say('y');
    line.hear();
    end(child);
    return 0;
  });
  ASSERT_TRUE(other.hears('y'));
  platform::closeLockFile(locks);
  EXPECT_FALSE(hasFile());
  other.tell('g');
  EXPECT_TRUE(other.line().hear() == 0);
}

// -- Who may use it -------------------------------------------------------------------------------

TEST_F(LockFiles, AreForThoseWhoCanWriteTheGuardedFile) {
  const std::string guarded = (folder.path() / "the.zlc").string();
  for (const auto& [mode, expected] : {std::pair{0600u, 0600u},
                                       {0644u, 0600u},
                                       {0660u, 0660u},
                                       {0664u, 0660u},
                                       {0666u, 0666u},
                                       {0640u, 0600u}}) {
    ASSERT_EQ(chmod(guarded.c_str(), mode), 0);
    for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{077}}) {
      const mode_t former = umask(mask);
      const Handle mutex(name);
      umask(former);
      EXPECT_EQ(modeOf(file()), expected) << mode;
    }
  }
}

TEST_F(LockFiles, NeedTheGuardedFile) {
  std::filesystem::remove(folder.path() / "the.zlc");
  EXPECT_EQ(opened(), code::kFileNotFound);
  EXPECT_FALSE(hasFile());
}

/// Without /proc no file can be given a name when it is complete.
TEST_F(LockFiles, AreMadeInPlaceToo) {
  if (!isAdministrator()) return;
  const std::string guarded = (folder.path() / "the.zlc").string();
  ASSERT_EQ(chmod(guarded.c_str(), 0666), 0);
  const auto inside = [&](const std::function<int(const Line&)>& work) {
    return [this, work](const Line& line) {
      umask(077);
      return chroot(folder.path().c_str()) == 0 ? work(line) : 90;
    };
  };
  const auto opening = [](LocksFile* out) {
    return platform::openLockFile(u"/the.zlk", u"/the.zlc", out);
  };
  ChildProcess first(inside([&](const Line& line) {
    LocksFile locks = LocksFile::none;
    if (const SystemCode code = opening(&locks); code != 0) return static_cast<int>(code);
    line.say('y');
    line.hear();
    platform::closeLockFile(locks);
    return 0;
  }));
  ASSERT_TRUE(first.hears('y'));
  EXPECT_EQ(modeOf(file()), 0666u);
  EXPECT_EQ(opened(), code::kSharingViolation) << "the other does not know its name space";
  EXPECT_TRUE(hasFile()) << "it has a user";
  first.tell('g');
  EXPECT_EQ(first.wait(), 0);
  EXPECT_FALSE(hasFile());
}

/// Only the system's administrator can try what other users may do.
class LockFilesOfUsers : public LockFiles {
 protected:
  void SetUp() override {
    LockFiles::SetUp();
    give(".", kAlice, kTeam, 0755);
    give("the.zlc", kAlice, kTeam, 0644);
  }
  void give(const char* member, uid_t user, gid_t group, mode_t mode) const {
    if (!isAdministrator()) return;
    const std::string path = (folder.path() / member).string();
    ASSERT_EQ(chown(path.c_str(), user, group), 0);
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
  }
  /// What a user gets who opens it and waits for the mutex, while `also` goes on.
  [[nodiscard]] int as(uid_t user, gid_t group, const std::vector<gid_t>& groups = {}) const {
    ChildProcess child([&](const Line&) {
      if (!become(user, group, groups)) return 900;
      LocksFile locks = LocksFile::none;
      if (const SystemCode code = open(&locks); code != 0) return static_cast<int>(code);
      Mutex mutex = Mutex::none;
      if (const SystemCode code = platform::createMutex(locks, name.c_str(), &mutex); code != 0) {
        return static_cast<int>(code);
      }
      const SystemCode code = platform::waitMutex(mutex, 0);
      if (code == 0) static_cast<void>(platform::releaseMutex(mutex));
      platform::closeMutex(mutex);
      platform::closeLockFile(locks);
      return static_cast<int>(code & 0xFF);
    });
    return child.wait();
  }
  /// A process of a user that owns the mutex until it is told something.
  [[nodiscard]] std::function<int(const Line&)> ownerAs(uid_t user, gid_t group,
                                                        std::vector<gid_t> groups = {}) const {
    return [=, this](const Line& line) {
      if (!become(user, group, groups)) return 9;
      return owner()(line);
    };
  }
  static constexpr int kHeld = code::kTimeout & 0xFF;
};

TEST_F(LockFilesOfUsers, AreClosedToThoseWhoCannotWriteTheGuardedFile) {
  if (!isAdministrator()) return;
  EXPECT_EQ(as(kBob, kBob), static_cast<int>(code::kAccessDenied));
  EXPECT_EQ(as(kBob, kTeam), static_cast<int>(code::kAccessDenied));
  EXPECT_FALSE(hasFile());
  ChildProcess alice(ownerAs(kAlice, kAlice));
  ASSERT_TRUE(alice.hears('y'));
  EXPECT_EQ(as(kBob, kBob), static_cast<int>(code::kAccessDenied));
  ChildProcess stranger([&](const Line&) {
    if (!become(kBob, kTeam)) return 9;
    return ::open(file().c_str(), O_RDONLY) < 0 && unlink(file().c_str()) != 0 ? 0 : 1;
  });
  EXPECT_EQ(stranger.wait(), 0);
  EXPECT_EQ(as(kAlice, kAlice), kHeld);
}

TEST_F(LockFilesOfUsers, AreSharedByTheOwnerAndTheAdministrator) {
  if (!isAdministrator()) return;
  {
    const Handle mutex(name);
    ASSERT_EQ(waited(mutex, 0), kGained);
    EXPECT_EQ(as(kAlice, kAlice), kHeld) << "who came first does not matter";
    EXPECT_EQ(platform::releaseMutex(mutex), 0u);
    EXPECT_EQ(as(kAlice, kAlice), 0);
  }
  EXPECT_FALSE(hasFile());
  ChildProcess alice(ownerAs(kAlice, kAlice));
  ASSERT_TRUE(alice.hears('y'));
  EXPECT_EQ(elsewhere(), code::kTimeout);
}

TEST_F(LockFilesOfUsers, AreSharedByAGroup) {
  if (!isAdministrator()) return;
  give(".", kAlice, kTeam, 0770);
  give("the.zlc", kAlice, kTeam, 0660);
  for (const auto& [first, second] : {std::pair{kAlice, kBob}, {kBob, kAlice}}) {
    ChildProcess one(ownerAs(first, first, {kTeam}));
    ASSERT_TRUE(one.hears('y'));
    EXPECT_EQ(as(second, second, {kTeam}), kHeld) << first;
    EXPECT_EQ(as(kBob + 1, kBob + 1), static_cast<int>(code::kAccessDenied));
    one.kill();
    EXPECT_TRUE(hasFile());
    EXPECT_EQ(as(second, second, {kTeam}), 0) << "what was left is taken over";
    if (hasFile()) std::filesystem::remove(file());
  }
}

/// An entry of an access list, as the kernel takes it.
struct ListEntry {
  std::uint16_t tag;
  std::uint16_t permissions;
  std::uint32_t id;
};
constexpr std::uint32_t kNoId = 0xFFFFFFFF;

/// False where the file system has no access lists.
bool setList(const std::string& path, const char* list, const std::vector<ListEntry>& entries) {
  std::string bytes{2, 0, 0, 0};
  bytes.append(reinterpret_cast<const char*>(entries.data()), entries.size() * sizeof(ListEntry));
  const bool set = setxattr(path.c_str(), list, bytes.data(), bytes.size(), 0) == 0;
  EXPECT_TRUE(set || errno == EOPNOTSUPP) << errno;
  return set;
}

TEST_F(LockFilesOfUsers, AreSharedByThoseOnTheAccessList) {
  if (!isAdministrator()) return;
  constexpr uid_t kCarol = 60003;
  constexpr gid_t kStaff = 60011;
  constexpr uid_t kDave = 60004;
  give(".", kAlice, kTeam, 0777);
  // The group of the file may read, and the folder would give a new file to Dave.
  const std::string guarded = (folder.path() / "the.zlc").string();
  const std::vector<ListEntry> writers = {{1, 6, kNoId}, {2, 6, kBob},   {2, 4, kDave},
                                          {4, 4, kNoId}, {8, 6, kStaff}, {16, 6, kNoId},
                                          {32, 4, kNoId}};
  const std::vector<ListEntry> forNewFiles = {
      {1, 7, kNoId}, {2, 7, kDave}, {4, 7, kNoId}, {16, 7, kNoId}, {32, 7, kNoId}};
  if (!setList(guarded, "system.posix_acl_access", writers)) return;
  ASSERT_TRUE(setList(folder.path(), "system.posix_acl_default", forNewFiles));
  using Who = std::tuple<uid_t, gid_t, std::vector<gid_t>>;
  const std::vector<Who> all = {{kAlice, kAlice, {}}, {kBob, kBob, {}}, {kCarol, kCarol, {kStaff}}};
  for (const auto& [first, group, groups] : all) {
    ChildProcess one(ownerAs(first, group, groups));
    ASSERT_TRUE(one.hears('y')) << first;
    for (const auto& [second, itsGroup, itsGroups] : all) {
      EXPECT_EQ(as(second, itsGroup, itsGroups), kHeld) << first << " and " << second;
    }
    EXPECT_EQ(elsewhere(), code::kTimeout) << first;
    ChildProcess stranger([&](const Line&) {
      if (!become(kDave, kDave, {kTeam})) return 9;
      return ::open(file().c_str(), O_RDONLY) < 0 ? 0 : 1;
    });
    EXPECT_EQ(stranger.wait(), 0) << first;
    one.kill();
    EXPECT_EQ(as(kDave, kDave), static_cast<int>(code::kAccessDenied));
    EXPECT_EQ(opened(), 0u);
    EXPECT_FALSE(hasFile());
  }
}

TEST_F(LockFilesOfUsers, OfStrangersAreNotUsed) {
  if (!isAdministrator()) return;
  give(".", kAlice, kTeam, 01777);  // where everybody may make files
  ChildProcess stranger([&](const Line&) {
    if (!become(kBob, kBob)) return 9;
    const int fd = ::open(file().c_str(), O_RDWR | O_CREAT | O_EXCL, 0666);
    return fd >= 0 && fchmod(fd, 0666) == 0 ? 0 : 1;
  });
  ASSERT_EQ(stranger.wait(), 0);
  EXPECT_EQ(as(kAlice, kAlice), static_cast<int>(code::kAccessDenied));
  EXPECT_EQ(opened(), code::kAccessDenied);
  EXPECT_EQ(std::filesystem::file_size(file()), 0u);
}

TEST_F(LockFilesOfUsers, AreNotSharedByProcessesThatCannotTellEachOther) {
  if (!isAdministrator()) return;
  const Handle mutex(name);
  ChildProcess child([&](const Line&) {
    if (unshare(CLONE_NEWPID) != 0) return 90;
    const pid_t inside = fork();  // the first process of its own name space
    if (inside == 0) _exit(static_cast<int>(opened()));
    int status = 0;
    waitpid(inside, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 91;
  });
  EXPECT_EQ(child.wait(), static_cast<int>(code::kSharingViolation));
}

}  // namespace
}  // namespace zelta::testing
