// One call to the system that fails in the midst of an operation.

#ifndef ZELTA_TESTS_MODEL_FAILING_CALL_H
#define ZELTA_TESTS_MODEL_FAILING_CALL_H

#include <cstdint>

#include "platform/faults.h"

namespace zelta::testing {

/// Lets the n-th call fail, counted from 0; a write may be done in part, unless it is as short as a
/// sector: such a write is done whole or not at all.
class FailingCall : public platform::faults::Hook {
 public:
  explicit FailingCall(std::uint64_t calls, bool cut) : left_(calls), cut_(cut) {
    platform::faults::install(this);
  }
  ~FailingCall() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    using platform::faults::Call;
    platform::faults::Verdict verdict;
    const bool counts = event.call == Call::read || event.call == Call::write ||
                        event.call == Call::truncate || event.call == Call::lock ||
                        event.call == Call::mutexWait;
    if (!counts || struck || left_-- != 0) return verdict;
    struck = true;
    constexpr std::uint64_t kSector = 512;
    if (cut_ && event.call == Call::write && event.length > kSector) {
      verdict.cutTo = event.length / 2;
    } else {
      verdict.code = code::kGeneralFailure;
    }
    return verdict;
  }
  bool struck = false;

 private:
  std::uint64_t left_;
  bool cut_;
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_MODEL_FAILING_CALL_H
