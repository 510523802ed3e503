// For tests: a thread that counts as a process. What it opens is closed when it dies, as the system
// closes what a killed process leaves; its mutexes are abandoned, its locks given up, and nothing
// of its own is run any more. A hook that it installs is its own.

#ifndef ZELTA_PLATFORM_WINDOWS_THREAD_PROCESS_H
#define ZELTA_PLATFORM_WINDOWS_THREAD_PROCESS_H

#ifdef ZELTA_FAULTS

#include <functional>
#include <memory>

namespace zelta::platform::windows {

class ThreadProcess {
 public:
  /// Runs `work` in a thread that is a process.
  explicit ThreadProcess(std::function<int()> work);
  /// Kills it.
  ~ThreadProcess();
  ThreadProcess(const ThreadProcess&) = delete;
  ThreadProcess& operator=(const ThreadProcess&) = delete;

  /// It dies at its next call of the platform, or while it waits.
  void kill();
  /// Waits for its end: what `work` returned, or 265 if it was killed.
  int wait();
  [[nodiscard]] bool ended() const;

  struct State;

 private:
  std::shared_ptr<State> state_;
};

/// Ends the calling thread if it is a process that was killed.
void endIfKilled();
/// Ends the calling process, which may be a thread, on the spot.
[[noreturn]] void endProcess(int code);

}  // namespace zelta::platform::windows

#endif  // ZELTA_FAULTS

#endif  // ZELTA_PLATFORM_WINDOWS_THREAD_PROCESS_H
