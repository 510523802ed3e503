// Other users of the machine: those who may not write a database's files cannot hinder those who
// may, and those who share it work side by side.

#include <fcntl.h>
#include <sys/stat.h>

#include <set>

#include "process/shop_fixture.h"
#include "support/users.h"

namespace zelta::testing {
namespace {

/// The shop is Alice's, in a folder of hers.
class Users : public ShopTest {
 protected:
  void SetUp() override { former_ = umask(022); }
  void TearDown() override {
    umask(former_);
    if (isAdministrator()) ShopTest::TearDown();
  }
  void makeShopOf(uid_t user, gid_t group, mode_t folderMode, mode_t mask) {
    umask(mask);
    ASSERT_EQ(chown(folder.path().c_str(), user, group), 0);
    ASSERT_EQ(chmod(folder.path().c_str(), folderMode), 0);
    ChildProcess maker([&](const Line&) {
      if (!become(user, user, {group})) return 9;
      makeShop(0, 0);
      return HasFailure() ? 1 : 0;
    });
    ASSERT_EQ(maker.wait(), 0);
  }
  [[nodiscard]] std::set<std::string> files() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
      names.insert(entry.path().filename());
    }
    return names;
  }
  /// Everything that changes files: a table made and removed, objects added, changed and deleted.
  [[nodiscard]] int workThrough() const {
    Shop shop;
    if (!shop.open(path())) return 20;
    if (shop.begin(CZELTA::TransactionExclusive, 0) != 0) return 21;
    SmallSchema other(u"other");
    unsigned table = 0;
    if (shop.db.CreateTable(&other.schema, &table) != 0) return 22;
    if (shop.db.RemoveTable(table, true) != 0) return 23;
    if (shop.end() != 0) return 24;
    for (int round = 0; round < 3; ++round) {
      if (shop.begin(CZELTA::TransactionShared, 0) != 0) return 25;
      for (std::uint64_t key = 1; key <= 100; ++key) {
        if (shop.add({key, 1, static_cast<std::uint32_t>(key)}) != 0) return 26;
      }
      if (shop.commit() != 0) return 27;
      if (shop.readKey(7) != 0 || shop.rewrite({7, 2, 7}) != 0) return 28;
      for (std::uint64_t key = 1; key <= 100; ++key) {
        if (shop.readKey(key) != 0 || shop.remove(shop.object.objectID) != 0) return 29;
      }
      if (shop.commit() != 0 || shop.end() != 0) return 30;
    }
    return shop.db.CloseDatabase() == 0 ? 0 : 31;
  }

 private:
  mode_t former_ = 0;
};

/// Opens all files for reading and locks as much of them as a reader can.
int lockForReading(const std::filesystem::path& folder) {
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const int fd = open(entry.path().c_str(), O_RDONLY);
    if (fd < 0) return 1;
    struct flock all {};
    all.l_type = F_RDLCK;
    if (fcntl(fd, F_OFD_SETLK, &all) != 0) return 2;
  }
  return 0;
}

TEST_F(Users, WhoMayNotWriteTheFilesHinderNobody) {
  if (!isAdministrator()) return;
  makeShopOf(kAlice, kTeam, 0755, 022);
  const std::set<std::string> atRest = files();
  const ChildProcess stranger([&](const Line& line) {
    if (!become(kBob, kBob)) return 9;
    if (const int failure = lockForReading(folder.path()); failure != 0) return failure;
    CZELTA db;
    if (db.OpenDatabase(path().c_str()) != systemCode(5)) return 3;
    line.say('y');
    line.hear();
    return 0;
  });
  ASSERT_TRUE(stranger.hears('y'));
  EXPECT_EQ(files(), atRest);
  ChildProcess alice([&](const Line&) { return become(kAlice, kAlice) ? workThrough() : 9; });
  EXPECT_EQ(alice.wait(), 0);
  const std::set<std::string> ofADatabase = {"shop.zlc", "shop.zll", "things.zli", "things.zlm",
                                             "things.zlt"};
  EXPECT_EQ(files(), ofADatabase);
}

TEST_F(Users, FindNothingToTakeHoldOfWhileADatabaseIsOpen) {
  if (!isAdministrator()) return;
  makeShopOf(kAlice, kTeam, 0755, 022);
  const auto shared = [] {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
      names.insert(entry.path().filename());
    }
    return names;
  };
  const std::set<std::string> before = shared();
  ChildProcess alice([&](const Line& line) {
    if (!become(kAlice, kAlice)) return 9;
    Shop shop;
    if (!shop.open(path()) || shop.begin() != 0 || shop.add({1, 1, 1}) != 0) return 1;
    line.say('y');
    line.hear();
    return shop.commit() == 0 ? 0 : 2;
  });
  ASSERT_TRUE(alice.hears('y'));
  for (const std::string& name : shared()) {
    EXPECT_TRUE(before.count(name) != 0 || name.find("shop") == std::string::npos) << name;
  }
  ChildProcess stranger([&](const Line&) {
    if (!become(kBob, kBob)) return 9;
    for (const std::string& name : files()) {
      const std::string file = folder.path() / name;
      if (open(file.c_str(), O_RDWR) >= 0 || unlink(file.c_str()) == 0) return 1;
    }
    const std::string locks = folder.path() / "shop.zlk";
    return open(locks.c_str(), O_RDONLY) < 0 ? 0 : 2;
  });
  EXPECT_EQ(stranger.wait(), 0);
  alice.tell('g');
  EXPECT_EQ(alice.wait(), 0);
}

TEST_F(Users, OfOneGroupShareADatabase) {
  if (!isAdministrator()) return;
  makeShopOf(kAlice, kTeam, 02770, 007);
  for (const auto& [first, second] : {std::pair{kAlice, kBob}, {kBob, kAlice}}) {
    const std::uint64_t base = first;
    ChildProcess one([&, who = first](const Line& line) {
      if (!become(who, who, {kTeam})) return 9;
      Shop shop;
      if (!shop.open(path()) || shop.begin() != 0 || shop.add({base, 1, who}) != 0) return 1;
      line.say('y');  // and is killed in its transaction
      line.hear();
      return 0;
    });
    ASSERT_TRUE(one.hears('y'));
    const auto addOne = [&, who = second](std::uint64_t key, unsigned long long expected) {
      ChildProcess two([&](const Line&) {
        if (!become(who, who, {kTeam})) return 9;
        Shop shop;
        if (!shop.open(path()) || shop.begin(CZELTA::TransactionShared, 500) != 0) return 1;
        if (shop.add({key, 2, static_cast<std::uint32_t>(key)}) != expected) return 2;
        return expected != 0 || shop.commit() == 0 ? 0 : 3;
      });
      return two.wait();
    };
    EXPECT_EQ(addOne(base + 1000, 0), 0) << "beside the other";
    one.kill();
    EXPECT_EQ(addOne(base, 0), 0) << "what the dead one left is repaired";
    ChildProcess stranger([&](const Line&) {
      CZELTA db;
      if (!become(kBob + 1, kBob + 1)) return 9;
      return db.OpenDatabase(path().c_str()) == 0 ? 1 : 0;
    });
    EXPECT_EQ(stranger.wait(), 0);
  }
}

}  // namespace
}  // namespace zelta::testing
