#include "phase.h"

#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <stdexcept>

#ifdef ZELTA_FAULTS
#include "platform/faults.h"
#endif

namespace {

/// System calls and flushes of this process by the store so far; 0 where they are not counted.
struct Calls {
  std::uint64_t all = 0;
  std::uint64_t flushes = 0;
};

Calls countCalls() {
#ifdef ZELTA_FAULTS
  return {zelta::platform::faults::systemCalls(), zelta::platform::faults::flushes()};
#else
  return {};
#endif
}

double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// Seconds of the processor that this process has used.
double processorTime() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  double seconds = 0;
  for (const timeval& time : {usage.ru_utime, usage.ru_stime}) {
    seconds += static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
  }
  return seconds;
}

}  // namespace

Measure timed(std::int64_t operations, std::int64_t transactions, const std::function<void()>& go,
              const std::function<void()>& work) {
  go();
  const Calls before = countCalls();
  const double cpuBefore = processorTime();
  Measure m;
  m.start = now();
  work();
  m.end = now();
  m.cpu = processorTime() - cpuBefore;
  const Calls after = countCalls();
  m.operations = static_cast<double>(operations);
  m.transactions = static_cast<double>(transactions);
  m.calls = static_cast<double>(after.all - before.all);
  m.flushes = static_cast<double>(after.flushes - before.flushes);
  return m;
}

Measure together(const Measure& a, const Measure& b) {
  Measure m = a;
  m.start = std::min(a.start, b.start);
  m.end = std::max(a.end, b.end);
  m.operations += b.operations;
  m.calls += b.calls;
  m.flushes += b.flushes;
  m.transactions += b.transactions;
  m.cpu += b.cpu;
  m.peakKilobytes = std::max(a.peakKilobytes, b.peakKilobytes);
  m.found += b.found;
  m.checksum += b.checksum;
  return m;
}

Worker::Worker(const Phase& phase) {
  if (pipe(toParent_) != 0 || pipe(toChild_) != 0) throw std::runtime_error("no pipe");
  child_ = fork();
  if (child_ == 0) work(phase);
  close(toParent_[1]);
  close(toChild_[0]);
  char ready = 0;
  if (read(toParent_[0], &ready, 1) != 1) throw std::runtime_error("a phase failed");
}

Worker::~Worker() {
  close(toParent_[0]);
  close(toChild_[1]);
}

void Worker::go() {
  if (write(toChild_[1], "g", 1) != 1) throw std::runtime_error("a phase failed");
}

Measure Worker::finish() {
  Measure m;
  const bool readAll = read(toParent_[0], &m, sizeof m) == sizeof m;
  int status = 0;
  rusage usage = {};
  wait4(child_, &status, 0, &usage);
  if (!readAll || status != 0) throw std::runtime_error("a phase failed");
  m.peakKilobytes = usage.ru_maxrss;
  return m;
}

void Worker::work(const Phase& phase) {
  try {
    const Measure m = phase([this] {
      char byte = 0;
      if (write(toParent_[1], "r", 1) != 1 || read(toChild_[0], &byte, 1) != 1) _exit(1);
    });
    if (write(toParent_[1], &m, sizeof m) != sizeof m) _exit(1);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    _exit(1);
  }
  _exit(0);
}

std::uint64_t scatter(std::uint64_t x) {
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9;
  x = (x ^ (x >> 27)) * 0x94d049bb133111eb;
  return x ^ (x >> 31);
}
