// Words that open transactions have locked, which some systems let nobody read: the checker reads
// around them.

#include "check/check_file.h"
#include "check/market.h"

namespace zelta::testing {
namespace {

/// Lets nobody read a word of the control file.
class UnreadableWord : public platform::faults::Hook {
 public:
  explicit UnreadableWord(std::uint64_t position) : position_(position) {
    platform::faults::install(this);
  }
  ~UnreadableWord() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    platform::faults::Verdict verdict;
    if (event.call == platform::faults::Call::read && event.name.ends_with(".zlc") &&
        event.position < position_ + 4 && event.position + event.length > position_) {
      verdict.code = code::kLockViolation;
      ++refused;
    }
    return verdict;
  }
  int refused = 0;

 private:
  std::uint64_t position_;
};

class UnreadableWords : public Market {};

TEST_F(UnreadableWords, AreZeroAndTheirNeighboursAreNot) {
  std::string bytes(300, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(1 + i % 100);
  folder.write("some.zlc", bytes);
  for (const std::uint64_t at : {0u, 101u, 102u, 103u, 104u, 296u}) {
    const UnreadableWord word(at);
    check::CheckFile file(folder.file("some.zlc"));
    const char* seen = file.view(0, bytes.size());
    ASSERT_NE(seen, nullptr);
    std::string expected = bytes;
    expected.replace(at, 4, 4, '\0');
    EXPECT_EQ(std::string(seen, bytes.size()), expected) << at;
    EXPECT_TRUE(file.isLocked(at));
    EXPECT_FALSE(file.isLocked(at == 0 ? 4 : at - 4));
  }
}

TEST_F(UnreadableWords, OfOpenTransactionsAreNoDamage) {
  makeTables();
  CZELTA handle;
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 10000));
  const std::string open = findingsOf(path());
  EXPECT_NE(open, "");
  {
    const UnreadableWord word(folder.bytes("shop.zlc").size() - 4);  // of the only slot
    EXPECT_EQ(findingsOf(path()), open);
    EXPECT_GT(word.refused, 0);
  }
  ASSERT_DONE(handle, handle.EndTransaction());
}

/// Lets nobody read the only slot's lock. Once the checker has read around it, the transaction
/// ends.
class SlotThatGoes : public platform::faults::Hook {
 public:
  SlotThatGoes(const FreshFolder& folder, std::uint64_t slot) : folder_(folder), slot_(slot) {
    platform::faults::install(this);
  }
  ~SlotThatGoes() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    platform::faults::Verdict verdict;
    const bool touches = event.position < slot_ + 8 && event.position + event.length > slot_ + 4;
    if (event.call != platform::faults::Call::read || !event.name.ends_with(".zlc") || !touches) {
      return verdict;
    }
    if (bytesRefused < 4) {
      verdict.code = code::kLockViolation;
      if (event.length == 1) ++bytesRefused;
    } else {
      std::string bytes = folder_.bytes("shop.zlc");
      bytes.replace(slot_, 8, 8, '\0');
      folder_.write("shop.zlc", bytes);
    }
    return verdict;
  }
  int bytesRefused = 0;

 private:
  const FreshFolder& folder_;
  std::uint64_t slot_;
};

TEST_F(UnreadableWords, OfATransactionThatEndsMeanwhileAreNoDamage) {
  makeTables();
  CZELTA handle;
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 10000));
  const std::string open = findingsOf(path());
  {
    const SlotThatGoes slot(folder, folder.bytes("shop.zlc").size() - 8);
    EXPECT_EQ(findingsOf(path()), open);
    EXPECT_EQ(slot.bytesRefused, 4);
  }
  ASSERT_DONE(handle, handle.EndTransaction());
  // A slot that stays as it is, with a state that there is not, is damage.
  folder.write("shop.zlc", folder.bytes("shop.zlc") + std::string("\5\0\0\0\7\0\0\0", 8));
  EXPECT_NE(findingsOf(path()).find("slot in an impossible state"), std::string::npos);
}

}  // namespace
}  // namespace zelta::testing
