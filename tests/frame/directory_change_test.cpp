// Changes of the table directory: their bytes, and changes that are cut off.

#include <algorithm>

#include "frame/directory_fixture.h"

namespace zelta::testing {
namespace {

/// Notes the bytes of all writes to the control file, and what was flushed behind them.
class ControlWrites : public platform::faults::Hook {
 public:
  struct Write {
    std::uint64_t position;
    std::string bytes;
    bool flushed = false;
  };
  ControlWrites() { platform::faults::install(this); }
  ~ControlWrites() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    using platform::faults::Call;
    if (event.name.find(".zlc") == std::string::npos) return {};
    if (event.call == Call::write) {
      writes.push_back(
          {event.position, std::string(static_cast<const char*>(event.data), event.length)});
    }
    if (event.call == Call::flush) {
      for (Write& write : writes) write.flushed = true;
    }
    return {};
  }
  std::vector<Write> writes;
};

// -- Bytes ----------------------------------------------------------------------------------------

TEST_F(DirectoryChangeTest, TheIntentLiesInFortyBytesWithItsImageBehindBothEnds) {
  const std::string before = control();
  const auto end = static_cast<std::uint32_t>(before.size());
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
  SmallSchema small(u"mid", 9, 4);
  ControlWrites seen;
  ASSERT_DONE(handle, handle.CreateTable(&small.schema, nullptr));
  ASSERT_GE(seen.writes.size(), 3u);

  const auto& intent = seen.writes[0];
  ASSERT_EQ(intent.position, 36u);
  ASSERT_EQ(intent.bytes.size(), 40u);
  const std::uint32_t newEnd = end + 8 + 8 + 2 + 8;  // head, "mid", empty path, index record
  const auto at = [&](std::size_t offset) {
    return numberAt<std::uint32_t>(intent.bytes, offset - 36);
  };
  EXPECT_EQ(at(36), 3u);
  EXPECT_EQ(at(40), end);
  EXPECT_EQ(at(48), newEnd);
  EXPECT_EQ(at(56), 33u) << "operation, no suffix";
  EXPECT_EQ(at(60), 9u);
  EXPECT_EQ(at(64), 3u);
  EXPECT_EQ(at(68), (newEnd - 76 - 3 * 8) / 2);
  EXPECT_EQ(at(72), newEnd);

  const auto& image = seen.writes[1];
  EXPECT_EQ(image.position, newEnd) << "a longer directory must not overwrite its image";
  EXPECT_EQ(at(44), newEnd + image.bytes.size());
  EXPECT_EQ(at(52), checksum(intent.bytes.substr(20)) ^ checksum(image.bytes));
  EXPECT_TRUE(image.flushed);

  const auto& second = seen.writes[2];
  EXPECT_EQ(second.position, 36u);
  EXPECT_EQ(numberAt<std::uint32_t>(second.bytes, 20), 34u) << "the table's files are whole";
  EXPECT_EQ(numberAt<std::uint32_t>(second.bytes, 16),
            checksum(second.bytes.substr(20)) ^ checksum(image.bytes));
  EXPECT_TRUE(second.flushed);

  const std::string after = control();
  EXPECT_EQ(after.size(), newEnd);
  EXPECT_EQ(after.substr(76), image.bytes.substr(0, newEnd - 76));
  EXPECT_EQ(word(36), 1u) << "still an exclusive transaction, without a change";
  EXPECT_EQ(tableNames(), (std::vector<std::string>{"goods", "mid", "sales"}));
}

TEST_F(DirectoryChangeTest, TheImageOfARemovalIsTheOldDirectory) {
  const std::string before = control();
  const auto end = static_cast<std::uint32_t>(before.size());
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
  ControlWrites seen;
  ASSERT_DONE(handle, handle.RemoveTable(1, false));
  ASSERT_GE(seen.writes.size(), 2u);
  const std::uint32_t newEnd = end - (8 + 12 + 2 + 8);
  const auto& intent = seen.writes[0];
  EXPECT_EQ(numberAt<std::uint32_t>(intent.bytes, 4), end);
  EXPECT_EQ(numberAt<std::uint32_t>(intent.bytes, 12), newEnd);
  EXPECT_EQ(numberAt<std::uint32_t>(intent.bytes, 20), 35u);
  EXPECT_EQ(seen.writes[1].position, end);
  EXPECT_EQ(seen.writes[1].bytes, before.substr(76));
  EXPECT_EQ(tableNames(), std::vector<std::string>{"sales"});
  EXPECT_EQ(control().size(), newEnd);
}

// -- Changes cut off ------------------------------------------------------------------------------

TEST_F(DirectoryChangeTest, ATableIsMadeOrNotWhereverItsMakerDies) {
  bool without = false;
  bool with = false;
  cutEverywhere(
      [](CZELTA& own) {
        SmallSchema small(u"mid", 9);
        return own.CreateTable(&small.schema, nullptr);
      },
      [&] {
        const auto names = tableNames();
        if (names.size() == 2) {
          without = true;
          EXPECT_FALSE(folder.has("mid.zlt")) << "a file of no table stays behind";
          expectUsable({1, 2});
        } else {
          with = true;
          EXPECT_EQ(names, (std::vector<std::string>{"goods", "mid", "sales"}));
          expectUsable({1, 2, 9});
        }
      });
  EXPECT_TRUE(without && with);
}

TEST_F(DirectoryChangeTest, ATableIsRemovedOrNotWhereverItsRemoverDies) {
  bool without = false;
  bool with = false;
  cutEverywhere([](CZELTA& own) { return own.RemoveTable(1, true); },
                [&] {
                  const auto names = tableNames();
                  if (names.size() == 2) {
                    with = true;
                    EXPECT_TRUE(folder.has("goods.zlt"));
                    expectUsable({1, 2});
                  } else {
                    without = true;
                    EXPECT_EQ(names, std::vector<std::string>{"sales"});
                    EXPECT_FALSE(folder.has("goods.zlt"));
                    expectUsable({2});
                  }
                });
  EXPECT_TRUE(without && with);
}

TEST_F(DirectoryChangeTest, ARemovedTableIsEnteredAgainOrNotWhereverTheProcessDies) {
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
  ASSERT_DONE(handle, handle.RemoveTable(1, false));
  ASSERT_DONE(handle, handle.CloseDatabase());
  ASSERT_TRUE(folder.has("goods.zlt"));
  bool without = false;
  bool with = false;
  cutEverywhere([](CZELTA& own) { return own.AddTable(u"goods", 7, nullptr, 0); },
                [&] {
                  EXPECT_TRUE(folder.has("goods.zlt")) << "its file is not ours to delete";
                  const auto names = tableNames();
                  (names.size() == 2 ? with : without) = true;
                  if (names.size() == 2) expectUsable({2, 7});
                });
  EXPECT_TRUE(without && with);
}

TEST_F(DirectoryChangeTest, ALoggedChangeIsThereOrNotWhereverTheProcessDies) {
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
  ASSERT_DONE(handle, handle.SetDatabaseParameter(CZELTA::ParameterKeepLogFiles, 1));
  ASSERT_DONE(handle, handle.CloseDatabase());
  cutEverywhere([](CZELTA& own) { return own.RemoveTable(1, false); },
                [&] {
                  const auto names = tableNames();
                  // What is out of the directory is in the log.
                  if (names.size() == 1) {
                    EXPECT_NE(folder.bytes("shop.0000.zll").find("ZELS"), std::string::npos);
                  }
                });
}

TEST_F(DirectoryChangeTest, AFailedChangeLeavesTheTransactionUsable) {
  for (std::uint64_t calls = 0;; ++calls) {
    SCOPED_TRACE(calls);
    ASSERT_LT(calls, 60u);
    ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
    SmallSchema small(u"mid", 9);
    // One call fails, all others work.
    class FailOnce : public platform::faults::Hook {
     public:
      explicit FailOnce(std::uint64_t at) : left_(at) { platform::faults::install(this); }
      ~FailOnce() override { platform::faults::install(nullptr); }
      platform::faults::Verdict before(const platform::faults::Event& event) override {
        using platform::faults::Call;
        platform::faults::Verdict verdict;
        if (event.call == Call::write || event.call == Call::truncate ||
            event.call == Call::flush) {
          if (left_-- == 0) {
            verdict.code = code::kDiskFull;
            failed = true;
          }
        }
        return verdict;
      }
      bool failed = false;

     private:
      std::uint64_t left_;
    };
    unsigned long long result = 0;
    bool failed = false;
    {
      FailOnce once(calls);
      result = handle.CreateTable(&small.schema, nullptr);
      failed = once.failed;
    }
    if (result != 0) {
      EXPECT_EQ(result, systemCode(112));
    }
    // Whatever failed: the next change is possible, and ends in a whole directory.
    SmallSchema other(u"other", 11);
    EXPECT_DONE(handle, handle.CreateTable(&other.schema, nullptr));
    ASSERT_DONE(handle, handle.EndTransaction());
    const RawControl raw(control());
    EXPECT_FALSE(raw.pending);
    EXPECT_EQ(raw.state, 0u);
    const bool there = raw.entries.size() == 4;
    EXPECT_TRUE(there || raw.entries.size() == 3);
    EXPECT_EQ(folder.has("mid.zlt"), there);
    if (result == 0) {
      EXPECT_TRUE(there);
    }
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
    if (there) {
      ASSERT_DONE(handle, handle.RemoveTable(9, true));
    }
    ASSERT_DONE(handle, handle.RemoveTable(11, true));
    ASSERT_DONE(handle, handle.CloseDatabase());
    if (!failed) break;
  }
}

// -- Changes that fail, and then are cut off ------------------------------------------------------

/// Fails the n-th changing call, or all from there on, and kills the process `more` calls later.
class FailThenDie : public platform::faults::Hook {
 public:
  static constexpr std::uint64_t kNever = 1000;
  FailThenDie(std::uint64_t calls, std::uint64_t more, bool forGood)
      : calls_(calls), more_(more), forGood_(forGood) {
    platform::faults::install(this);
  }
  ~FailThenDie() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    platform::faults::Verdict verdict;
    if (!changesFiles(event.call)) return verdict;
    const std::uint64_t number = made_++;
    if (number < calls_) return verdict;
    if (more_ != kNever && number == calls_ + more_) {
      verdict.die = true;
      verdict.cutTo = 0;
    } else if (number == calls_ || (forGood_ && event.call != platform::faults::Call::remove)) {
      verdict.code = code::kDeviceError;
    }
    return verdict;
  }
  [[nodiscard]] bool reached() const { return made_ > calls_; }

 private:
  const std::uint64_t calls_;
  const std::uint64_t more_;
  const bool forGood_;
  std::uint64_t made_ = 0;
};

class FailedChange : public DirectoryChangeTest {
 protected:
  /// Runs `work` with each of its calls failing, in a process that ends then or some calls later;
  /// `check` is called after the next opener.
  void failEverywhere(const std::function<unsigned long long(CZELTA&)>& work,
                      const std::function<void(bool done)>& check) {
    const State before = state();
    bool cameThrough = false;
    for (std::uint64_t calls = 0; !cameThrough; ++calls) {
      ASSERT_LT(calls, 60u);
      for (const std::uint64_t more : kDeaths) {
        for (const bool forGood : {false, true}) {
          SCOPED_TRACE("call " + std::to_string(calls) + (forGood ? " and all" : "") +
                       ", dead after " + std::to_string(more));
          restore(before);
          const int ended = inProcess([&] {
            CZELTA own;
            if (own.OpenDatabase(path().c_str()) != 0) return 1;
            if (own.BeginTransaction(CZELTA::TransactionExclusive, 10000) != 0) return 2;
            const FailThenDie hook(calls, more, forGood);
            const bool done = work(own) == 0;
            endProcess(done ? (hook.reached() ? 4 : 0) : 3);
          });
          ASSERT_TRUE(ended == 0 || ended == 3 || ended == 4 || ended == kKilled) << ended;
          cameThrough = ended == 0;
          ASSERT_NO_FATAL_FAILURE(repair());
          ASSERT_NO_FATAL_FAILURE(expectAtRest());
          ASSERT_NO_FATAL_FAILURE(check(ended == 0 || ended == 4));
        }
      }
    }
  }

 private:
  static constexpr std::uint64_t kDeaths[] = {1, 2, 3, 5, FailThenDie::kNever};
};

TEST_F(FailedChange, OfATableThatIsMadeLeavesItWholeOrNothing) {
  failEverywhere(
      [](CZELTA& own) {
        SmallSchema small(u"mid", 9);
        return own.CreateTable(&small.schema, nullptr);
      },
      [&](bool done) {
        if (tableNames().size() == 3) return expectUsable({1, 2, 9});
        EXPECT_FALSE(done);
        EXPECT_FALSE(folder.has("mid.zlt")) << "a file of no table stays behind";
        expectUsable({1, 2});
      });
}

TEST_F(FailedChange, ThatIsLoggedStandsInDirectoryAndLogOrInNone) {
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
  ASSERT_DONE(handle, handle.SetDatabaseParameter(CZELTA::ParameterKeepLogFiles, 1));
  ASSERT_DONE(handle, handle.CloseDatabase());
  failEverywhere(
      [](CZELTA& own) {
        SmallSchema small(u"mid", 9);
        return own.CreateTable(&small.schema, nullptr);
      },
      [&](bool done) {
        if (tableNames().size() == 3) {
          EXPECT_NE(folder.bytes("shop.0000.zll").find("ZELS"), std::string::npos);
          return expectUsable({1, 2, 9});
        }
        EXPECT_FALSE(done);
        EXPECT_FALSE(folder.has("mid.zlt")) << "a file of no table stays behind";
        expectUsable({1, 2});
      });
}

TEST_F(FailedChange, OfATableThatIsRemovedLeavesItWholeOrNothing) {
  failEverywhere([](CZELTA& own) { return own.RemoveTable(1, true); },
                 [&](bool done) {
                   if (tableNames().size() == 1) return expectUsable({2});
                   EXPECT_FALSE(done);
                   expectUsable({1, 2});
                 });
}

TEST_F(FailedChange, OfATableThatIsEnteredLeavesItsFile) {
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
  ASSERT_DONE(handle, handle.RemoveTable(1, false));
  ASSERT_DONE(handle, handle.CloseDatabase());
  failEverywhere([](CZELTA& own) { return own.AddTable(u"goods", 7, nullptr, 0); },
                 [&](bool done) {
                   EXPECT_TRUE(folder.has("goods.zlt"));
                   if (tableNames().size() == 2) return expectUsable({2, 7});
                   EXPECT_FALSE(done);
                   expectUsable({2});
                 });
}

TEST_F(DirectoryChangeTest, TheTextIsThatOfTheFirstFailure) {
  /// The file of the new table is full, and then the control file cannot be written any more.
  class FullThenBroken : public platform::faults::Hook {
   public:
    FullThenBroken() { platform::faults::install(this); }
    ~FullThenBroken() override { platform::faults::install(nullptr); }
    platform::faults::Verdict before(const platform::faults::Event& event) override {
      platform::faults::Verdict verdict;
      if (event.call != platform::faults::Call::write) return verdict;
      const bool control = event.name.find(".zlc") != std::string::npos;
      if (!control) full = true;
      if (full) verdict.code = control ? code::kDeviceError : code::kDiskFull;
      broken = broken || (full && control);
      return verdict;
    }
    bool full = false;
    bool broken = false;
  };
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
  SmallSchema small(u"mid", 9);
  {
    const FullThenBroken hook;
    EXPECT_EQ(handle.CreateTable(&small.schema, nullptr), systemCode(112));
    EXPECT_TRUE(hook.broken);
  }
  EXPECT_EQ(messageOf(handle), "There is not enough space on the disk to complete the operation.");
  EXPECT_FALSE(folder.has("mid.zlt"));
  // What could not be taken back is met, and rolled back, by the next change.
  EXPECT_DONE(handle, handle.CreateTable(&small.schema, nullptr));
  EXPECT_EQ(tableNames(), (std::vector<std::string>{"goods", "mid", "sales"}));
}

// -- Folders of another platform ------------------------------------------------------------------

TEST_F(DirectoryChangeTest, AFolderMayHaveTheSeparatorsOfAnotherPlatform) {
  std::filesystem::create_directory(folder.path() / "idx");
  const std::u16string place = folder.file("idx");
  SmallSchema far(u"far", 5);
  far.schema.tablePath = place.c_str();
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
  ASSERT_DONE(handle, handle.CreateTable(&far.schema, nullptr));
  ASSERT_DONE(handle, handle.CloseDatabase());
  std::string bytes = control();
  const auto stored = [](const std::u16string& text) {
    return std::string(reinterpret_cast<const char*>(text.data()), text.size() * 2);
  };
  std::u16string other = place;
  std::replace(other.begin(), other.end(), platform::kSeparator, u'\\');
  const std::size_t at = bytes.find(stored(place));
  ASSERT_NE(at, std::string::npos);
  bytes.replace(at, other.size() * 2 + 2, stored(other + u'\\'));
  folder.write("shop.zlc", bytes);

  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 0));
  ASSERT_DONE(handle, handle.OpenTable(5));
  const std::uint32_t number = 7;
  EXPECT_EQ(handle.ReadObject(5, CZELTA::ReadEqual, nullptr, 1, &number, nullptr), ownCode(32));
  EXPECT_TRUE(folder.has("idx/far.zli")) << "the index is built when a key is read";
  ASSERT_DONE(handle, handle.EndTransaction());
  EXPECT_EQ(control().substr(76), bytes.substr(76)) << "what is stored stays";
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
  ASSERT_DONE(handle, handle.RemoveTable(5, true));
  EXPECT_FALSE(folder.has("idx/far.zli"));
}

}  // namespace
}  // namespace zelta::testing
