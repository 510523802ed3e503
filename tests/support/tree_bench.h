// A table with one B+Tree in a file of its own, a model of what the tree must hold, and a checker
// that reads the nodes by their published layout.

#ifndef ZELTA_TESTS_SUPPORT_TREE_BENCH_H
#define ZELTA_TESTS_SUPPORT_TREE_BENCH_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "index/btree/btree.h"
#include "index/btree/cursor.h"
#include "index/btree/node.h"
#include "storage/paged/paged_file.h"
#include "support/storage_fixture.h"

namespace zelta::testing {

/// The words of a key's value, without a length word.
using Words = std::vector<std::uint32_t>;
using TreeModel = std::map<Words, std::uint64_t>;

struct TreeForm {
  bool variable = false;
  bool wideIds = false;
  std::uint32_t keyWords = 2;
  std::uint32_t pageSize = 256;
  PageFile file = PageFile::memory;
};

class TreeBench {
 public:
  explicit TreeBench(TreeForm theForm, std::uint32_t indexes = 1)
      : form(theForm), table(metaData, static_cast<std::uint16_t>(indexes)) {
    const std::size_t bytes = sizeof(CZELTA::Schema) + indexes * sizeof(CZELTA::Schema::Index);
    table.schema = static_cast<CZELTA::Schema*>(std::calloc(1, bytes));
    table.schema->indexes = reinterpret_cast<CZELTA::Schema::Index*>(table.schema + 1);
    table.schema->schemaFlags = form.wideIds ? CZELTA::SchemaWideObjectIds : 0u;
    for (std::uint32_t i = 0; i < indexes; ++i) {
      table.schema->indexes[i].indexFlags = form.variable ? 1 : 0;
      table.schema->indexes[i].keyWords = form.keyWords;
    }
    table.name = std::u16string(1, u'T');
    const auto open = [&](const char* name, platform::File* file) {
      EXPECT_EQ(
          platform::openFile(folder.file(name).c_str(), platform::Disposition::openAlways, file),
          0u);
    };
    open("T.zli", &table.indexFile);
    open("T.zlm", &table.memoryFile);
    indexHeader.pageSize = form.pageSize;
    indexHeader.endOfFile = 1024;
    memoryHeader.pageSize = form.pageSize;
    memoryHeader.endOfFile = kMemoryForm.headerSize(indexes);
    manager = std::make_unique<AtomicManager>(table);
    attach();
  }

  ~TreeBench() { clearError(metaData); }
  TreeBench(const TreeBench&) = delete;
  TreeBench& operator=(const TreeBench&) = delete;

  /// Starts anew with empty files; index pages go straight to the index file.
  void attach() {
    const bool memory = form.file == PageFile::memory;
    manager->attach(table.indexFile, &indexHeader, memory ? table.memoryFile : platform::File::none,
                    memory ? &memoryHeader : nullptr);
  }

  [[nodiscard]] IndexTree tree() const { return {*manager, form.file, 0}; }
  [[nodiscard]] NodeFormat shape() const {
    return {{form.variable, form.keyWords, form.wideIds ? 8u : 4u}};
  }
  [[nodiscard]] Words encode(const Words& words) const {
    Words key;
    if (form.variable) key.push_back(static_cast<std::uint32_t>(words.size() + 1));
    key.insert(key.end(), words.begin(), words.end());
    return key;
  }

  Result insert(const Words& words, std::uint64_t id) {
    return bplusInsert(tree(), encode(words).data(), id);
  }
  Result remove(const Words& words, std::uint64_t id) {
    return bplusRemove(tree(), encode(words).data(), id);
  }
  Result find(const Words& words, std::uint64_t* id) {
    return bplusFind(tree(), encode(words).data(), id);
  }
  [[nodiscard]] std::uint64_t& root() { return manager->treeRoot(form.file, 0); }

  /// The bytes of a node as they stand.
  std::string node(std::uint64_t position) {
    char* page = nullptr;
    if (manager->readPage(form.file, position, &page, checkBuffer_).failed() || page == nullptr) {
      ADD_FAILURE() << "no node at " << position;
      return {};
    }
    std::uint32_t size = 0;
    std::memcpy(&size, page, 4);
    return {page, size};
  }

  /// Changes bytes of a node behind the engine's back.
  void damage(std::uint64_t position, std::size_t offset, const void* bytes, std::size_t length) {
    std::string image = node(position);
    ASSERT_LE(offset + length, image.size());
    char* page = nullptr;
    ASSERT_TRUE(manager->readPage(form.file, position, &page, checkBuffer_).ok());
    std::memcpy(page + offset, bytes, length);
    ASSERT_TRUE(manager->writePage(form.file, position, page).ok());
  }

  struct Facts {
    std::vector<std::uint64_t> leaves;
    std::vector<std::uint32_t> leafKeys;
    std::vector<std::uint64_t> branches;
    std::uint32_t height = 0;
    std::set<Words> separators;
    /// Leaves with another first key than the separator in front of them.
    std::uint32_t looseSeparators = 0;
  };

  /// Checks every node and compares the entries with the model.
  Facts check(const TreeModel& model) {
    Facts facts;
    entries_.clear();
    links_.clear();
    if (root() != 0) checkNode(root(), 0, nullptr, nullptr, facts);
    for (std::size_t i = 0; i < links_.size(); ++i) {
      EXPECT_EQ(links_[i].first, i == 0 ? 0 : facts.leaves[i - 1]) << "previous of leaf " << i;
      EXPECT_EQ(links_[i].second, i + 1 == links_.size() ? 0 : facts.leaves[i + 1])
          << "next of leaf " << i;
    }
    EXPECT_EQ(entries_.size(), model.size());
    auto expected = model.begin();
    for (const auto& entry : entries_) {
      if (expected == model.end()) break;
      EXPECT_EQ(entry.first, expected->first);
      EXPECT_EQ(entry.second, expected->second);
      ++expected;
    }
    if (model.empty()) {
      EXPECT_EQ(root(), 0u);
    }
    return facts;
  }

  TreeForm form;
  FreshFolder folder;
  MetaData metaData;
  Table table;
  IndexFileHeader_tag indexHeader{};
  MemoryFileHeader_tag memoryHeader{};
  std::unique_ptr<AtomicManager> manager;

 private:
  template <class Number>
  static Number at(const std::string& bytes, std::size_t offset) {
    return numberAt<Number>(bytes, offset);
  }

  std::vector<Words> keysOf(const std::string& node, std::size_t& offset, std::uint32_t count) {
    std::vector<Words> keys;
    for (std::uint32_t i = 0; i < count; ++i) {
      std::uint32_t words = form.keyWords;
      if (form.variable) {
        words = at<std::uint32_t>(node, offset) - 1;
        offset += 4;
      }
      Words key;
      for (std::uint32_t w = 0; w < words && offset + 4 <= node.size(); ++w, offset += 4) {
        key.push_back(at<std::uint32_t>(node, offset));
      }
      keys.push_back(key);
    }
    return keys;
  }

  void checkNode(std::uint64_t position, std::uint32_t depth, const Words* low, const Words* high,
                 Facts& facts) {
    ASSERT_LT(depth, 40u);
    ASSERT_NE(position, 0u);
    const std::string bytes = node(position);
    ASSERT_GE(bytes.size(), 32u);
    EXPECT_EQ(bytes.size() % form.pageSize, 0u);
    const std::string tag = bytes.substr(4, 2);
    ASSERT_TRUE(tag == "il" || tag == "ni" || tag == "li" || tag == "in");
    const bool leaf = at<std::uint16_t>(bytes, 4) == 0x6C69;
    const std::uint32_t count = at<std::uint16_t>(bytes, 6);
    const std::size_t idBytes = form.wideIds ? 8 : 4;
    std::size_t offset = (leaf ? 24u : 8u) + (form.variable ? 4u : 0u);
    const std::vector<Words> keys = keysOf(bytes, offset, count);
    const std::size_t back = leaf ? count * idBytes : (count + 1) * 8;
    ASSERT_LE(offset + back, bytes.size());
    if (form.variable) {
      EXPECT_EQ(at<std::uint32_t>(bytes, leaf ? 24 : 8), (bytes.size() - offset - back) / 4);
    }
    for (std::size_t i = offset; i < bytes.size() - back; ++i) ASSERT_EQ(bytes[i], 0) << i;
    for (std::uint32_t i = 0; i < count; ++i) {
      if (i != 0) {
        EXPECT_LT(keys[i - 1], keys[i]);
      }
      if (low != nullptr) {
        EXPECT_GE(keys[i], *low);
      }
      if (high != nullptr) {
        EXPECT_LT(keys[i], *high);
      }
    }
    if (leaf) {
      EXPECT_GT(count, 0u);
      if (facts.height == 0) facts.height = depth + 1;
      EXPECT_EQ(facts.height, depth + 1) << "leaves lie at one depth";
      facts.leaves.push_back(position);
      facts.leafKeys.push_back(count);
      if (low != nullptr && count != 0 && keys[0] != *low) ++facts.looseSeparators;
      links_.emplace_back(at<std::uint64_t>(bytes, 8), at<std::uint64_t>(bytes, 16));
      for (std::uint32_t i = 0; i < count; ++i) {
        std::uint64_t id = 0;
        std::memcpy(&id, bytes.data() + bytes.size() - idBytes * (i + 1), idBytes);
        entries_.emplace_back(keys[i], id);
      }
      return;
    }
    facts.branches.push_back(position);
    facts.separators.insert(keys.begin(), keys.end());
    for (std::uint32_t i = 0; i <= count; ++i) {
      checkNode(at<std::uint64_t>(bytes, bytes.size() - 8 * (i + 1)), depth + 1,
                i == 0 ? low : &keys[i - 1], i == count ? high : &keys[i], facts);
    }
  }

  ScratchBuffer checkBuffer_;
  std::vector<std::pair<Words, std::uint64_t>> entries_;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> links_;
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_SUPPORT_TREE_BENCH_H
