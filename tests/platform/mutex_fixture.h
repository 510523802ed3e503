// Handles of a named mutex in threads and processes, and what a wait for it comes to.

#ifndef ZELTA_TESTS_PLATFORM_MUTEX_FIXTURE_H
#define ZELTA_TESTS_PLATFORM_MUTEX_FIXTURE_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <thread>

#include "platform/mutex.h"
#include "support/database_fixture.h"

namespace zelta::testing {

using platform::kForever;
using platform::Mutex;
using Line = ChildProcess::Line;
using Clock = std::chrono::steady_clock;

/// The lock file beside a mutex's name, and the file that says who may use it.
inline std::u16string beside(const std::u16string& name, const char16_t* file) {
  return name.substr(0, name.rfind(u'/') + 1) + file;
}

/// A handle that closes itself, with its use of the lock file.
class Handle {
 public:
  explicit Handle(const std::u16string& name) {
    EXPECT_EQ(platform::openLockFile(beside(name, u"the.zlk").c_str(),
                                     beside(name, u"the.zlc").c_str(), &lockFile_),
              0u);
    EXPECT_EQ(platform::createMutex(lockFile_, name.c_str(), &mutex_), 0u);
  }
  ~Handle() {
    platform::closeLockFile(lockFile_);
    platform::closeMutex(mutex_);  // keeps the file until then
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  operator Mutex() const { return mutex_; }

 private:
  platform::LocksFile lockFile_ = platform::LocksFile::none;
  Mutex mutex_ = Mutex::none;
};

/// What a wait came to.
struct Wait {
  SystemCode code = 0;
  bool abandoned = false;
  double milliseconds = 0;
  bool operator==(const Wait& other) const {
    return code == other.code && abandoned == other.abandoned;
  }
};
inline void PrintTo(const Wait& wait, std::ostream* out) {
  *out << "code " << wait.code << (wait.abandoned ? ", abandoned" : "") << " after "
       << wait.milliseconds << " ms";
}
inline constexpr Wait kGained{};
inline constexpr Wait kGainedFromTheDead{0, true};
inline constexpr Wait kTooLate{code::kTimeout};

inline Wait waited(Mutex mutex, std::uint32_t milliseconds) {
  Wait wait;
  wait.abandoned = true;
  const auto start = Clock::now();
  wait.code = platform::waitMutex(mutex, milliseconds, &wait.abandoned);
  wait.milliseconds = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  return wait;
}

inline void inThread(const std::function<void()>& work) { std::thread(work).join(); }

class Mutexes : public ::testing::Test {
 protected:
  void SetUp() override {
    name = folder.file("the.mutex");
    folder.write("the.zlc", "");
  }
  [[nodiscard]] bool hasFile() const { return folder.has("the.zlk"); }
  [[nodiscard]] std::string file() const { return (folder.path() / "the.zlk").string(); }
  /// What another process gets from a wait that it gives up again.
  [[nodiscard]] SystemCode elsewhere(std::uint32_t milliseconds = 0) const {
    ChildProcess other([&](const Line&) {
      const Handle mutex(name);
      const SystemCode code = platform::waitMutex(mutex, milliseconds);
      if (code == 0 && platform::releaseMutex(mutex) != 0) return 255;
      return code == 0 ? 0 : code == code::kTimeout ? 1 : 2;
    });
    const int exit = other.wait();
    return exit == 0 ? 0 : exit == 1 ? code::kTimeout : 999;
  }
  /// Work of a process that owns the mutex until it is told something.
  std::function<int(const Line&)> owner(int depth = 1) const {
    return [this, depth](const Line& line) {
      const Handle mutex(name);
      for (int i = 0; i < depth; ++i) {
        if (platform::waitMutex(mutex, kForever) != 0) return 1;
      }
      line.say('y');
      const char order = line.hear();
      if (order == 'x') _exit(7);
      for (int i = 0; i < depth; ++i) {
        if (platform::releaseMutex(mutex) != 0) return 2;
      }
      line.say('r');
      line.hear();
      return 0;
    };
  }

  FreshFolder folder;
  std::u16string name;
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_PLATFORM_MUTEX_FIXTURE_H
