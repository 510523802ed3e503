// The tree of a list and its chains of objects: random changes, word by word, held against a plain
// map; all pages are read by their published layout.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "index/tree_model.h"
#include "index/words/word_changes.h"
#include "index/words/word_entry.h"
#include "support/tree_bench.h"

namespace zelta::testing {
namespace {

using Ids = std::set<std::uint64_t>;
/// By the bytes of a key without its terminator; no objects: a stop word.
using Words = std::map<std::string, Ids>;

struct ListForm {
  bool wide = false;
  bool wideIds = false;
  std::uint32_t pageSize = 64;
  std::uint32_t prefix = 0;
};

class ListBench {
 public:
  explicit ListBench(ListForm theForm)
      : form(theForm), bench({false, form.wideIds, 1, form.pageSize, PageFile::index}) {
    bench.table.schema->indexes[0].listPrefixBytes = static_cast<std::uint16_t>(form.prefix);
  }

  [[nodiscard]] TextNodeFormat format() const { return {form.prefix, form.wide}; }
  [[nodiscard]] std::string terminator() const { return std::string(form.wide ? 2 : 1, '\0'); }
  void setPower(std::uint8_t power) { bench.table.schema->indexes[0].maximumObjectPower = power; }

  Result apply(const std::string& word, const std::vector<WordChange>& changes,
               ContentMode mode = ContentMode::once) {
    const std::string key = word + terminator();
    WordWriter writer(bench.tree(), format(), mode);
    ZELTA_TRY(give(writer, key, changes));
    return writer.finish();
  }
  /// Many words at once, in the order of the list.
  Result apply(const std::map<std::string, std::vector<WordChange>>& words) {
    WordWriter writer(bench.tree(), format(), ContentMode::once);
    std::vector<std::string> keys;
    for (const auto& [word, changes] : words) keys.push_back(word);
    std::sort(keys.begin(), keys.end(),
              [&](const std::string& a, const std::string& b) { return isBelow(a, b); });
    for (const std::string& key : keys) {
      ZELTA_TRY(give(writer, key + terminator(), words.at(key)));
    }
    return writer.finish();
  }

  struct Facts {
    std::uint32_t leaves = 0;
    std::uint32_t branches = 0;
    std::uint32_t height = 0;
    std::uint32_t overflowPages = 0;
  };
  /// Checks every page, and that the pages and the free space are all that the file has.
  Facts check(const Words& model) {
    Facts facts;
    found_.clear();
    links_.clear();
    leaves_.clear();
    used_.clear();
    if (bench.root() != 0) checkNode(bench.root(), 0, nullptr, nullptr, facts);
    for (std::size_t i = 0; i < links_.size(); ++i) {
      EXPECT_EQ(links_[i].first, i == 0 ? 0 : leaves_[i - 1]);
      EXPECT_EQ(links_[i].second, i + 1 == links_.size() ? 0 : leaves_[i + 1]);
    }
    EXPECT_EQ(found_.size(), model.size());
    EXPECT_TRUE(found_ == model);
    return facts;
  }
  /// Pages in use, as the last check has seen them: position and size.
  [[nodiscard]] const std::map<std::uint64_t, std::uint64_t>& used() const { return used_; }

  ListForm form;
  TreeBench bench;

 private:
  static Result give(WordWriter& writer, const std::string& key,
                     const std::vector<WordChange>& changes) {
    return writer.apply({key.c_str(), changes});
  }
  [[nodiscard]] bool isBelow(const std::string& a, const std::string& b) const {
    if (!form.wide) return a < b;
    const std::string p = a.substr(0, form.prefix);
    const std::string q = b.substr(0, form.prefix);
    return p != q ? p < q : units(a) < units(b);
  }
  [[nodiscard]] std::u16string units(const std::string& key) const {
    std::u16string out((key.size() - form.prefix) / 2, 0);
    std::memcpy(out.data(), key.data() + form.prefix, out.size() * 2);
    return out;
  }
  std::vector<std::string> keysOf(const std::string& bytes, std::size_t& at, std::uint32_t count) {
    std::vector<std::string> keys;
    for (std::uint32_t i = 0; i < count; ++i) {
      std::size_t end = at + form.prefix;
      while (end + terminator().size() <= bytes.size() &&
             bytes.substr(end, terminator().size()) != terminator()) {
        end += terminator().size();
      }
      keys.push_back(bytes.substr(at, end - at));
      at = end + terminator().size();
    }
    return keys;
  }
  void take(std::uint64_t position, std::size_t size) {
    EXPECT_EQ(size % form.pageSize, 0u);
    EXPECT_TRUE(used_.emplace(position, size).second) << "page " << position << " is there twice";
  }

  void checkNode(std::uint64_t position, std::uint32_t depth, const std::string* low,
                 const std::string* high, Facts& facts) {
    ASSERT_LT(depth, 40u);
    const std::string bytes = bench.node(position);
    take(position, bytes.size());
    const bool leaf = numberAt<std::uint16_t>(bytes, 4) == 0x6C69;
    ASSERT_TRUE(leaf || numberAt<std::uint16_t>(bytes, 4) == 0x6E69);
    const std::uint32_t count = numberAt<std::uint16_t>(bytes, 6);
    std::size_t at = leaf ? 28 : 12;
    const std::vector<std::string> keys = keysOf(bytes, at, count);
    const std::size_t back = std::size_t{8} * (leaf ? count : count + 1);
    ASSERT_LE(at + back, bytes.size());
    EXPECT_EQ(numberAt<std::uint32_t>(bytes, leaf ? 24 : 8), bytes.size() - at - back);
    for (std::size_t i = at; i < bytes.size() - back; ++i) ASSERT_EQ(bytes[i], 0) << i;
    for (std::uint32_t i = 0; i < count; ++i) {
      EXPECT_TRUE(i == 0 || isBelow(keys[i - 1], keys[i]));
      EXPECT_TRUE(low == nullptr || !isBelow(keys[i], *low));
      EXPECT_TRUE(high == nullptr || isBelow(keys[i], *high));
    }
    if (!leaf) {
      ++facts.branches;
      for (std::uint32_t i = 0; i <= count; ++i) {
        checkNode(numberAt<std::uint64_t>(bytes, bytes.size() - 8 * (i + 1)), depth + 1,
                  i == 0 ? low : &keys[i - 1], i == count ? high : &keys[i], facts);
      }
      return;
    }
    ++facts.leaves;
    EXPECT_GT(count, 0u);
    if (facts.height == 0) facts.height = depth + 1;
    EXPECT_EQ(facts.height, depth + 1);
    leaves_.push_back(position);
    links_.emplace_back(numberAt<std::uint64_t>(bytes, 8), numberAt<std::uint64_t>(bytes, 16));
    for (std::uint32_t i = 0; i < count; ++i) {
      const auto value = numberAt<std::uint64_t>(bytes, bytes.size() - 8 * (i + 1));
      found_[keys[i]] = objectsOf(value, facts);
    }
  }

  Ids objectsOf(std::uint64_t value, Facts& facts) {
    if (value == ~std::uint64_t{0}) return {};
    if ((value >> 63) != 0) return {value & (~std::uint64_t{0} >> 1)};
    Ids ids;
    const std::size_t width = form.wideIds ? 8 : 4;
    for (std::uint64_t position = value; position != 0;) {
      const std::string bytes = bench.node(position);
      take(position, bytes.size());
      ++facts.overflowPages;
      EXPECT_EQ(bytes.size(), form.pageSize);
      EXPECT_EQ(numberAt<std::uint16_t>(bytes, 4), 0x6269);
      const std::size_t count = numberAt<std::uint16_t>(bytes, 6);
      EXPECT_LE(16 + count * width, bytes.size());
      for (std::size_t i = 0; i < count; ++i) {
        std::uint64_t id = 0;
        std::memcpy(&id, bytes.data() + 16 + i * width, width);
        EXPECT_TRUE(ids.insert(id).second) << "object " << id << " is there twice";
      }
      for (std::size_t i = 16 + count * width; i < bytes.size(); ++i) EXPECT_EQ(bytes[i], 0);
      position = numberAt<std::uint64_t>(bytes, 8);
    }
    EXPECT_FALSE(ids.empty());
    return ids;
  }

  Words found_;
  std::vector<std::uint64_t> leaves_;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> links_;
  std::map<std::uint64_t, std::uint64_t> used_;
};

class ListTree : public ::testing::TestWithParam<ListForm> {
 protected:
  ListTree() : list(GetParam()) {
    seed = std::random_device{}();
    random.seed(seed);
  }
  std::uint32_t below(std::uint32_t n) { return static_cast<std::uint32_t>(random() % n); }
  std::string word() {
    const std::uint32_t kind = below(40);
    const std::uint32_t length = kind == 0 ? 1 + below(600) : 1 + below(kind < 10 ? 24 : 4);
    std::string out;
    for (std::uint32_t i = 0; i < GetParam().prefix; ++i) {
      out.push_back(static_cast<char>(below(3)));  // zeros as well
    }
    for (std::uint32_t i = 0; i < length; ++i) {
      out.push_back(static_cast<char>(below(12) == 0 ? 0x80 + below(128) : 'a' + below(8)));
      if (GetParam().wide) out.push_back(static_cast<char>(below(3)));
    }
    return out;
  }
  /// One to `most` changes that the model allows, and makes.
  std::vector<WordChange> changesOf(const std::string& word, std::uint32_t most, bool growing) {
    std::vector<WordChange> changes;
    for (std::uint32_t n = 1 + below(most); n != 0; --n) {
      auto there = model.find(word);
      const bool has = there != model.end() && !there->second.empty();
      if (has && (growing ? below(4) == 0 : below(4) != 0)) {
        const std::uint64_t id = *std::next(
            there->second.begin(), below(static_cast<std::uint32_t>(there->second.size())));
        changes.push_back({id, false});
        there->second.erase(id);
        if (there->second.empty()) model.erase(there);
        continue;
      }
      if (!growing && !has) continue;
      const std::uint64_t id = 1 + below(5000);
      if (has && there->second.count(id) != 0) continue;
      changes.push_back({id, true});
      model[word].insert(id);
    }
    return changes;
  }

  void undo(const std::string& word, const std::vector<WordChange>& changes) {
    for (auto change = changes.rbegin(); change != changes.rend(); ++change) {
      if (change->gains()) {
        model[word].erase(change->objectID());
        if (model[word].empty()) model.erase(word);
      } else {
        model[word].insert(change->objectID());
      }
    }
  }

  ListBench list;
  Words model;
  std::mt19937 random;
  unsigned seed = 0;
};

TEST_P(ListTree, HoldsWhatAPlainMapHolds) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::uint32_t height = 0;
  std::map<std::string, std::vector<WordChange>> batch;
  for (int round = 0; round < 4 && !HasFailure(); ++round) {
    for (int step = 0; step < 700 && !HasFailure(); ++step) {
      const bool growing = round % 2 == 0;
      const bool known = !model.empty() && below(3) != 0;
      const std::string chosen =
          known ? std::next(model.begin(), below(static_cast<std::uint32_t>(model.size())))->first
                : word();
      const std::vector<WordChange> changes = changesOf(chosen, below(10) == 0 ? 60 : 3, growing);
      if (changes.empty() || batch.count(chosen) != 0) {
        undo(chosen, changes);
        continue;
      }
      batch[chosen] = changes;
      if (below(8) != 0 && step % 50 != 0) continue;
      ASSERT_TRUE(list.apply(batch).ok()) << step;
      batch.clear();
      if (step % 50 == 0) height = std::max(height, list.check(model).height);
    }
    ASSERT_TRUE(list.apply(batch).ok());
    batch.clear();
    list.check(model);
  }
  EXPECT_GT(height, 1u);
  while (!model.empty() && !HasFailure()) {
    const auto chosen = std::next(model.begin(), below(static_cast<std::uint32_t>(model.size())));
    std::vector<WordChange> changes;
    for (const std::uint64_t id : chosen->second) changes.push_back({id, false});
    std::shuffle(changes.begin(), changes.end(), random);
    ASSERT_TRUE(list.apply(chosen->first, changes).ok());
    model.erase(chosen);
    if (below(50) == 0) list.check(model);
  }
  list.check(model);
  EXPECT_EQ(list.bench.root(), 0u);
  std::uint64_t end = 0;
  ASSERT_TRUE(
      list.bench.manager->indexFreeSpace.merge(list.bench.manager->indexEndOfFile, &end).ok());
  EXPECT_EQ(end, 1024u) << "pages were lost";
}

/// Changes that come one by one, or all together, leave a word with the same objects.
TEST_P(ListTree, TakesChangesTogetherAsOneByOne) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  ListBench other(GetParam());
  const std::string chosen(GetParam().prefix + 2, 'w');
  for (int round = 0; round < 30 && !HasFailure(); ++round) {
    const std::vector<WordChange> changes = changesOf(chosen, 80, round < 15);
    if (changes.empty()) continue;
    ASSERT_TRUE(list.apply(chosen, changes).ok());
    for (const WordChange& change : changes) ASSERT_TRUE(other.apply(chosen, {change}).ok());
    const ListBench::Facts together = list.check(model);
    EXPECT_EQ(together.overflowPages, other.check(model).overflowPages);
  }
}

TEST_P(ListTree, RefusesWhatCannotBe) {
  const std::string w(GetParam().prefix + 2, 'w');
  EXPECT_TRUE(list.apply(w, {{7, false}}).ok()) << "a word that is not there may be lost";
  ASSERT_TRUE(list.apply(w, {{7, true}}).ok());
  EXPECT_TRUE(list.apply(w, {{7, true}}).is(Own::keyExists));
  EXPECT_TRUE(list.apply(w, {{8, false}}).is(Own::keyNotFound));
  EXPECT_TRUE(list.apply(w, {{7, true}, {8, false}}, ContentMode::repeated).ok());
  ASSERT_TRUE(list.apply(w, {{8, true}}).ok());
  EXPECT_TRUE(list.apply(w, {{7, true}}).is(Own::keyExists));
  EXPECT_TRUE(list.apply(w, {{9, false}}).is(Own::keyNotFound));
  EXPECT_TRUE(list.apply(w, {{8, true}, {9, false}}, ContentMode::repeated).ok());
  list.check({{w, {7, 8}}});
}

TEST_P(ListTree, GivesUpTheObjectsOfAWordThatTooManyHave) {
  list.setPower(4);
  const std::string w(GetParam().prefix + 2, 'w');
  const std::uint32_t width = GetParam().wideIds ? 8 : 4;
  const std::uint32_t capacity = (GetParam().pageSize - 16) / width;
  Ids ids;
  std::uint64_t id = 0;
  // Pages are added while they hold 16 objects at most; the last one must be full as well.
  while (!HasFailure()) {
    ASSERT_TRUE(list.apply(w, {{++id, true}}).ok());
    if (list.bench.manager == nullptr || id > 1000) break;
    ids.insert(id);
    const std::string leaf = list.bench.node(list.bench.root());
    if (numberAt<std::uint64_t>(leaf, leaf.size() - 8) == ~std::uint64_t{0}) break;
    if (id % 5 == 0) list.check({{w, ids}});
  }
  EXPECT_GT(id, 16u);
  EXPECT_LE(id, 16u + 2 * capacity + 1);
  const ListBench::Facts facts = list.check({{w, {}}});
  EXPECT_EQ(facts.overflowPages, 0u);
  EXPECT_TRUE(list.apply(w, {{1, false}, {id + 1, true}, {id + 1, true}}).ok());
  list.check({{w, {}}});
}

/// When the first page of a chain loses its last object, the next one takes its place.
TEST_P(ListTree, KeepsTheRestOfAChainThatLosesItsFirstPage) {
  const std::string w(GetParam().prefix + 2, 'w');
  for (std::uint64_t id = 1; id <= 200; ++id) ASSERT_TRUE(list.apply(w, {{id, true}}).ok());
  for (std::uint64_t id = 1; id <= 200 && !HasFailure(); ++id) {
    ASSERT_TRUE(list.apply(w, {{id, false}}).ok());
    if (id % 7 != 0 && id < 190) continue;
    Ids left;
    for (std::uint64_t rest = id + 1; rest <= 200; ++rest) left.insert(rest);
    list.check(left.empty() ? Words{} : Words{{w, left}});
  }
  EXPECT_EQ(list.bench.root(), 0u);
}

TEST_P(ListTree, ReportsDamagedPages) {
  const std::string w(GetParam().prefix + 2, 'w');
  ASSERT_TRUE(list.apply(w, {{1, true}, {2, true}, {3, true}}).ok());
  const std::string leaf = list.bench.node(list.bench.root());
  const auto chain = numberAt<std::uint64_t>(leaf, leaf.size() - 8);
  const std::string page = list.bench.node(chain);
  const auto damaged = [&](std::uint64_t position, std::size_t at, std::uint64_t value,
                           std::size_t bytes, Own code) {
    const std::string before = list.bench.node(position).substr(at, bytes);
    list.bench.damage(position, at, &value, bytes);
    EXPECT_TRUE(list.apply(w, {{4, true}}).is(code)) << at;
    EXPECT_TRUE(list.apply(w, {{2, false}}).is(code)) << at;
    list.bench.damage(position, at, before.data(), bytes);
  };
  damaged(list.bench.root(), 4, 0x6262, 2, Own::wordTree);
  damaged(list.bench.root(), 6, 0xFFFF, 2, Own::wordTree);
  damaged(list.bench.root(), 6, 0, 2, Own::wordTree);
  damaged(list.bench.root(), 24, 0xFFFFFFF0, 4, Own::wordTree);
  damaged(list.bench.root(), 24, 1, 4, Own::wordTree);
  damaged(chain, 4, 0x6262, 2, Own::postings);
  damaged(chain, 6, 0xFFFF, 2, Own::postings);
  damaged(chain, 8, chain, 8, Own::postings);
  damaged(list.bench.root(), leaf.size() - 8, 0, 8, Own::postings);
  list.check({{w, {1, 2, 3}}});
}

/// The count of a page has 16 bits, however large its page is.
TEST(ListPages, HoldNoMoreObjectsThanTheyCanCount) {
  constexpr std::uint64_t kMost = 0xFFFF;
  ListBench list({false, false, 1 << 19, 0});
  std::vector<WordChange> changes;
  Ids ids;
  for (std::uint64_t id = 1; id <= kMost + 3; ++id) {
    changes.push_back({id, true});
    ids.insert(id);
  }
  ASSERT_TRUE(list.apply("w", changes).ok());
  EXPECT_EQ(list.check({{"w", ids}}).overflowPages, 2u);
  // What is left of both would fit into one page by its bytes.
  std::vector<WordChange> losses;
  for (std::uint64_t id = 1; id <= kMost; id += 2) {
    losses.push_back({id, false});
    ids.erase(id);
  }
  ASSERT_TRUE(list.apply("w", losses).ok());
  list.check({{"w", ids}});
}

INSTANTIATE_TEST_SUITE_P(
    Forms, ListTree,
    ::testing::Values(ListForm{}, ListForm{true, false, 64, 0}, ListForm{false, true, 72, 3},
                      ListForm{true, true, 48, 4}, ListForm{false, false, 512, 2},
                      ListForm{true, false, 40, 1}),
    [](const auto& form) {
      return std::string(form.param.wide ? "wide" : "narrow") + std::to_string(form.param.pageSize);
    });

}  // namespace
}  // namespace zelta::testing
