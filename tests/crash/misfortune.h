// Death and failure at a chosen call, and processes that meet them.

#ifndef ZELTA_TESTS_CRASH_MISFORTUNE_H
#define ZELTA_TESTS_CRASH_MISFORTUNE_H

#include <cstdint>

#include "platform/codes.h"
#include "support/changing_calls.h"
#include "support/child_process.h"

namespace zelta::testing {

/// Kills the process at the n-th changing call, counted from 0, or lets that call and all later
/// ones fail; a write may be done in part before.
class Misfortune : public platform::faults::Hook {
 public:
  enum class Kind { death, deathInWrite, failure, failures };

  Misfortune(std::uint64_t calls, Kind kind) : left_(calls), kind_(kind) {
    platform::faults::install(this);
  }
  ~Misfortune() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    using platform::faults::Call;
    platform::faults::Verdict verdict;
    if (!changesFiles(event.call)) return verdict;
    if (left_ != 0) {
      --left_;
      return verdict;
    }
    if (struck && kind_ == Kind::failure) return verdict;
    struck = true;
    if (kind_ == Kind::failure || kind_ == Kind::failures) {
      verdict.code = code::kGeneralFailure;
      return verdict;
    }
    verdict.die = true;
    if (kind_ == Kind::deathInWrite && canBeCut(event)) verdict.cutTo = event.length / 2;
    return verdict;
  }
  bool struck = false;

 private:
  /// A write within one sector is done whole or not at all, by a process as by a disk.
  static bool canBeCut(const platform::faults::Event& event) {
    constexpr std::uint64_t kSector = 512;
    return event.call == platform::faults::Call::write && event.length != 0 &&
           event.position / kSector != (event.position + event.length - 1) / kSector;
  }

  std::uint64_t left_;
  Kind kind_;
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_CRASH_MISFORTUNE_H
