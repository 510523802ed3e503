// What is left of the operating system: codes, clock, threads, characters, volumes.

#include <gtest/gtest.h>
#include <locale.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/codes.h"
#include "platform/file.h"
#include "platform/posix/posix_internal.h"
#include "platform/text.h"
#include "support/database_fixture.h"

namespace zelta::testing {
namespace {

using Line = ChildProcess::Line;

// -- Codes
// ------------------------------------------------------------------------------------------

TEST(SystemCodes, OfTheOperatingSystemHaveOneTable) {
  const struct {
    int error;
    SystemCode code;
  } cases[] = {{0, 0},        {ENOENT, 2},   {ENOTDIR, 3},        {EMFILE, 4},  {ENFILE, 4},
               {EACCES, 5},   {EPERM, 5},    {EISDIR, 5},         {EBADF, 6},   {ENOMEM, 8},
               {EROFS, 19},   {EAGAIN, 33},  {EWOULDBLOCK, 33},   {EEXIST, 80}, {EINVAL, 87},
               {ENOSPC, 112}, {EDQUOT, 112}, {ENAMETOOLONG, 206}, {EFBIG, 223}, {ETIMEDOUT, 258},
               {EIO, 1117}};
  for (const auto& c : cases) {
    EXPECT_EQ(platform::posix::codeOf(c.error), c.code) << c.error;
    errno = c.error;
    EXPECT_EQ(platform::posix::lastCode(), c.code) << c.error;
  }
}

TEST(SystemCodes, WithoutAPlaceInTheTableAreAGeneralFailureAndNever33) {
  for (int error = -3; error < 4200; ++error) {
    const SystemCode code = platform::posix::codeOf(error);
    EXPECT_EQ(code == 0, error == 0) << error;
    if (error == EAGAIN) continue;
    EXPECT_NE(code, code::kLockViolation) << error;
  }
  EXPECT_EQ(platform::posix::codeOf(ENOTTY), code::kGeneralFailure);
  EXPECT_EQ(platform::posix::codeOf(-1), code::kGeneralFailure);
  EXPECT_EQ(platform::posix::codeOf(4000), code::kGeneralFailure);
}

// -- Clock
// ------------------------------------------------------------------------------------------

double millisecondsOf(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

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

TEST(SystemClock, SleepsItsTimeThroughSignals) {
  struct sigaction action {};
  struct sigaction former {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGALRM, &action, &former), 0);
  const itimerval often{{0, 3000}, {0, 3000}};
  const itimerval never{};
  setitimer(ITIMER_REAL, &often, nullptr);
  EXPECT_GE(millisecondsOf([] { platform::sleepMilliseconds(50); }), 50);
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &former, nullptr);
  EXPECT_GE(millisecondsOf([] { platform::sleepMilliseconds(1); }), 1);
  double best = 1e9;
  for (int i = 0; i < 5; ++i) {
    best = std::min(best, millisecondsOf([] { platform::sleepMilliseconds(0); }));
  }
  EXPECT_LT(best, 10) << "0 only yields";
}

TEST(SystemThreads, AreToldApartAlsoOverAFork) {
  const std::uint32_t mine = platform::currentThread();
  EXPECT_NE(mine, 0u);
  EXPECT_EQ(platform::currentThread(), mine);
  std::uint32_t others[2] = {};
  std::thread one([&] {
    others[0] = platform::currentThread();
    std::thread two([&] { others[1] = platform::currentThread(); });
    two.join();
    EXPECT_EQ(platform::currentThread(), others[0]);
  });
  one.join();
  EXPECT_NE(others[0], 0u);
  EXPECT_NE(others[0], mine);
  EXPECT_NE(others[1], mine);
  EXPECT_NE(others[1], others[0]);
  ChildProcess child([&](const Line&) {
    const std::uint32_t here = platform::currentThread();
    return here != 0 && here != mine && platform::currentThread() == here ? 0 : 1;
  });
  EXPECT_EQ(child.wait(), 0);
}

// -- Characters
// -------------------------------------------------------------------------------------

/// All that the classes and cases say of every code point, in one number.
std::uint64_t fingerprint() {
  std::uint64_t hash = 0xcbf29ce484222325;
  const auto add = [&](std::uint64_t value) { hash = (hash ^ value) * 0x100000001b3; };
  for (char32_t c = 0; c < 0x110000; ++c) {
    add((platform::isAlphanumeric(c) ? 1u : 0u) | (platform::isSpace(c) ? 2u : 0u) |
        (platform::isLower(c) ? 4u : 0u) | (platform::isUpper(c) ? 8u : 0u));
    add(platform::toUpper(c));
    add(platform::toLower(c));
  }
  return hash;
}

TEST(SystemText, IsTheSameInEveryLocale) {
  const std::uint64_t expected = fingerprint();
  for (const char* name : {"C", "POSIX", "", "C.UTF-8", "tr_TR.UTF-8", "tr_TR.ISO-8859-9",
                           "de_DE.ISO-8859-1", "en_US.UTF-8", "ja_JP.EUC-JP"}) {
    ChildProcess child([&](const Line&) {
      // Some of these are missing on most machines; "C" and "C.UTF-8" never are.
      setlocale(LC_ALL, name);
      if (fingerprint() != expected) return 1;
      const locale_t own = newlocale(LC_ALL_MASK, name, nullptr);
      if (own == nullptr) return 0;
      uselocale(own);
      return fingerprint() == expected ? 0 : 2;
    });
    EXPECT_EQ(child.wait(), 0) << name;
  }
}

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

// -- Volumes
// ----------------------------------------------------------------------------------------

TEST(SystemVolumes, OfThisMachineAreLocal) {
  FreshFolder folder;
  folder.write("file", "x");
  const std::u16string path = folder.path().u16string();
  EXPECT_EQ(platform::volumeType(u"/"), platform::VolumeType::local);
  EXPECT_EQ(platform::volumeType((path + u"/").c_str()), platform::VolumeType::local);
  EXPECT_EQ(platform::volumeType((path + u"/missing/").c_str()), platform::VolumeType::noRoot);
  EXPECT_EQ(platform::volumeType((path + u"/file/").c_str()), platform::VolumeType::noRoot);
}

}  // namespace
}  // namespace zelta::testing
