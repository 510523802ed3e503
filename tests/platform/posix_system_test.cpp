// What is left of the operating system on Linux: codes, signals, threads, locales, volumes.

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
#include "platform/windows/character_tables.h"
#include "support/database_fixture.h"

namespace zelta::testing {
namespace {

using Line = ChildProcess::Line;

// -- Codes ----------------------------------------------------------------------------------------

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

// -- Clock ----------------------------------------------------------------------------------------

double millisecondsOf(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
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

// -- Characters -----------------------------------------------------------------------------------

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

TEST(SystemText, IsTheSameOnTheOtherPlatform) {
  namespace tables = platform::tables;
  for (char32_t c = 0x80; c < 0x110010; ++c) {
    ASSERT_EQ(tables::isAlphanumeric(c), platform::isAlphanumeric(c)) << std::uint32_t{c};
    ASSERT_EQ(tables::isSpace(c), platform::isSpace(c)) << std::uint32_t{c};
    ASSERT_EQ(tables::isLower(c), platform::isLower(c)) << std::uint32_t{c};
    ASSERT_EQ(tables::isUpper(c), platform::isUpper(c)) << std::uint32_t{c};
    ASSERT_EQ(tables::toUpper(c), platform::toUpper(c)) << std::uint32_t{c};
    ASSERT_EQ(tables::toLower(c), platform::toLower(c)) << std::uint32_t{c};
  }
}

// -- Volumes --------------------------------------------------------------------------------------

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
