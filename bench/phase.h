// A benchmark's phases. Each runs in a process of its own, so that its peak memory is its own.

#ifndef BENCH_PHASE_H
#define BENCH_PHASE_H

#include <sys/types.h>

#include <cstdint>
#include <functional>

/// What a phase has cost. It travels from process to process as it is.
struct Measure {
  double start = 0;  ///< seconds by the clock that all processes share
  double end = 0;
  double operations = 0;
  double calls = 0;  ///< of the system
  double flushes = 0;
  double transactions = 1;
  double cpu = 0;  ///< seconds of the processor
  long peakKilobytes = 0;
  std::uint64_t found = 0;     ///< objects that searches have found
  std::uint64_t checksum = 0;  ///< of which objects those were, in any order

  [[nodiscard]] double rate() const { return operations / (end - start); }
};

/// What a process does; it starts its clock when `go` returns.
using Phase = std::function<Measure(const std::function<void()>& go)>;

/// Measures `work`, behind `go`.
Measure timed(std::int64_t operations, std::int64_t transactions, const std::function<void()>& go,
              const std::function<void()>& work);

/// Several processes that work side by side count as one.
Measure together(const Measure& a, const Measure& b);

/// A process that carries out a phase: it gets ready, then waits for go().
class Worker {
 public:
  explicit Worker(const Phase& phase);
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  void go();
  Measure finish();

 private:
  [[noreturn]] void work(const Phase& phase);

  int toParent_[2];
  int toChild_[2];
  pid_t child_ = -1;
};

/// A number in, another out, one to one and in no order.
std::uint64_t scatter(std::uint64_t x);

#endif  // BENCH_PHASE_H
