// Parses and evaluates expressions without recursion: how deep one nests is up to whoever wrote it.

#include "index/words/expression.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <iterator>
#include <utility>

#include "platform/text.h"

namespace zelta {

namespace {

bool isBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool isBlank(char16_t c) { return platform::isSpace(c); }

template <typename Unit>
Unit lower(Unit c) {
  return c >= 'A' && c <= 'Z' ? static_cast<Unit>(c + ('a' - 'A')) : c;
}

}  // namespace

/// Reads an expression from left to right. There is no precedence: `a and b or c` is a and (b or c).
template <typename Unit>
class ExpressionParser {
 public:
  using Node = SearchNode<Unit>;
  using Text = std::basic_string_view<Unit>;

  ExpressionParser(Text text, SearchExpression<Unit>& expression)
      : at_(text.data()), end_(at_ + text.size()), out_(expression) {}

  /// False: the text makes no sense.
  [[nodiscard]] bool run();

 private:
  /// What waits for an operand. An operand goes to `*place`; the terms in it go to `*terms`.
  struct Level {
    enum class Step : std::uint8_t { first, rightOfTerm, inParentheses, rightOfGroup };
    Step step = Step::first;
    bool negate = false;
    Node** place = nullptr;
    Node** terms = nullptr;
    Node* node = nullptr;  ///< the operator, which in front of a group is still to be read
  };

  [[nodiscard]] bool atEnd() const { return at_ == end_; }
  /// At the end of the text or of a group.
  [[nodiscard]] bool atClose() const { return atEnd() || *at_ == ')'; }
  void skipBlanks() {
    while (!atEnd() && isBlank(*at_)) ++at_;
  }
  /// Steps over a word of the language, and the blanks behind it.
  bool takeKeyword(std::string_view word);
  SearchNodeKind takeOperator();
  /// The text of a term, into `term`.
  [[nodiscard]] bool readTerm(Node& term);
  [[nodiscard]] bool readQuoted(Node& term);

  Node* newNode();
  bool push(Node** place, Node** terms);
  /// The steps of one level: each either descends to an operand by another level, ends its own level
  /// with `done_`, or fails.
  [[nodiscard]] bool begin(Level& level);
  [[nodiscard]] bool afterTerm(Level& level);
  [[nodiscard]] bool afterGroup(Level& level);
  void afterRightOfTerm(Level& level);
  void afterRightOfGroup(Level& level);
  void dropGroupOperator(Level& level);

  /// More nodes than anybody writes; memory and time stay within bounds.
  static constexpr std::size_t kMostNodes = 100000;

  const Unit* at_;
  const Unit* const end_;
  SearchExpression<Unit>& out_;
  std::vector<Level> levels_;
};

template <typename Unit>
bool ExpressionParser<Unit>::takeKeyword(std::string_view word) {
  if (static_cast<std::size_t>(end_ - at_) < word.size()) return false;
  for (std::size_t i = 0; i < word.size(); ++i) {
    if (lower(at_[i]) != static_cast<Unit>(word[i])) return false;
  }
  const Unit* behind = at_ + word.size();
  if (behind != end_ && !isBlank(*behind) && *behind != '(' && *behind != ')') return false;
  at_ = behind;
  skipBlanks();
  return true;
}

/// Two operands side by side both have to match.
template <typename Unit>
SearchNodeKind ExpressionParser<Unit>::takeOperator() {
  if (takeKeyword("and")) return SearchNodeKind::conjunction;
  if (takeKeyword("or")) return SearchNodeKind::disjunction;
  if (takeKeyword("xor")) return SearchNodeKind::exclusive;
  return SearchNodeKind::conjunction;
}

template <typename Unit>
bool ExpressionParser<Unit>::readTerm(Node& term) {
  if (*at_ == '"') return readQuoted(term);
  const Unit* start = at_;
  while (!atClose() && !isBlank(*at_)) ++at_;
  term.kind = SearchNodeKind::contains;
  term.text.assign(start, at_);
  return true;
}

/// A blank at either end says that the word begins or ends there, and is cut.
template <typename Unit>
bool ExpressionParser<Unit>::readQuoted(Node& term) {
  std::basic_string<Unit>& text = term.text;
  for (++at_;; ++at_) {
    if (atEnd()) return false;
    if (*at_ == '"') break;
    if (*at_ == '\\' && at_ + 1 != end_ && at_[1] == '"') ++at_;
    text += *at_;
  }
  ++at_;
  if (text.empty()) return false;
  const bool blankFirst = isBlank(text.front());
  const bool blankLast = isBlank(text.back());
  if (text.size() == 1 && blankFirst) return false;
  const bool onlyBlanks = text.size() == 2 && blankFirst && blankLast;
  if (blankLast) text.pop_back();
  if (blankFirst) text.erase(0, 1);
  if (onlyBlanks) {
    term.kind = SearchNodeKind::startsWith;
  } else if (blankFirst) {
    term.kind = blankLast ? SearchNodeKind::equals : SearchNodeKind::startsWith;
  } else {
    term.kind = blankLast ? SearchNodeKind::endsWith : SearchNodeKind::contains;
  }
  return true;
}

template <typename Unit>
SearchNode<Unit>* ExpressionParser<Unit>::newNode() {
  return &out_.nodes_.emplace_back();
}

template <typename Unit>
bool ExpressionParser<Unit>::push(Node** place, Node** terms) {
  if (levels_.size() >= kMostNodes || out_.nodes_.size() >= kMostNodes) return false;
  Level level;
  level.place = place;
  level.terms = terms;
  levels_.push_back(level);
  return true;
}

template <typename Unit>
bool ExpressionParser<Unit>::run() {
  if (!push(&out_.root_, &out_.terms_)) return false;
  while (!levels_.empty()) {
    // A step that descends adds a level, and its own may move.
    Level& level = levels_.back();
    const std::size_t depth = levels_.size();
    switch (level.step) {
      case Level::Step::first:
        if (!begin(level)) return false;
        break;
      case Level::Step::inParentheses:
        if (!afterGroup(level)) return false;
        break;
      case Level::Step::rightOfTerm:
        afterRightOfTerm(level);
        break;
      case Level::Step::rightOfGroup:
        afterRightOfGroup(level);
        break;
    }
    // Nothing was added: the level has its operand.
    if (levels_.size() == depth) levels_.pop_back();
  }
  return true;
}

template <typename Unit>
bool ExpressionParser<Unit>::begin(Level& level) {
  skipBlanks();
  level.negate = takeKeyword("not");
  if (atClose()) return false;
  level.node = newNode();
  if (*at_ == '(') {
    ++at_;
    level.step = Level::Step::inParentheses;
    return push(&level.node->left, level.terms);
  }
  if (!readTerm(*level.node)) return false;
  *level.place = *level.terms = level.node;
  skipBlanks();
  return afterTerm(level);
}

template <typename Unit>
bool ExpressionParser<Unit>::afterTerm(Level& level) {
  Node* term = level.node;
  if (atClose()) {
    term->negated = level.negate;
    return true;
  }
  level.node = newNode();
  level.node->left = term;
  *level.place = level.node;
  level.node->kind = takeOperator();
  // A term that was negated is as good as one that was not.
  term->negated = level.negate;
  if (atClose()) return false;
  level.negate = takeKeyword("not");
  if (atClose()) return false;
  level.step = Level::Step::rightOfTerm;
  return push(&level.node->right, &term->next);
}

template <typename Unit>
void ExpressionParser<Unit>::afterRightOfTerm(Level& level) {
  if (level.negate) level.node->right->negated = !level.node->right->negated;
}

/// A group without an operator behind it is what is in it.
template <typename Unit>
void ExpressionParser<Unit>::dropGroupOperator(Level& level) {
  *level.place = level.node->left;
  if (level.negate) level.node->left->negated = !level.node->left->negated;
}

template <typename Unit>
bool ExpressionParser<Unit>::afterGroup(Level& level) {
  skipBlanks();
  if (!atEnd() && *at_ == ')') {
    ++at_;
    skipBlanks();
  }
  if (atClose()) {
    dropGroupOperator(level);
    return true;
  }
  level.node->kind = takeOperator();
  if (level.negate) level.node->left->negated = !level.node->left->negated;
  level.negate = false;
  if (!atClose()) level.negate = takeKeyword("not");
  if (atClose()) {
    dropGroupOperator(level);
    return true;
  }
  // What was written so is searched so: the first character behind the operator does not count.
  if (*at_ != '(') {
    ++at_;
    skipBlanks();
  }
  level.step = Level::Step::rightOfGroup;
  return push(&level.node->right, level.terms);
}

template <typename Unit>
void ExpressionParser<Unit>::afterRightOfGroup(Level& level) {
  *level.place = level.node;
  if (level.negate) level.node->negated = !level.node->negated;
}

// -- Results --------------------------------------------------------------------------------------

namespace {

/// Whether a node stands for the objects that are not in its set.
template <typename Unit>
bool isComplement(const SearchNode<Unit>& node) {
  return node.negated != node.inverted;
}

enum class SetOperation : std::uint8_t { both, either, leftOnly, rightOnly, onlyOne };

ObjectIds combine(SetOperation operation, const ObjectIds& left, const ObjectIds& right) {
  ObjectIds out;
  const auto into = std::back_inserter(out);
  switch (operation) {
    case SetOperation::both:
      std::set_intersection(left.begin(), left.end(), right.begin(), right.end(), into);
      break;
    case SetOperation::either:
      std::set_union(left.begin(), left.end(), right.begin(), right.end(), into);
      break;
    case SetOperation::leftOnly:
      std::set_difference(left.begin(), left.end(), right.begin(), right.end(), into);
      break;
    case SetOperation::rightOnly:
      std::set_difference(right.begin(), right.end(), left.begin(), left.end(), into);
      break;
    case SetOperation::onlyOne:
      std::set_symmetric_difference(left.begin(), left.end(), right.begin(), right.end(), into);
      break;
  }
  return out;
}

struct Rule {
  SetOperation operation;
  bool inverted;
};

/// By operator, and by whether the left and the right operand are complements. Not every row is the
/// algebra that the words suggest: searches have always been answered so, and are relied upon.
constexpr Rule kRules[3][2][2] = {
    {{{SetOperation::both, false}, {SetOperation::leftOnly, false}},
     {{SetOperation::rightOnly, false}, {SetOperation::onlyOne, false}}},
    {{{SetOperation::either, false}, {SetOperation::rightOnly, true}},
     {{SetOperation::leftOnly, false}, {SetOperation::both, false}}},
    {{{SetOperation::onlyOne, false}, {SetOperation::both, false}},
     {{SetOperation::both, false}, {SetOperation::onlyOne, true}}},
};

template <typename Unit>
void evaluate(SearchNode<Unit>& node) {
  if (node.isTerm()) {
    node.inverted = node.negated;
    std::sort(node.results.begin(), node.results.end());
    node.results.erase(std::unique(node.results.begin(), node.results.end()), node.results.end());
    return;
  }
  constexpr auto kFirst = static_cast<std::uint32_t>(SearchNodeKind::conjunction);
  const Rule rule = kRules[static_cast<std::uint32_t>(node.kind) - kFirst][isComplement(*node.left)]
                          [isComplement(*node.right)];
  node.results = combine(rule.operation, node.left->results, node.right->results);
  node.inverted = rule.inverted;
  node.left->results = {};
  node.right->results = {};
}

}  // namespace

template <typename Unit>
bool SearchExpression<Unit>::combineResults() {
  // Parents in front of their children; then the other way round.
  std::vector<Node*> order = {root_};
  for (std::size_t i = 0; i < order.size(); ++i) {
    Node* node = order[i];
    if (node->isTerm()) continue;
    order.push_back(node->left);
    order.push_back(node->right);
  }
  for (auto node = order.rbegin(); node != order.rend(); ++node) evaluate(**node);
  return isComplement(*root_);
}

template <typename Unit>
void SearchExpression<Unit>::clearResults() {
  for (Node& node : nodes_) {
    node.results.clear();
    node.inverted = false;
  }
}

template class SearchExpression<char>;
template class SearchExpression<char16_t>;

namespace {

/// A text that ends nowhere within this many units is none.
constexpr std::size_t kLongestExpression = std::size_t{1} << 24;

template <typename Unit>
bool parse(const Unit* text, SearchExpression<Unit>& expression) {
  std::size_t length = 0;
  while (length < kLongestExpression && text[length] != 0) ++length;
  if (length == kLongestExpression) return false;
  return ExpressionParser<Unit>({text, length}, expression).run();
}

}  // namespace

Result parseAsciiSearch(MetaData& metaData, const char* text, AsciiExpression* expression) {
  if (parse(text, *expression)) return {};
  // Text without an end is not looked at any further here.
  const auto* end = static_cast<const char*>(std::memchr(text, 0, kLongestExpression));
  const auto length = end == nullptr ? kLongestExpression : static_cast<std::size_t>(end - text);
  return reportErrorNarrow(&metaData, Own::search, std::string(text, length).c_str());
}

Result parseWideSearch(MetaData& metaData, const char16_t* text, WideExpression* expression) {
  return parse(text, *expression) ? Result() : reportError(&metaData, Own::search);
}

}  // namespace zelta
