// Processes beside the test's own that go on with the test's state.

#ifndef ZELTA_TESTS_SUPPORT_CHILD_PROCESS_H
#define ZELTA_TESTS_SUPPORT_CHILD_PROCESS_H

#include <gtest/gtest.h>

#ifndef _WIN32
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <functional>
#else
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "platform/windows/thread_process.h"
#endif

namespace zelta::testing {

#ifndef _WIN32

/// A process that runs `work` beside the test and talks to it byte by byte. What it returns is its
/// exit code; it is killed at the end of the scope.
class ChildProcess {
 public:
  class Line {
   public:
    Line(int in, int out) : in_(in), out_(out) {}
    void say(char byte) const { EXPECT_EQ(write(out_, &byte, 1), 1); }
    /// Whether there is nothing to hear yet.
    [[nodiscard]] bool quiet() const {
      pollfd ready{in_, POLLIN, 0};
      return poll(&ready, 1, 0) == 0;
    }
    /// The next byte of the other side; 0 if it is gone or silent for 30 s.
    char hear() const {
      pollfd ready{in_, POLLIN, 0};
      char byte = 0;
      if (poll(&ready, 1, 30000) != 1 || read(in_, &byte, 1) != 1) return 0;
      return byte;
    }

   private:
    int in_;
    int out_;
  };

  explicit ChildProcess(const std::function<int(const Line&)>& work) {
    if (pipe(toChild_.data()) != 0 || pipe(toParent_.data()) != 0) return;
    process_ = fork();
    if (process_ == 0) {
      close(toChild_[1]);
      close(toParent_[0]);
      _exit(work(Line(toChild_[0], toParent_[1])));
    }
    close(toChild_[0]);
    close(toParent_[1]);
  }
  ~ChildProcess() {
    kill();
    close(toChild_[1]);
    close(toParent_[0]);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  [[nodiscard]] Line line() const { return {toParent_[0], toChild_[1]}; }
  /// Waits for the child to say `byte`.
  [[nodiscard]] bool hears(char byte) const { return line().hear() == byte; }
  void tell(char byte) const { line().say(byte); }
  void kill() {
    if (process_ <= 0) return;
    ::kill(process_, SIGKILL);
    wait();
  }
  /// The exit code, or 256 and the signal that ended it.
  int wait() {
    int status = 0;
    while (waitpid(process_, &status, 0) < 0 && errno == EINTR) {
    }
    process_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
  }

 private:
  pid_t process_ = 0;
  std::array<int, 2> toChild_{};
  std::array<int, 2> toParent_{};
};

[[noreturn]] inline void endProcess(int code) { _exit(code); }

/// Runs `work` in a process of its own. What it returns is its exit code; 256 and more: it died.
inline int inProcess(const std::function<int()>& work) {
  const pid_t child = fork();
  if (child == 0) _exit(work());
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
}

inline constexpr int kKilled = 256 + SIGKILL;

/// A number that both sides see.
class SharedNumber {
 public:
  SharedNumber()
      : place_(static_cast<int*>(mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE,
                                      MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
  ~SharedNumber() { munmap(place_, sizeof *place_); }
  SharedNumber(const SharedNumber&) = delete;
  SharedNumber& operator=(const SharedNumber&) = delete;
  int& operator*() const { return *place_; }

 private:
  int* place_;
};

#else

/// There is no fork here. A thread that dies with all that it has opened, and has a hook of its
/// own, is nearly as good: what it shares with the test are the statics, of which the library has
/// none that matter.
class ChildProcess {
  /// Bytes on their way to one side.
  struct Way {
    std::mutex mutex;
    std::condition_variable news;
    std::deque<char> bytes;
  };

 public:
  class Line {
   public:
    Line(std::shared_ptr<Way> in, std::shared_ptr<Way> out,
         std::shared_ptr<std::atomic<bool> > gone)
        : in_(std::move(in)), out_(std::move(out)), gone_(std::move(gone)) {}
    void say(char byte) const {
      const std::lock_guard guard(out_->mutex);
      out_->bytes.push_back(byte);
      out_->news.notify_all();
    }
    /// Whether there is nothing to hear yet.
    [[nodiscard]] bool quiet() const {
      const std::lock_guard guard(in_->mutex);
      return in_->bytes.empty() && !*gone_;
    }
    char hear() const {
      const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
      std::unique_lock guard(in_->mutex);
      while (in_->bytes.empty()) {
        if (*gone_ || std::chrono::steady_clock::now() > end) return 0;
        in_->news.wait_for(guard, std::chrono::milliseconds(5));
        guard.unlock();
        platform::windows::endIfKilled();
        guard.lock();
      }
      const char byte = in_->bytes.front();
      in_->bytes.pop_front();
      return byte;
    }

   private:
    std::shared_ptr<Way> in_;
    std::shared_ptr<Way> out_;
    std::shared_ptr<std::atomic<bool> > gone_;  ///< the other side
  };

  explicit ChildProcess(std::function<int(const Line&)> work)
      : line_(toParent_, toChild_, std::make_shared<std::atomic<bool> >(false)) {
    const auto here = std::make_shared<std::atomic<bool> >(false);
    parentGone_ = here;
    process_ = std::make_unique<platform::windows::ThreadProcess>(
        [work = std::move(work), line = Line(toChild_, toParent_, here)] { return work(line); });
  }
  ~ChildProcess() {
    *parentGone_ = true;
    kill();
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  [[nodiscard]] Line line() const { return line_; }
  [[nodiscard]] bool hears(char byte) const {
    // Its last words count, even if it has ended behind them.
    while (line_.quiet() && !process_->ended()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return !line_.quiet() && line_.hear() == byte;
  }
  void tell(char byte) const { line_.say(byte); }
  void kill() {
    process_->kill();
    wait();
  }
  int wait() { return process_->wait(); }

 private:
  std::shared_ptr<Way> toChild_ = std::make_shared<Way>();
  std::shared_ptr<Way> toParent_ = std::make_shared<Way>();
  std::shared_ptr<std::atomic<bool> > parentGone_;
  Line line_;
  std::unique_ptr<platform::windows::ThreadProcess> process_;
};

[[noreturn]] inline void endProcess(int code) { platform::windows::endProcess(code); }

/// Runs `work` in a process of its own. What it returns is its exit code; 256 and more: it died.
inline int inProcess(const std::function<int()>& work) {
  return platform::windows::ThreadProcess(work).wait();
}

inline constexpr int kKilled = 256 + 9;

/// A number that both sides see.
class SharedNumber {
 public:
  int& operator*() const { return number_; }

 private:
  mutable int number_ = 0;
};

#endif

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_SUPPORT_CHILD_PROCESS_H
