// The language of searches for words: its trees, its errors, what terms match, and how sets combine.

#include "index/words/expression.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>

#include "frame/metadata.h"

namespace zelta::testing {
namespace {

template <typename Unit>
std::string narrowed(std::basic_string_view<Unit> text) {
  std::string out;
  for (const Unit c : text) out += static_cast<char>(c);
  return out;
}

/// A node as text: ~contains, ^starts, ends$, =equals, operators in brackets, ! if it is negated.
template <typename Unit>
std::string shown(const SearchNode<Unit>& node) {
  const std::string mark = node.negated ? "!" : "";
  const std::string text = narrowed<Unit>(node.text);
  switch (node.kind) {
    case SearchNodeKind::contains:
      return mark + "~" + text;
    case SearchNodeKind::startsWith:
      return mark + "^" + text;
    case SearchNodeKind::endsWith:
      return mark + text + "$";
    case SearchNodeKind::equals:
      return mark + "=" + text;
    default:
      break;
  }
  static const std::map<SearchNodeKind, std::string> kNames = {{SearchNodeKind::conjunction, "and"},
                                                               {SearchNodeKind::disjunction, "or"},
                                                               {SearchNodeKind::exclusive, "xor"}};
  return mark + "[" + shown(*node.left) + " " + kNames.at(node.kind) + " " + shown(*node.right) +
         "]";
}

template <typename Unit>
std::string shown(const SearchExpression<Unit>& expression) {
  std::string out = shown(expression.root()) + " :";
  for (auto* term = expression.terms(); term != nullptr; term = term->next) {
    out += " " + narrowed<Unit>(term->text);
  }
  return out;
}

/// The tree and the list of terms, or the code of the failure.
std::string parsed(const std::string& text) {
  MetaData metaData;
  AsciiExpression ascii;
  WideExpression wide;
  const std::u16string wideText(text.begin(), text.end());
  const Result result = parseAsciiSearch(metaData, text.c_str(), &ascii);
  clearError(metaData);
  EXPECT_EQ(parseWideSearch(metaData, wideText.c_str(), &wide), result) << text;
  clearError(metaData);
  if (result.failed()) return "error " + std::to_string(result.code());
  EXPECT_EQ(shown(ascii), shown(wide));
  return shown(ascii);
}

TEST(Expression, TermsAndOperatorsAssociateToTheRight) {
  EXPECT_EQ(parsed("cat"), "~cat : cat");
  EXPECT_EQ(parsed("  cat \t"), "~cat : cat");
  EXPECT_EQ(parsed("cat and dog"), "[~cat and ~dog] : cat dog");
  EXPECT_EQ(parsed("cat dog"), "[~cat and ~dog] : cat dog");
  EXPECT_EQ(parsed("a and b or c"), "[~a and [~b or ~c]] : a b c");
  EXPECT_EQ(parsed("a or b and c xor d"), "[~a or [~b and [~c xor ~d]]] : a b c d");
  EXPECT_EQ(parsed("a AND b Or c XOR d"), "[~a and [~b or [~c xor ~d]]] : a b c d");
}

TEST(Expression, WordsOfTheLanguageAreWholeWords) {
  EXPECT_EQ(parsed("android"), "~android : android");
  EXPECT_EQ(parsed("nothing orange"), "[~nothing and ~orange] : nothing orange");
  EXPECT_EQ(parsed("a andb"), "[~a and ~andb] : a andb");
  EXPECT_EQ(parsed("and"), "~and : and");
  EXPECT_EQ(parsed("and or b"), "[~and or ~b] : and b");
}

TEST(Expression, BareTermsMayHoldAnythingButBlanksAndClosingParentheses) {
  EXPECT_EQ(parsed("cat(dog"), "~cat(dog : cat(dog");
  EXPECT_EQ(parsed("a\"b\\c"), "~a\"b\\c : a\"b\\c");
  EXPECT_EQ(parsed("a\\\"b"), "~a\\\"b : a\\\"b");
}

TEST(Expression, BlanksInQuotesSayWhereAWordBeginsAndEnds) {
  EXPECT_EQ(parsed("\"cat\""), "~cat : cat");
  EXPECT_EQ(parsed("\" cat\""), "^cat : cat");
  EXPECT_EQ(parsed("\"cat \""), "cat$ : cat");
  EXPECT_EQ(parsed("\" cat \""), "=cat : cat");
  EXPECT_EQ(parsed("\"  cat  \""), "= cat  :  cat ");
  EXPECT_EQ(parsed("\"a b\""), "~a b : a b");
  EXPECT_EQ(parsed("\"  \""), "^ : ");
  EXPECT_EQ(parsed("\"   \""), "=  :  ");
  EXPECT_EQ(parsed("\"\tcat\""), "^cat : cat");
  EXPECT_EQ(parsed("\"a\\\"b\""), "~a\"b : a\"b");
  EXPECT_EQ(parsed("\"a\\b\""), "~a\\b : a\\b");
  EXPECT_EQ(parsed("\"and\" or \"or\""), "[~and or ~or] : and or");
  EXPECT_EQ(parsed("\"a\"\"b\""), "[~a and ~b] : a b");
}

TEST(Expression, NotIsTakenBackByTermsAndKeptByGroups) {
  EXPECT_EQ(parsed("not cat"), "!~cat : cat");
  EXPECT_EQ(parsed("NOT(cat)"), "!~cat : cat");
  EXPECT_EQ(parsed("not cat and dog"), "[!~cat and ~dog] : cat dog");
  EXPECT_EQ(parsed("cat and not dog"), "[~cat and !~dog] : cat dog");
  EXPECT_EQ(parsed("cat and not dog or fish"), "[~cat and ![~dog or ~fish]] : cat dog fish");
  EXPECT_EQ(parsed("not (cat or dog)"), "![~cat or ~dog] : cat dog");
  EXPECT_EQ(parsed("not (not (a or b))"), "[~a or ~b] : a b");
  EXPECT_EQ(parsed("not not (a or b)"), "[!~not and [~a or ~b]] : not a b");
  EXPECT_EQ(parsed("cat and dog and not (fish or bird)"),
            "[~cat and [~dog and ![~fish or ~bird]]] : cat dog fish bird");
}

TEST(Expression, AGroupInFrontOfAnOperatorKeepsItsOddities) {
  EXPECT_EQ(parsed("a or (b and c)"), "[~a or [~b and ~c]] : a b c");
  EXPECT_EQ(parsed("(a or b)"), "[~a or ~b] : a b");
  EXPECT_EQ(parsed("(a or b) and cat"), "[[~a or ~b] and ~at] : at");
  EXPECT_EQ(parsed("(a or b) cat"), "[[~a or ~b] and ~at] : at");
  EXPECT_EQ(parsed("(a or b) and (c or d)"), "[[~a or ~b] and [~c or ~d]] : c d");
  EXPECT_EQ(parsed("(a or b) and"), "[~a or ~b] : a b");
  EXPECT_EQ(parsed("(a or b) and not"), "![~a or ~b] : a b");
  EXPECT_EQ(parsed("not (a or b) and (c)"), "[![~a or ~b] and ~c] : c");
  EXPECT_EQ(parsed("(a or b) and not (c or d)"), "![[~a or ~b] and [~c or ~d]] : c d");
  EXPECT_EQ(parsed("((a) or (b))"), "[~a or ~b] : b");
}

TEST(Expression, ParenthesesNeedNotMatch) {
  EXPECT_EQ(parsed("(a or b"), "[~a or ~b] : a b");
  EXPECT_EQ(parsed("((a"), "~a : a");
  EXPECT_EQ(parsed("a) nonsense (("), "~a : a");
}

TEST(Expression, ErrorsHaveCode63) {
  for (const char* text : {"",
                           "   ",
                           ")",
                           "(",
                           "()",
                           "not",
                           "not )",
                           "cat and",
                           "cat or not",
                           "cat and )",
                           "\"",
                           "\"cat",
                           "\"\"",
                           "\" \"",
                           "a and \"b",
                           "(a or b) and c",
                           "(a or b) or not d",
                           "(",
                           "((((",
                           "\"a\\\""}) {
    EXPECT_EQ(parsed(text), "error 63") << text;
  }
}

TEST(Expression, TheTextOfTheErrorNamesTheSearch) {
  MetaData metaData;
  AsciiExpression ascii;
  ASSERT_TRUE(parseAsciiSearch(metaData, "cat and (", &ascii).is(Own::search));
  EXPECT_EQ(std::u16string(metaData.errorMessage),
            u"Unable to complete operation as the search:-\n\"cat and (\"\nis invalid.");
  clearError(metaData);
  WideExpression wide;
  ASSERT_TRUE(parseWideSearch(metaData, u"cat and (", &wide).is(Own::search));
  EXPECT_EQ(std::u16string(metaData.errorMessage),
            u"Unable to complete operation as the search:-\n\"(null)\"\nis invalid.");
  clearError(metaData);
}

TEST(Expression, HostileTextsEnd) {
  const auto repeated = [](const std::string& part, std::size_t times) {
    std::string out;
    for (std::size_t i = 0; i < times; ++i) out += part;
    return out;
  };
  EXPECT_EQ(parsed(repeated("(", 1000000)), "error 63");
  EXPECT_EQ(parsed(repeated("(", 1000000) + "a"), "error 63");
  EXPECT_EQ(parsed(repeated("not (", 300000)), "error 63");
  EXPECT_EQ(parsed(repeated("a ", 1000000)), "error 63");
  EXPECT_EQ(parsed(repeated(")", 1000000)), "error 63");
  MetaData metaData;
  for (const std::string& text :
       {repeated("(", 40000) + "a" + repeated(")", 40000), repeated("word and ", 40000) + "word",
        std::string(5000000, 'x'), repeated("(a) or ", 20000) + "(b)"}) {
    AsciiExpression expression;
    ASSERT_TRUE(parseAsciiSearch(metaData, text.c_str(), &expression).ok());
    for (auto* term = expression.terms(); term != nullptr; term = term->next) {
      term->results = {1, 2, 3};
    }
    EXPECT_FALSE(expression.combineResults());
  }
}

// -- Terms ----------------------------------------------------------------------------------------

bool matchesWord(SearchNodeKind kind, const std::string& text, const std::string& word) {
  SearchNode<char> ascii;
  ascii.kind = kind;
  ascii.text = text;
  SearchNode<char16_t> wide;
  wide.kind = kind;
  wide.text.assign(text.begin(), text.end());
  const std::u16string wideWord(word.begin(), word.end());
  const bool result = matches<char>(ascii, word);
  EXPECT_EQ(matches<char16_t>(wide, wideWord), result);
  return result;
}

TEST(ExpressionTerms, MatchWords) {
  EXPECT_TRUE(matchesWord(SearchNodeKind::contains, "at", "cat"));
  EXPECT_TRUE(matchesWord(SearchNodeKind::contains, "cat", "cat"));
  EXPECT_FALSE(matchesWord(SearchNodeKind::contains, "cats", "cat"));
  EXPECT_FALSE(matchesWord(SearchNodeKind::contains, "Cat", "cat"));
  EXPECT_FALSE(matchesWord(SearchNodeKind::contains, "", ""));
  EXPECT_TRUE(matchesWord(SearchNodeKind::startsWith, "ca", "cat"));
  EXPECT_FALSE(matchesWord(SearchNodeKind::startsWith, "at", "cat"));
  EXPECT_TRUE(matchesWord(SearchNodeKind::startsWith, "", "cat"));
  EXPECT_TRUE(matchesWord(SearchNodeKind::endsWith, "at", "cat"));
  EXPECT_FALSE(matchesWord(SearchNodeKind::endsWith, "ca", "cat"));
  EXPECT_TRUE(matchesWord(SearchNodeKind::endsWith, "", ""));
  EXPECT_FALSE(matchesWord(SearchNodeKind::endsWith, "a", ""));
  EXPECT_TRUE(matchesWord(SearchNodeKind::equals, "cat", "cat"));
  EXPECT_FALSE(matchesWord(SearchNodeKind::equals, "ca", "cat"));
}

// -- Results --------------------------------------------------------------------------------------

/// What an expression finds among objects 1 to 8, when term a has found 1 2 3 4 and b 3 4 5 6;
/// complements with a mark.
std::string found(const std::string& text) {
  MetaData metaData;
  AsciiExpression expression;
  EXPECT_TRUE(parseAsciiSearch(metaData, text.c_str(), &expression).ok()) << text;
  std::string first;
  for (int run = 0; run < 2; ++run) {  // a search may be run again
    expression.clearResults();
    for (auto* term = expression.terms(); term != nullptr; term = term->next) {
      if (term->text == "a") term->results = {4, 2, 3, 1, 1, 2};
      if (term->text == "b") term->results = {6, 5, 4, 3};
    }
    const bool inverted = expression.combineResults();
    std::string out = inverted ? "all but" : "";
    for (const std::uint64_t id : expression.root().results) out += " " + std::to_string(id);
    if (run == 0) {
      first = out;
    } else {
      EXPECT_EQ(out, first);
    }
  }
  return first;
}

TEST(ExpressionResults, OfTermsAndTheirOperators) {
  EXPECT_EQ(found("a"), " 1 2 3 4");
  EXPECT_EQ(found("not a"), " 1 2 3 4");
  EXPECT_EQ(found("a and b"), " 3 4");
  EXPECT_EQ(found("a or b"), " 1 2 3 4 5 6");
  EXPECT_EQ(found("a xor b"), " 1 2 5 6");
  EXPECT_EQ(found("a and not b"), " 3 4") << "a term that is negated is as good as one that is not";
  EXPECT_EQ(found("nobody"), "");
}

TEST(ExpressionResults, OfComplements) {
  EXPECT_EQ(found("not (a or b)"), "all but 1 2 3 4 5 6");
  EXPECT_EQ(found("a and not (b and b)"), " 1 2");
  EXPECT_EQ(found("a or not (b or b)"), "all but 5 6");
  EXPECT_EQ(found("a xor not (b or b)"), " 3 4");
  EXPECT_EQ(found("not (a and not (b or b))"), "all but 1 2");
}

/// Every row of the table of operators, by nodes put together by hand.
TEST(ExpressionResults, FollowTheTableRowByRow) {
  struct Row {
    const char* text;
    const char* result;
  };
  // A group in front of an operator finds nothing, so complements on the left are made of
  // `x or not (...)`, whose left operand is a term.
  const Row rows[] = {
      {"a and (b or b)", " 3 4"},
      {"a and not (b or b)", " 1 2"},
      {"a or (b or b)", " 1 2 3 4 5 6"},
      {"a or not (b or b)", "all but 5 6"},
      {"a xor (b or b)", " 1 2 5 6"},
      {"a xor not (b or b)", " 3 4"},
      {"not (x or y) and (b or b)", " 3 4 5 6"},
      {"not (x or y) or (b or b)", ""},
      {"not (x or y) xor (b or b)", ""},
      {"not (x or y) and (n or not (b or b))", " 3 4 5 6"},
      {"not (x or y) or (n or not (b or b))", ""},
      {"not (x or y) xor (n or not (b or b))", "all but 3 4 5 6"},
  };
  for (const Row& row : rows) EXPECT_EQ(found(row.text), row.result) << row.text;
}

}  // namespace
}  // namespace zelta::testing
