// The language in which lists of words are searched: what an expression is made of, how it is
// parsed, which words its terms match, and how the objects that the terms have found become one
// result.
//
// An expression is not evaluated object by object. Each term collects the objects of all words that
// match it; then the sets are combined. `not` costs no list of all objects: a set can stand for the
// objects that are not in it.

#ifndef ZELTA_INDEX_WORDS_EXPRESSION_H
#define ZELTA_INDEX_WORDS_EXPRESSION_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "frame/result.h"

namespace zelta {

/// What a node of an expression is.
enum class SearchNodeKind : std::uint32_t {
  contains = 1,
  startsWith = 2,
  endsWith = 3,
  equals = 4,
  conjunction = 5,
  disjunction = 6,
  exclusive = 7
};

/// Object IDs in ascending order, each of them once.
using ObjectIds = std::vector<std::uint64_t>;

/// A term, or an operator with its two operands. `Unit`: char or char16_t.
template <typename Unit>
struct SearchNode {
  SearchNode* left = nullptr;   ///< of an operator
  SearchNode* right = nullptr;  ///< of an operator
  SearchNode* next = nullptr;   ///< the next term of the list
  std::basic_string<Unit> text;
  SearchNodeKind kind = SearchNodeKind::contains;
  bool negated = false;   ///< toggled by `not`
  bool inverted = false;  ///< `results` are those that do not match
  /// What a term has found: in any order and more than once while words are looked through. Behind
  /// combineResults() those of the root alone.
  ObjectIds results;

  [[nodiscard]] bool isTerm() const { return kind <= SearchNodeKind::equals; }
};

template <typename Unit>
class SearchExpression {
 public:
  using Node = SearchNode<Unit>;

  SearchExpression() = default;
  SearchExpression(const SearchExpression&) = delete;
  SearchExpression& operator=(const SearchExpression&) = delete;

  /// The first of the terms to be looked for. Not every term of the expression is among them: those
  /// of an operand in parentheses leave the list when an operator follows, and find nothing.
  [[nodiscard]] Node* terms() const { return terms_; }
  [[nodiscard]] const Node& root() const { return *root_; }

  /// Combines what the terms have found into the root's `results`. True: they are those that do not
  /// match.
  bool combineResults();
  /// The result, which the root does not have any more.
  [[nodiscard]] ObjectIds takeResults() { return std::exchange(root_->results, {}); }
  /// Forgets what was found, for another run.
  void clearResults();

 private:
  template <typename>
  friend class ExpressionParser;

  std::deque<Node> nodes_;  ///< all of them, a child behind its parent or in front
  Node* root_ = nullptr;
  Node* terms_ = nullptr;
};

using AsciiExpression = SearchExpression<char>;
using WideExpression = SearchExpression<char16_t>;

/// Parses an expression that ends with a NUL. Own code 63: it makes no sense, or is larger than
/// anybody writes.
Result parseAsciiSearch(MetaData& metaData, const char* text, AsciiExpression* expression);
Result parseWideSearch(MetaData& metaData, const char16_t* text, WideExpression* expression);

/// Whether a term means a word. Both are compared as they stand.
template <typename Unit>
[[nodiscard]] bool matches(const SearchNode<Unit>& term, std::basic_string_view<Unit> word) {
  const std::basic_string_view<Unit> text = term.text;
  switch (term.kind) {
    case SearchNodeKind::contains:
      return !word.empty() && word.find(text) != word.npos;
    case SearchNodeKind::startsWith:
      return word.starts_with(text);
    case SearchNodeKind::endsWith:
      return word.ends_with(text);
    case SearchNodeKind::equals:
      return word == text;
    default:
      return false;
  }
}

}  // namespace zelta

#endif  // ZELTA_INDEX_WORDS_EXPRESSION_H
