// Processes beside the test's own that go on with the test's state, by fork().

#ifndef ZELTA_TESTS_SUPPORT_CHILD_PROCESS_H
#define ZELTA_TESTS_SUPPORT_CHILD_PROCESS_H

#include <gtest/gtest.h>

#ifndef _WIN32
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <functional>
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
    [[nodiscard]] int input() const { return in_; }
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

#else

/// There is no fork here: a test that comes this far stands in tests/windows/left_out.txt.
class ChildProcess {
 public:
  class Line {
   public:
    void say(char /*byte*/) const {}
    [[nodiscard]] int input() const { return -1; }
    [[nodiscard]] char hear() const { return 0; }
  };

  template <class Work>
  explicit ChildProcess(const Work& /*work*/) {
    ADD_FAILURE() << "this test needs fork()";
  }
  [[nodiscard]] Line line() const { return {}; }
  [[nodiscard]] bool hears(char /*byte*/) const { return false; }
  void tell(char /*byte*/) const {}
  void kill() {}
  int wait() { return -1; }
};

#endif

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_SUPPORT_CHILD_PROCESS_H
