// Texts in keys: every mode, against byte strings worked out by hand.

#include <gtest/gtest.h>

#include <random>

#include "index/key_bench.h"
#include "index/keys/key_text.h"

namespace zelta {
namespace {

using testing::Fields;
using testing::Indexes;
using testing::KeyBench;
using testing::Packed;
using testing::Segments;

constexpr std::uint32_t kDown = CZELTA::SegmentDescending;
constexpr std::uint32_t kBack = CZELTA::SegmentReversed;
constexpr std::uint32_t kUpper = CZELTA::SegmentUpperCase;
constexpr std::uint32_t kLower = CZELTA::SegmentLowerCase;
constexpr std::uint32_t kNoSpace = CZELTA::SegmentNoSpace;
constexpr std::uint32_t kAlnum = CZELTA::SegmentAlphanumeric;
constexpr std::uint32_t k16 = CZELTA::SegmentNumber16;
constexpr std::uint32_t k32 = CZELTA::SegmentNumber32;
constexpr std::uint32_t k64 = CZELTA::SegmentNumber64;

/// The payload, which the size of the key pads with zeros to whole words.
std::string narrowKey(std::uint32_t mode, const std::string& text) {
  KeyBench t(Fields{{CZELTA::TypeText}}, Indexes{{Segments{{0, mode}}}});
  const std::string key = t.hex(t.header(1).text(text));
  EXPECT_EQ(t.searchHex(Packed().text(text)), key);
  return key;
}
std::string wideKey(std::uint32_t mode, const std::u16string& text) {
  KeyBench t(Fields{{CZELTA::TypeWideText}}, Indexes{{Segments{{0, mode}}}});
  const std::string key = t.hex(t.header(1).wide(text));
  EXPECT_EQ(t.searchHex(Packed().wide(text)), key);
  return key;
}

TEST(TextKeys, EndWithATerminator) {
  EXPECT_EQ(narrowKey(0, ""), "00000000");
  EXPECT_EQ(narrowKey(kDown, ""), "FF000000");
  EXPECT_EQ(narrowKey(0, "ab"), "61620000");
  EXPECT_EQ(narrowKey(kDown, "ab"), "9E9DFF00");
  EXPECT_EQ(narrowKey(0, "abcd"), "6162636400000000");
  EXPECT_EQ(wideKey(0, u""), "00000000");
  EXPECT_EQ(wideKey(kDown, u""), "FFFF0000");
  EXPECT_EQ(wideKey(0, u"a\u20AC"), "006120AC00000000");
  EXPECT_EQ(wideKey(kDown, u"a\u20AC"), "FF9EDF53FFFF0000");
}

TEST(TextKeys, FoldCases) {
  EXPECT_EQ(narrowKey(kUpper, "aZ1\xC3\xA9"), "415A31C389000000");
  EXPECT_EQ(narrowKey(kLower, "aZ1\xC3\x89"), "617A31C3A9000000");
  EXPECT_EQ(narrowKey(kUpper | kDown, "a"), "BEFF0000");
  EXPECT_EQ(narrowKey(kUpper, "\xC3\xBF"), "C5B80000");  // y with diaeresis
  EXPECT_EQ(narrowKey(kUpper, "\xF0\x90\x90\xA8"), "F090908000000000");
  EXPECT_EQ(wideKey(kUpper, u"a\u00E9"), "004100C900000000");
  EXPECT_EQ(wideKey(kLower, u"A\u00C9"), "006100E900000000");
}

TEST(TextKeys, LeaveMalformedBytesAlone) {
  EXPECT_EQ(narrowKey(kUpper, "\xE9"), "E9000000");
  EXPECT_EQ(narrowKey(kUpper, "a\xC3"), "41C30000");
  EXPECT_EQ(narrowKey(kUpper, "\xC3z"), "C35A0000");
  EXPECT_EQ(narrowKey(kNoSpace, "\x80 \xFF"), "80FF0000");
  EXPECT_EQ(narrowKey(kAlnum, "a\xE9\x62"), "61620000");
}

TEST(TextKeys, ReversedWalkFromTheLastCharacter) {
  EXPECT_EQ(narrowKey(kBack, "abc"), "63626100");
  EXPECT_EQ(narrowKey(kBack, "a\xC3\xA9z"), "7AC3A96100000000");
  EXPECT_EQ(narrowKey(kBack, "a\xE2\x82\xAC"), "E282AC6100000000");
  EXPECT_EQ(narrowKey(kBack, "\xF0\x9F\x98\x80"), "F09F988000000000");
  EXPECT_EQ(narrowKey(kBack | kDown, "ab"), "9D9EFF00");
  // Sequences that are none: each byte for itself.
  EXPECT_EQ(narrowKey(kBack, "\xE2\x82"), "82E20000");
  EXPECT_EQ(narrowKey(kBack, "\x80\x80\x80"), "80808000");
  EXPECT_EQ(narrowKey(kBack, "\xC3\xA9\xA8"), "A8C3A900");
  EXPECT_EQ(narrowKey(kBack, "\xF0\x81\x82\x83\x84"), "84F0818283000000");
  EXPECT_EQ(wideKey(kBack, u"ab"), "0062006100000000");
}

TEST(TextKeys, PairsCountWhenTheLowHalfComesFirst) {
  const std::u16string lowFirst = {0xDC28, 0xD801};
  const std::u16string highFirst = {0xD801, 0xDC28};
  EXPECT_EQ(wideKey(0, lowFirst), "D801DC2800000000");
  EXPECT_EQ(wideKey(0, highFirst), "D801DC2800000000");
  EXPECT_EQ(wideKey(kBack, lowFirst), "D801DC2800000000");
  EXPECT_EQ(wideKey(kBack, highFirst), "DC28D80100000000");
  EXPECT_EQ(wideKey(kUpper, lowFirst), "D801DC0000000000");
  EXPECT_EQ(wideKey(kUpper, highFirst), "D801DC2800000000");
  EXPECT_EQ(wideKey(0, {0xDC28}), "DC280000");
  EXPECT_EQ(wideKey(kDown, lowFirst), "27FE23D7FFFF0000");
}

TEST(TextKeys, DropWhiteSpace) {
  EXPECT_EQ(narrowKey(kNoSpace, " a\tb\nc "), "61626300");
  EXPECT_EQ(narrowKey(kNoSpace, "a-b"), "612D6200");
  EXPECT_EQ(narrowKey(kNoSpace, "\xE2\x80\x83z"), "7A000000");  // em space
  EXPECT_EQ(wideKey(kNoSpace, u" a\u2003b"), "0061006200000000");
}

TEST(TextKeys, ReduceNarrowTextsToLettersAndDigits) {
  EXPECT_EQ(narrowKey(kAlnum, "don't"), "646F6E7400000000");
  EXPECT_EQ(narrowKey(kAlnum, "dont"), "646F6E7400000000");
  EXPECT_EQ(narrowKey(kAlnum, "a  b"), "61620000");
  EXPECT_EQ(narrowKey(kAlnum, "a b!"), "6162000000000000");  // sized for two separators
  // The very first character alone gives a separator.
  EXPECT_EQ(narrowKey(kAlnum, "-a-b"), "2061620000000000");
  EXPECT_EQ(narrowKey(kAlnum, "  a"), "20610000");
  EXPECT_EQ(narrowKey(kAlnum, "'a"), "61000000");
  EXPECT_EQ(narrowKey(kAlnum, ", a"), "61000000");
  EXPECT_EQ(narrowKey(kAlnum, "-"), "20000000");
  EXPECT_EQ(narrowKey(kAlnum | kDown, "-a-b"), "DF9E9DFF00000000");
  EXPECT_EQ(narrowKey(kAlnum | kNoSpace, "-a b"), "61620000");
}

TEST(TextKeys, ReduceWideTextsToLettersAndDigits) {
  EXPECT_EQ(wideKey(kAlnum, u"a  b"), "0061002000620000");
  EXPECT_EQ(wideKey(kAlnum, u"a, b"), "0061002000620000");
  EXPECT_EQ(wideKey(kAlnum, u"a'b"), "0061006200000000");
  EXPECT_EQ(wideKey(kAlnum, u"  a"), "0061000000000000");
  EXPECT_EQ(wideKey(kAlnum, u"a  "), "0061000000000000");
  EXPECT_EQ(wideKey(kAlnum, u"a -."), "0061000000000000");  // its separator is cut
  EXPECT_EQ(wideKey(kAlnum, u"--"), "00000000");
  EXPECT_EQ(wideKey(kAlnum | kDown, u"a b"), "FF9EFFDFFF9DFFFF");
  EXPECT_EQ(wideKey(kAlnum | kNoSpace, u"a b"), "0061006200000000");
}

TEST(TextKeys, ReversedReductionsSeparateInBothWidths) {
  EXPECT_EQ(narrowKey(kAlnum | kBack, "a  b"), "62206100");
  EXPECT_EQ(narrowKey(kAlnum | kBack, " a b"), "6220610000000000");
  EXPECT_EQ(narrowKey(kAlnum | kBack, "  a"), "61200000");  // not cut
  EXPECT_EQ(narrowKey(kAlnum | kBack, "ab  "), "62610000");
  EXPECT_EQ(wideKey(kAlnum | kBack, u"a  b"), "0062002000610000");
  EXPECT_EQ(wideKey(kAlnum | kBack, u"  a"), "0061002000000000");
}

TEST(TextKeys, DescendingRunsOfSeparatorsMayPassTheirSize) {
  EXPECT_EQ(narrowKey(kAlnum | kBack | kDown, "ab  c"), "9CDFDF9D9EFF0000");
  EXPECT_EQ(narrowKey(kAlnum | kBack | kDown, "a  b"), "122");
  EXPECT_EQ(wideKey(kAlnum | kDown, u"a  b"), "122");
  KeyBench t(Fields{{CZELTA::TypeWideText}}, Indexes{{Segments{{0, kAlnum | kDown}}}});
  EXPECT_EQ(t.hex(t.header(77).wide(u"a  b")), "122");
  PooledKey key;
  EXPECT_EQ(t.make(t.header(77).wide(u"a  b"), key).word(),
            Result::system(code::kBufferTooSmall).word());
  EXPECT_EQ(key.get(), nullptr);
}

TEST(TextKeys, ReadNumbers) {
  EXPECT_EQ(narrowKey(k32, "10"), "0000000A00000000");
  EXPECT_EQ(narrowKey(k32, "9"), "0000000900000000");
  EXPECT_EQ(narrowKey(k32, "-1"), "FFFFFFFF00000000");
  EXPECT_EQ(narrowKey(k32, "a12b"), "610000000C620000");
  EXPECT_EQ(narrowKey(k32, "007"), "0000000700000000");
  EXPECT_EQ(narrowKey(k32, "--5"), "2DFFFFFFFB000000");
  EXPECT_EQ(narrowKey(k32, "5-"), "000000052D000000");
  EXPECT_EQ(narrowKey(k32, "a-b"), "612D6200");
  EXPECT_EQ(narrowKey(k32, "1-2"), "00000001FFFFFFFE00000000");
  EXPECT_EQ(narrowKey(k16, "65537"), "00010000");
  EXPECT_EQ(narrowKey(k64, "-2"), "FFFFFFFFFFFFFFFE00000000");
  EXPECT_EQ(narrowKey(k64, "18446744073709551617"), "000000000000000100000000");
  EXPECT_EQ(wideKey(k16, u"7"), "00070000");
  EXPECT_EQ(wideKey(k16, u"x7"), "0078000700000000");
  // Digits of other scripts are no numbers.
  EXPECT_EQ(wideKey(k16, u"\u0663"), "06630000");
}

TEST(TextKeys, ReadNumbersDescending) {
  EXPECT_EQ(narrowKey(k32 | kDown, "10"), "7FFFFFF5FF000000");
  EXPECT_EQ(narrowKey(k32 | kDown, "-1"), "80000000FF000000");
  EXPECT_EQ(narrowKey(k16 | kDown, "1"), "7FFEFF00");
  EXPECT_EQ(narrowKey(k64 | kDown, "0"), "7FFFFFFFFFFFFFFFFF000000");
}

TEST(TextKeys, ReadNumbersBackwardsWithTheSignTurnedRound) {
  EXPECT_EQ(narrowKey(k32 | kBack, "12"), "FFFFFFF400000000");
  EXPECT_EQ(narrowKey(k32 | kBack, "-12"), "0000000C00000000");
  EXPECT_EQ(narrowKey(k32 | kBack, "a12"), "FFFFFFF461000000");
  EXPECT_EQ(narrowKey(k32 | kBack, "a-12b"), "620000000C610000");
  EXPECT_EQ(narrowKey(k32 | kBack | kDown, "-12"), "7FFFFFF3FF000000");
  // The place of the eleventh digit is 10^10 modulo 2^32.
  EXPECT_EQ(narrowKey(k64 | kBack, "-30000000000"), "00000000FC23AC0000000000");
  EXPECT_EQ(wideKey(k16 | kBack, u"12"), "FFF40000");
}

TEST(TextKeys, NumbersComeBeforeReduction) {
  EXPECT_EQ(narrowKey(k16 | kAlnum, "a-5"), "61FFFB0000000000");
  EXPECT_EQ(narrowKey(k16 | kAlnum, "a5,6"), "6100050006000000");
  EXPECT_EQ(wideKey(k16 | kAlnum, u"5 6"), "0005002000060000");
}

TEST(TextKeys, NumberOrderIsThatOfTheKeys) {
  const std::vector<std::string> ascending = {"0", "9", "10", "2147483647", "-1"};
  for (std::size_t i = 1; i < ascending.size(); ++i) {
    EXPECT_LT(narrowKey(k32, ascending[i - 1]), narrowKey(k32, ascending[i]));
  }
  const std::vector<std::string> descending = {"2147483647", "10", "9", "0", "-1", "-9"};
  for (std::size_t i = 1; i < descending.size(); ++i) {
    EXPECT_LT(narrowKey(k32 | kDown, descending[i - 1]), narrowKey(k32 | kDown, descending[i]));
  }
}

TEST(TextKeys, LookAtTheLastByteOfTheSegmentAhead) {
  KeyBench t(Fields{{CZELTA::TypeChar}, {CZELTA::TypeText}},
             Indexes{{Segments{{0, 0}, {1, kAlnum}}}});
  EXPECT_EQ(t.hex(t.header(1).raw("x").text("-a")), "78206100");
  EXPECT_EQ(t.hex(t.header(1).raw(" ").text("-a")), "20610000");
}

TEST(TextKeys, CutOnlyTheirOwnSeparator) {
  KeyBench t(Fields{{CZELTA::TypeUInt16}, {CZELTA::TypeWideText}},
             Indexes{{Segments{{0, 0}, {1, kAlnum}}}});
  EXPECT_EQ(t.hex(t.header(1).number(std::uint16_t{0x20}).wide(u"-")), "0020000000000000");
}

TEST(TextKeys, TakeWordsFromTheirSizeNotFromWhatIsWritten) {
  EXPECT_EQ(narrowKey(kAlnum, "abc"), "61626300");
  EXPECT_EQ(narrowKey(kAlnum, "ab'c"), "6162630000000000");
}

// -- All modes ------------------------------------------------------------------------------------

std::string randomNarrow(std::mt19937& random) {
  static constexpr const char* kParts[] = {
      "a",    "Z",        "7",        "42",   "-",    "-9", " ", "\t", "'",
      ".",    "\xC3\xA9", "\xE2\x82", "\xF0", "\x80", "--", ",", "5",  "\xF0\x9F\x98\x80",
      "\xFF", "\xC1\xB0"};
  std::string text;
  for (std::size_t n = random() % 8; n > 0; --n) text += kParts[random() % std::size(kParts)];
  return text;
}
std::u16string randomWide(std::mt19937& random) {
  static constexpr char16_t kUnits[] = {u'a',   u'Z',   u'7',   u'4',   u'-',   u' ',
                                        u'\'',  u'.',   0xE9,   0xD801, 0xDC28, 0xDC00,
                                        0xD800, 0xFFFF, 0x2003, 0x663};
  std::u16string text;
  for (std::size_t n = random() % 10; n > 0; --n) text += kUnits[random() % std::size(kUnits)];
  return text;
}

TEST(TextKeys, OfAllModesStayWithinTheirSize) {
  const auto seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::vector<unsigned char> buffer(4096);
  for (std::uint32_t mode = 0; mode <= 0x1EF; ++mode) {
    if ((mode & 0x10) != 0) continue;
    for (int round = 0; round < 60; ++round) {
      const std::string narrow = randomNarrow(random);
      const std::u16string wide = randomWide(random);
      // Allocations of just the size, without the terminator.
      const std::vector<char> narrowBytes(narrow.begin(), narrow.end());
      const std::vector<char16_t> wideUnits(wide.begin(), wide.end());
      const KeyText texts[] = {
          {narrowBytes.data(), narrowBytes.size(), false},
          {reinterpret_cast<const char*>(wideUnits.data()), wideUnits.size() * 2, true}};
      for (const KeyText& text : texts) {
        KeyWriter out(buffer.data(), buffer.size());
        writeTextKey(text, mode, out);
        const std::uint64_t size = textKeySize(text, mode);
        if ((mode & kAlnum) == 0 || (mode & kDown) == 0) {
          EXPECT_LE(out.size(), size) << mode << " " << ::testing::PrintToString(narrow);
        }
        EXPECT_GE(out.size(), text.wide ? 2u : 1u);
      }
    }
  }
}

TEST(TextKeys, OfAllModesAreMadeAgainTheSame) {
  const auto seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (std::uint32_t mode = 0; mode <= 0x1EF; ++mode) {
    if ((mode & 0x10) != 0 || (mode & 0xC) == 0xC) continue;
    KeyBench t(Fields{{CZELTA::TypeUInt16}, {CZELTA::TypeText}, {CZELTA::TypeWideText}},
               Indexes{{Segments{{1, mode}, {2, mode}, {0, mode & kDown}}}});
    std::string first[8];
    std::string objects[8];
    for (int round = 0; round < 16; ++round) {
      const int i = round % 8;
      if (round < 8) {
        objects[i] = t.header(1).number(std::uint16_t{7}).text(randomNarrow(random));
        objects[i] += Packed().wide(randomWide(random)).str();
        first[i] = t.hex(objects[i]);
        if (first[i] == "122") {
          EXPECT_TRUE((mode & kAlnum) != 0 && (mode & kDown) != 0) << mode;
        }
      } else {
        EXPECT_EQ(t.hex(objects[i]), first[i]);  // out of buffers that other keys have filled
      }
    }
  }
}

}  // namespace
}  // namespace zelta
