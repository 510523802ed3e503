#include "index/words/list_search.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "index/btree/cursor.h"
#include "index/btree/walk.h"
#include "index/search/pending_objects.h"
#include "index/words/expression.h"
#include "index/words/list_walk.h"
#include "index/words/object_words.h"
#include "index/words/posting_chain.h"
#include "index/words/word_entry.h"
#include "schema/index_traits.h"

namespace zelta {

namespace {

Result parse(MetaData& metaData, const void* text, AsciiExpression* expression) {
  return parseAsciiSearch(metaData, static_cast<const char*>(text), expression);
}
Result parse(MetaData& metaData, const void* text, WideExpression* expression) {
  return parseWideSearch(metaData, static_cast<const char16_t*>(text), expression);
}

/// Whether the table's results are those of a list of 16-bit words.
bool hasWideResults(const Table& table) { return isWideList(table.index(table.searchIndex - 1)); }

/// Makes what the terms have found the result.
template <typename Unit>
void combine(SearchExpression<Unit>& expression, FoundObjects& found) {
  found.inverted = expression.combineResults();
  found.ids = SortedIds(expression.takeResults());
}

template <typename Unit>
class ListSearch final : public IndexSearch {
 public:
  using Term = SearchNode<Unit>;
  using Word = std::basic_string_view<Unit>;

  ListSearch(const Table& table, std::uint32_t index)
      : table_(table), index_(index), fields_(table, index) {}

  /// Before run().
  Result prepare(const SearchQuery& query);
  Result run(AtomicManager& manager, FoundObjects& found) override;

 private:
  Result searchTree(const IndexTree& tree);
  Result searchRun(const IndexTree& tree, Term& term);
  Result searchInside(const IndexTree& tree, Term& term);
  Result collect(const IndexTree& tree, WordEntry entry, Term& term);
  void keep(std::uint64_t objectID, Term& term);
  void tidy(Term& term);
  Result searchPending(AtomicManager& manager);

  const Table& table_;
  const std::uint32_t index_;
  const WordFields fields_;
  std::string prefix_;
  SearchExpression<Unit> expression_;
  // Of the term that is looked for
  std::uint64_t pagesLeft_ = 0;  ///< of chains: each belongs to one word
  std::size_t tidyAt_ = 0;       ///< number of IDs
  static constexpr std::size_t kTidyFrom = std::size_t{1} << 20;
};

template <typename Unit>
Result ListSearch<Unit>::prepare(const SearchQuery& query) {
  const std::uint32_t bytes = table_.index(index_).listPrefixBytes;
  if (bytes != 0 && query.key == nullptr) {
    return reportError(&table_.metaData, Own::parameter, table_.cName(), nullptr, query.index);
  }
  if (bytes != 0) prefix_.assign(static_cast<const char*>(query.key), bytes);
  return parse(table_.metaData, query.expression, &expression_);
}

template <typename Unit>
Result ListSearch<Unit>::run(AtomicManager& manager, FoundObjects& found) {
  ZELTA_TRY(fields_.check());
  expression_.clearResults();
  const IndexTree tree(manager, PageFile::index, index_);
  if (tree.root() != 0) ZELTA_TRY(searchTree(tree));
  ZELTA_TRY(searchPending(manager));
  combine(expression_, found);
  return {};
}

/// Goes down to whole words and beginnings, which stand side by side in the list; any other term
/// needs a walk through all words.
template <typename Unit>
Result ListSearch<Unit>::searchTree(const IndexTree& tree) {
  for (Term* term = expression_.terms(); term != nullptr; term = term->next) {
    tidyAt_ = kTidyFrom;
    pagesLeft_ = tree.mostPages();
    const bool sideBySide =
        term->kind == SearchNodeKind::equals || term->kind == SearchNodeKind::startsWith;
    ZELTA_TRY(sideBySide || term->text.empty() ? searchRun(tree, *term)
                                               : searchInside(tree, *term));
  }
  return {};
}

template <typename Unit>
Result ListSearch<Unit>::searchRun(const IndexTree& tree, Term& term) {
  ListWalk<Unit> walk(tree);
  ZELTA_TRY(walk.seek(prefix_, term.text));
  while (walk.valid() && walk.hasPrefix(prefix_) && matches(term, walk.word())) {
    ZELTA_TRY(collect(tree, walk.entry(), term));
    if (term.kind == SearchNodeKind::equals) break;
    ZELTA_TRY(walk.next());
  }
  return {};
}

template <typename Unit>
Result ListSearch<Unit>::searchInside(const IndexTree& tree, Term& term) {
  std::string bytes(reinterpret_cast<const char*>(term.text.data()),
                    term.text.size() * sizeof(Unit));
  if (term.kind == SearchNodeKind::endsWith) bytes.append(sizeof(Unit), '\0');
  ListWalk<Unit> walk(tree);
  ZELTA_TRY(walk.seek(prefix_, {}));
  for (;;) {
    ZELTA_TRY(walk.find(prefix_, bytes));
    if (!walk.valid()) return {};
    ZELTA_TRY(collect(tree, walk.entry(), term));
    ZELTA_TRY(walk.next());
  }
}

/// Takes the objects of a word, less those whose words the running transaction has changed.
template <typename Unit>
Result ListSearch<Unit>::collect(const IndexTree& tree, WordEntry entry, Term& term) {
  if (!entry.isChain()) {
    keep(entry.object(), term);
    return {};
  }
  const bool allCount = table_.editedObjects == nullptr && table_.deletedObjects == nullptr;
  ZELTA_TRY(forEachPostingPage(tree, entry.chain(), &pagesLeft_, [&](const PostingPage& page) {
    if (allCount) return page.appendTo(term.results);
    for (std::uint32_t i = 0; i < page.count(); ++i) keep(page.id(i), term);
  }));
  tidy(term);
  return {};
}

/// Many words may have the same objects: repeats are dropped each time that they may be half of all.
template <typename Unit>
void ListSearch<Unit>::tidy(Term& term) {
  if (term.results.size() < tidyAt_) return;
  SortedIds once(std::move(term.results));
  term.results.assign(once.begin(), once.end());
  tidyAt_ = std::max(kTidyFrom, 2 * term.results.size());
}

template <typename Unit>
void ListSearch<Unit>::keep(std::uint64_t objectID, Term& term) {
  if (find(table_.editedObjects, objectID) != nullptr) return;
  if (find(table_.deletedObjects, objectID) != nullptr) return;
  term.results.push_back(objectID);
}

template <typename Unit>
Result ListSearch<Unit>::searchPending(AtomicManager& manager) {
  WordMaker<Unit> maker;
  std::string prefix;
  return forEachPendingObject(manager, [&](std::uint64_t objectID, const ObjectBytes& object) {
    ZELTA_TRY(fields_.readPrefix(object, &prefix));
    if (prefix != prefix_) return Result();
    for (const WordFields::Segment& segment : fields_.words()) {
      forEachWord<Unit>(fields_, segment, object, maker, [&](Word word) {
        for (Term* term = expression_.terms(); term != nullptr; term = term->next) {
          const bool has = !term->results.empty() && term->results.back() == objectID;
          if (!has && matches(*term, word)) term->results.push_back(objectID);
        }
        return true;
      });
    }
    return Result();
  });
}

/// The texts in keys are looked for as 16-bit units, from the first byte of a key's content and from
/// the second: a key may have its text at either.
class KeyTextSearch final : public IndexSearch {
 public:
  using Term = SearchNode<char16_t>;

  KeyTextSearch(const Table& table, std::uint32_t index) : table_(table), index_(index) {}

  Result prepare(const SearchQuery& query) {
    return parse(table_.metaData, query.expression, &expression_);
  }
  Result run(AtomicManager& manager, FoundObjects& found) override;

 private:
  Result searchTree(const IndexTree& tree);
  [[nodiscard]] bool counts(PageFile file, std::uint64_t objectID) const;
  void unpack(const std::uint32_t* key);
  [[nodiscard]] static std::u16string_view textFrom(const char* bytes, std::size_t length);

  const Table& table_;
  const std::uint32_t index_;
  WideExpression expression_;
  std::string bytes_;        ///< of the key at hand, in the order of memory
  std::u16string texts_[2];  ///< its two readings
};

Result KeyTextSearch::run(AtomicManager& manager, FoundObjects& found) {
  expression_.clearResults();
  for (const PageFile file : {PageFile::index, PageFile::memory}) {
    const IndexTree tree(manager, file, index_);
    if (tree.root() != 0) ZELTA_TRY(searchTree(tree));
  }
  combine(expression_, found);
  return {};
}

/// Whether an entry is one that the running transaction sees.
bool KeyTextSearch::counts(PageFile file, std::uint64_t objectID) const {
  if (file == PageFile::memory) return table_.hasPending(objectID);
  return find(table_.editedObjects, objectID) == nullptr &&
         find(table_.deletedObjects, objectID) == nullptr;
}

void KeyTextSearch::unpack(const std::uint32_t* key) {
  const KeyShape shape = table_.keyShape(index_);
  const std::uint32_t words = shape.variable() ? key[0] : table_.index(index_).keyWords;
  bytes_.clear();
  for (std::uint32_t i = shape.variable() ? 1 : 0; i < words; ++i) {
    for (int shift = 24; shift >= 0; shift -= 8) {
      bytes_.push_back(static_cast<char>(key[i] >> shift));
    }
  }
  for (std::size_t parity = 0; parity < 2; ++parity) {
    texts_[parity].clear();
    for (std::size_t at = parity; at + 2 <= bytes_.size(); at += 2) {
      char16_t unit;
      std::memcpy(&unit, bytes_.data() + at, sizeof unit);
      if (unit == 0) break;
      texts_[parity].push_back(unit);
    }
  }
}

Result KeyTextSearch::searchTree(const IndexTree& tree) {
  BPlusCursor cursor(tree, PageRole::node);
  ZELTA_TRY(cursor.seek(CZELTA::ReadFirst, nullptr));
  while (cursor.valid()) {
    const std::uint64_t objectID = cursor.objectID();
    if (counts(tree.file(), objectID)) {
      unpack(cursor.key());
      for (Term* term = expression_.terms(); term != nullptr; term = term->next) {
        const bool has = matches<char16_t>(*term, texts_[0]) || matches<char16_t>(*term, texts_[1]);
        if (has) term->results.push_back(objectID);
      }
    }
    ZELTA_TRY(cursor.next(true));
  }
  return {};
}

/// Stands for the search of keys by 8-bit words, which there is none of.
class NoKeyTextSearch final : public IndexSearch {
 public:
  Result run(AtomicManager&, FoundObjects&) override { return Result(~std::uint64_t{0}); }
};

template <class Search>
Result makeSearch(const Table& table, const SearchQuery& query,
                  std::unique_ptr<IndexSearch>* search) {
  auto made = std::make_unique<Search>(table, query.index - 1);
  ZELTA_TRY(made->prepare(query));
  *search = std::move(made);
  return {};
}

}  // namespace

Result prepareAsciiSearch(Table& table, const SearchQuery& query,
                          std::unique_ptr<IndexSearch>* search) {
  return makeSearch<ListSearch<char>>(table, query, search);
}

Result prepareWideSearch(Table& table, const SearchQuery& query,
                         std::unique_ptr<IndexSearch>* search) {
  return makeSearch<ListSearch<char16_t>>(table, query, search);
}

Result prepareKeyTextSearch(Table& table, const SearchQuery& query,
                            std::unique_ptr<IndexSearch>* search) {
  if (hasWideResults(table)) return makeSearch<KeyTextSearch>(table, query, search);
  AsciiExpression expression;
  ZELTA_TRY(parse(table.metaData, query.expression, &expression));
  *search = std::make_unique<NoKeyTextSearch>();
  return {};
}

}  // namespace zelta
