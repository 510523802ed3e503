// What is left of the operating system on every platform: clock and characters.

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "platform/clock.h"
#include "platform/text.h"

namespace zelta::testing {
namespace {

// -- Clock ----------------------------------------------------------------------------------------

TEST(SystemClock, TicksWithTheMonotonicClock) {
  const auto now = [] {
    return static_cast<std::uint32_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count());
  };
  for (int i = 0; i < 1000; ++i) {
    const std::uint32_t before = now();
    const std::uint32_t tick = platform::tickCount();
    const std::uint32_t after = now();
    ASSERT_LE(tick - before, after - before);
  }
}

TEST(SystemClock, CountsTheTimeOfDayFrom1601) {
  constexpr std::int64_t kUnixEpoch = 11644473600;  // s
  const auto expected = std::chrono::duration_cast<std::chrono::seconds>(
      std::chrono::system_clock::now().time_since_epoch());
  const auto seconds = static_cast<std::int64_t>(platform::systemTime() / 10000000) - kUnixEpoch;
  EXPECT_NEAR(static_cast<double>(seconds), static_cast<double>(expected.count()), 2);
  const std::uint64_t one = platform::systemTime();
  EXPECT_LE(one, platform::systemTime());
}

// -- Characters -----------------------------------------------------------------------------------

TEST(SystemText, KnowsClassesAndCasesBeyondAscii) {
  for (char32_t c = 0; c < 0x80; ++c) {
    const bool lower = c >= U'a' && c <= U'z';
    const bool upper = c >= U'A' && c <= U'Z';
    EXPECT_EQ(platform::isLower(c), lower);
    EXPECT_EQ(platform::isUpper(c), upper);
    EXPECT_EQ(platform::isAlphanumeric(c), lower || upper || (c >= U'0' && c <= U'9'));
    EXPECT_EQ(platform::isSpace(c), c == U' ' || (c >= 9 && c <= 13));
    EXPECT_EQ(platform::toUpper(c), lower ? c - 32 : c);
    EXPECT_EQ(platform::toLower(c), upper ? c + 32 : c);
  }
  const struct {
    char32_t lower, upper;
  } pairs[] = {{U'\u00e4', U'\u00c4'},
               {U'\u00ff', U'\u0178'},
               {U'\u03c9', U'\u03a9'},
               {U'\u0444', U'\u0424'},
               {U'\U00010428', U'\U00010400'}};
  for (const auto& pair : pairs) {
    EXPECT_TRUE(platform::isLower(pair.lower) && !platform::isUpper(pair.lower));
    EXPECT_TRUE(platform::isUpper(pair.upper) && !platform::isLower(pair.upper));
    EXPECT_EQ(platform::toUpper(pair.lower), pair.upper);
    EXPECT_EQ(platform::toLower(pair.upper), pair.lower);
    EXPECT_TRUE(platform::isAlphanumeric(pair.lower));
  }
  EXPECT_EQ(platform::toUpper(U'\u00df'), U'\u00df') << "one character stays one";
  EXPECT_TRUE(platform::isAlphanumeric(U'\u4e2d'));
  EXPECT_FALSE(platform::isAlphanumeric(U'\u2014'));
  EXPECT_TRUE(platform::isSpace(U'\u3000'));
  for (const char32_t odd : {0xD800u, 0xDFFFu, 0x110000u, 0x7FFFFFFFu, 0xFFFFFFFEu}) {
    EXPECT_FALSE(platform::isAlphanumeric(odd));
    EXPECT_FALSE(platform::isSpace(odd));
    EXPECT_EQ(platform::toUpper(odd), odd);
    EXPECT_EQ(platform::toLower(odd), odd);
  }
}

TEST(SystemText, GoesFromUtf8To16AndBack) {
  for (char32_t c = 1; c < 0x110000; ++c) {
    if (c >= 0xD800 && c < 0xE000) continue;
    std::u16string text;
    if (c < 0x10000) {
      text = static_cast<char16_t>(c);
    } else {
      text = {static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10)),
              static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF))};
    }
    ASSERT_EQ(platform::widen(platform::narrow(text.c_str()).c_str()), text) << std::uint32_t{c};
  }
  EXPECT_EQ(platform::narrow(u"\u00e4\u4e2d\U0001F600"), "\xc3\xa4\xe4\xb8\xad\xf0\x9f\x98\x80");
}

TEST(SystemText, ReplacesMalformedUtf8) {
  const struct {
    const char* bytes;
    const char16_t* text;
  } cases[] = {
      {"", u""},
      {"a\x80z", u"a\ufffdz"},                            // a tail without a lead
      {"a\xc3", u"a\ufffd"},                              // cut off at the end
      {"a\xe4\xb8z", u"a\ufffd\ufffdz"},                  // cut off inside
      {"\xf0\x9f\x98", u"\ufffd\ufffd\ufffd"},            //
      {"\xc0\xaf", u"\ufffd\ufffd"},                      // longer than need be
      {"\xe0\x80\xaf", u"\ufffd\ufffd\ufffd"},            //
      {"\xed\xa0\x80", u"\ufffd\ufffd\ufffd"},            // a surrogate
      {"\xf4\x90\x80\x80", u"\ufffd\ufffd\ufffd\ufffd"},  // behind the last code point
      {"\xff\xfez", u"\ufffd\ufffdz"},
  };
  for (const auto& c : cases) EXPECT_EQ(platform::widen(c.bytes), c.text);
}

}  // namespace
}  // namespace zelta::testing
