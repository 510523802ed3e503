// Lists of words: random work, and searches after every few steps that are held against a plain look
// at all objects.

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "search/random_objects.h"

namespace zelta::testing {
namespace {

enum Index : unsigned { kTexts = 1, kGrouped, kWideTexts, kWideGrouped };
constexpr bool isWide(unsigned index) { return index >= kWideTexts; }

struct Row {
  std::string text;
  std::u16string wide;
};

struct Item {
  static constexpr unsigned kVariableFields = 4;
  std::uint16_t group = 0;
  std::string chars;  ///< 12 bytes
  std::string text;
  std::u16string wide;
  std::string bytes;
  std::vector<Row> rows;

  [[nodiscard]] std::string fixedBytes() const { return Packed().number(group).raw(chars); }
  [[nodiscard]] std::string variableBytes() const {
    Packed all;
    for (const Row& row : rows) all.text(row.text).wide(row.wide);
    return Packed().text(text).wide(wide).shortBinary(bytes).binary(all);
  }
};

/// How the segments of an index cut: letters and digits alone make a word, and which case is kept.
struct Cut {
  bool lettersOnly;
  char fold;  ///< 'l', 'u' or 0
};

/// The words of an 8-bit text, in which all bytes of a longer character are letters.
std::vector<std::string> cutNarrow(const std::string& text, Cut cut) {
  std::vector<std::string> words(1);
  for (const char c : text) {
    const bool letter = (c & 0x80) != 0 || std::isalnum(static_cast<unsigned char>(c)) != 0;
    const bool ends =
        cut.lettersOnly ? !letter : c == ' ' || c == '\t' || c == '\n' || c == ',' || c == '.';
    if (ends) {
      words.emplace_back();
    } else {
      words.back().push_back(c);
    }
  }
  for (std::string& word : words) {
    if (const auto zero = word.find('\0'); zero != word.npos) word.resize(zero);
    for (char& c : word) {
      if (cut.fold == 'l' && c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
      if (cut.fold == 'u' && c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
    }
  }
  std::erase(words, "");
  return words;
}

std::vector<std::u16string> cutWide(const std::u16string& text, Cut cut) {
  std::vector<std::u16string> words(1);
  for (const char16_t c : text) {
    const bool letter = (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || c > 0x80;
    const bool ends = cut.lettersOnly ? !letter : c == u' ' || c == u',' || c == u'.';
    if (ends) {
      words.emplace_back();
    } else {
      words.back().push_back(c);
    }
  }
  constexpr char16_t kSmall[] = u"\u00E4\u03B4\u0436";
  constexpr char16_t kLarge[] = u"\u00C4\u0394\u0416";
  for (std::u16string& word : words) {
    for (char16_t& c : word) {
      if (c < 0x80 && cut.fold == 'l' && c >= u'A' && c <= u'Z') c = c + 32;
      if (c < 0x80 && cut.fold == 'u' && c >= u'a' && c <= u'z') c = c - 32;
      for (int i = 0; i < 3; ++i) {
        if (cut.fold == 'l' && c == kLarge[i]) c = kSmall[i];
        if (cut.fold == 'u' && c == kSmall[i]) c = kLarge[i];
      }
    }
  }
  std::erase(words, u"");
  return words;
}

/// The bytes of a run in the units of the other width.
std::u16string widened(std::string bytes) {
  if (bytes.size() % 2 != 0) bytes.push_back('\0');
  std::u16string out(bytes.size() / 2, 0);
  std::memcpy(out.data(), bytes.data(), bytes.size());
  if (const auto zero = out.find(u'\0'); zero != out.npos) out.resize(zero);
  return out;
}
std::string narrowed(const std::u16string& units) {
  std::string out(reinterpret_cast<const char*>(units.data()), units.size() * 2);
  if (const auto zero = out.find('\0'); zero != out.npos) out.resize(zero);
  return out;
}

constexpr Cut kAsTheyStand = {false, 0};
constexpr Cut kLower = {false, 'l'};
constexpr Cut kUpperLetters = {true, 'u'};

std::set<std::string> narrowWords(unsigned index, const Item& item) {
  std::set<std::string> out;
  const auto add = [&](const std::vector<std::string>& words) {
    out.insert(words.begin(), words.end());
  };
  if (index == kTexts) {
    add(cutNarrow(item.text, kLower));
    for (const std::u16string& word : cutWide(item.wide, kAsTheyStand)) out.insert(narrowed(word));
  } else {
    add(cutNarrow(item.chars, kUpperLetters));
    add(cutNarrow(item.bytes, kAsTheyStand));
    for (const Row& row : item.rows) add(cutNarrow(row.text, kUpperLetters));
  }
  out.erase("");
  return out;
}

std::set<std::u16string> wideWords(unsigned index, const Item& item) {
  std::set<std::u16string> out;
  const auto add = [&](const std::vector<std::u16string>& words) {
    out.insert(words.begin(), words.end());
  };
  if (index == kWideTexts) {
    add(cutWide(item.wide, kLower));
    for (const std::string& word : cutNarrow(item.text, kAsTheyStand)) out.insert(widened(word));
  } else {
    add(cutWide(item.wide, kUpperLetters));
    for (const Row& row : item.rows) add(cutWide(row.wide, kAsTheyStand));
  }
  out.erase(u"");
  return out;
}

template <class Text>
bool matches(char kind, const Text& text, const Text& word) {
  switch (kind) {
    case 'c':
      return word.find(text) != Text::npos;
    case 's':
      return word.substr(0, text.size()) == text;
    case 'e':
      return word.size() >= text.size() && word.substr(word.size() - text.size()) == text;
    default:
      return word == text;
  }
}

class WordSearches : public RandomObjects<Item> {
 protected:
  void SetUp() override {
    const Fields fields = {
        {CZELTA::TypeUInt16},
        {CZELTA::TypeCharArray, 12},
        {CZELTA::TypeText, 40},
        {CZELTA::TypeWideText, 40},
        {CZELTA::TypeShortBinary, 20},
        {CZELTA::TypeSubRecords, 60, {{CZELTA::TypeText, 20}, {CZELTA::TypeWideText, 20}}}};
    constexpr std::uint32_t kWord = CZELTA::SegmentWords;
    constexpr std::uint32_t kLow = kWord | CZELTA::SegmentLowerCase;
    constexpr std::uint32_t kUp = kWord | CZELTA::SegmentUpperCase | CZELTA::SegmentAlphanumeric;
    const Indexes indexes = {{{{2, kLow}, {3, kWord}}, CZELTA::AsciiList},
                             {{{0, 0}, {1, kUp}, {4, kWord}, {6, kUp}}, CZELTA::AsciiList},
                             {{{3, kLow}, {2, kWord}}, CZELTA::WideList},
                             {{{0, 0}, {3, kUp}, {7, kWord}}, CZELTA::WideList}};
    make(fields, indexes);
  }

  // -- Random things ----------------------------------------------------------------------------

  std::string narrowWord() {
    std::string out;
    const std::uint32_t length = below(30) == 0 ? 40 + below(400) : 1 + below(3);
    for (std::uint32_t i = 0; i < length; ++i) {
      constexpr const char* kParts[] = {"a", "b", "c", "A", "B", "7", "\xC3\xA4", "\xE2\x82\xAC"};
      out += kParts[below(length > 3 ? 3 : 7)];
    }
    return out;
  }
  std::u16string wideWord() {
    std::u16string out;
    const std::uint32_t length = below(30) == 0 ? 40 + below(200) : 1 + below(3);
    for (std::uint32_t i = 0; i < length; ++i) {
      out += u"abAB\u00E4\u00C4\u03B4\u0416"[below(length > 3 ? 3 : 8)];
    }
    return out;
  }
  std::string narrowText() {
    std::string out;
    for (std::uint32_t n = below(5); n != 0; --n) {
      out += narrowWord();
      out += below(3) == 0 ? ", -" : " ";
    }
    return out;
  }
  std::u16string wideText() {
    std::u16string out;
    for (std::uint32_t n = below(4); n != 0; --n) {
      out += wideWord();
      out += below(3) == 0 ? u"3. " : u" ";
    }
    return out;
  }
  Item item() override {
    Item out;
    out.group = static_cast<std::uint16_t>(below(3) * 255);
    out.chars = narrowText();
    out.chars.resize(12);  // may cut a character, and ends with zeros
    if ((out.chars.back() & 0x80) != 0) out.chars = "ab\0cd e\0\0\0 b";
    out.chars.resize(12);
    out.text = narrowText();
    out.wide = wideText();
    out.bytes = below(4) == 0 ? std::string("a\0b c", 5) : narrowText();
    out.rows.resize(below(3));
    for (Row& row : out.rows) row = {narrowText(), wideText()};
    return out;
  }

  Item successor(const Item& before) override {
    Item out = item();
    if (below(3) == 0) out.text = before.text;
    return out;
  }

  // -- Searches ---------------------------------------------------------------------------------

  /// What a term finds among the objects of a group (below 0: of all).
  Ids found(unsigned index, char kind, const std::string& narrow, const std::u16string& wide,
            int group) {
    Ids out;
    for (const auto& [id, item] : pending) {
      if (group >= 0 && item.group != group) continue;
      if (isWide(index)) {
        for (const std::u16string& word : wideWords(index, item)) {
          if (matches(kind, wide, word)) out.insert(id);
        }
      } else {
        for (const std::string& word : narrowWords(index, item)) {
          if (matches(kind, narrow, word)) out.insert(id);
        }
      }
    }
    return out;
  }
  static Ids combined(const std::string& op, const Ids& a, const Ids& b) {
    Ids out;
    const auto to = std::inserter(out, out.end());
    if (op == "and") std::set_intersection(a.begin(), a.end(), b.begin(), b.end(), to);
    if (op == "or") std::set_union(a.begin(), a.end(), b.begin(), b.end(), to);
    if (op == "xor") std::set_symmetric_difference(a.begin(), a.end(), b.begin(), b.end(), to);
    return out;
  }
  std::string quoted(char kind, const std::string& text) {
    const std::string front = kind == 's' || kind == 'w' ? "\" " : "\"";
    return front + text + (kind == 'e' || kind == 'w' ? " \"" : "\"");
  }

  void search(unsigned index) {
    const bool grouped = index == kGrouped || index == kWideGrouped;
    const std::uint16_t group = static_cast<std::uint16_t>(below(3) * 255);
    std::u16string expression;
    std::string narrowExpression;
    Ids expected;
    const std::uint32_t terms = 1 + below(3);
    // Operators are read from the right.
    std::vector<Ids> sets;
    std::vector<std::string> operators;
    for (std::uint32_t i = 0; i < terms; ++i) {
      const char kind = "csew"[below(4)];
      std::string narrow = narrowWord();
      std::u16string wide = wideWord();
      if (below(3) == 0 && !pending.empty()) {
        const Item& any = std::next(pending.begin(), below(pending.size()))->second;
        const auto words = narrowWords(index, any);
        const auto wideOnes = wideWords(index, any);
        if (!words.empty()) narrow = *words.begin();
        if (!wideOnes.empty()) wide = *wideOnes.begin();
      }
      // A quote would have to be written with a backslash.
      if (narrow.find('"') != narrow.npos || wide.find(u'"') != wide.npos) return;
      if (i != 0) {
        operators.push_back(std::vector<std::string>{"and", "or", "xor"}[below(3)]);
        narrowExpression += " " + operators.back() + " ";
        for (const char c : " " + operators.back() + " ") {
          expression.push_back(static_cast<char16_t>(c));
        }
      }
      const std::string frame = quoted(kind, "x");
      narrowExpression += quoted(kind, narrow);
      for (const char c : frame) {
        if (c == 'x') {
          expression += wide;
        } else {
          expression.push_back(static_cast<char16_t>(c));
        }
      }
      sets.push_back(found(index, kind, narrow, wide, grouped ? group : -1));
    }
    expected = sets.back();
    for (std::size_t i = operators.size(); i-- != 0;) {
      expected = combined(operators[i], sets[i], expected);
    }
    const bool inverted = terms > 1 && below(3) == 0;
    if (inverted) {
      narrowExpression = "not (" + narrowExpression + ")";
      expression = u"not (" + expression + u")";
    }
    const void* text = isWide(index) ? static_cast<const void*>(expression.c_str())
                                     : static_cast<const void*>(narrowExpression.c_str());
    long long count = -1;
    ASSERT_DONE(handle,
                handle.SearchIndex(kTable, index, grouped ? &group : nullptr,
                                   static_cast<const char16_t*>(text), CZELTA::Mode{}, &count));
    if (inverted) {
      // The count has IDs that are free as well, but none of what was added.
      Ids others;
      for (const auto& [id, item] : pending) {
        if (expected.count(id) == 0) others.insert(id);
      }
      EXPECT_EQ(results(index, true), others) << narrowExpression;
      return;
    }
    EXPECT_EQ(count, static_cast<long long>(expected.size())) << narrowExpression;
    EXPECT_EQ(results(index), expected) << "index " << index << ": " << narrowExpression;
  }

  void searchAll() override {
    for (const unsigned index : {kTexts, kGrouped, kWideTexts, kWideGrouped}) search(index);
  }
};

TEST_P(WordSearches, FindWhatAPlainLookFinds) { run(1200); }

INSTANTIATE_TEST_SUITE_P(Forms, WordSearches, ::testing::Bool(),
                         [](const auto& wide) { return wide.param ? "wide" : "narrow"; });

}  // namespace
}  // namespace zelta::testing
