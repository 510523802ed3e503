// Deaths between the writes of a commit.

#ifndef ZELTA_TESTS_PROCESS_DIE_BETWEEN_H
#define ZELTA_TESTS_PROCESS_DIE_BETWEEN_H

#include <string>
#include <utility>
#include <vector>

#include "platform/faults.h"

namespace zelta::testing {

/// Kills the process before a write to the last of some files, once the others have been written in
/// their order.
class DieBetween final : public platform::faults::Hook {
 public:
  explicit DieBetween(std::vector<std::string> extensions) : extensions_(std::move(extensions)) {
    platform::faults::install(this);
  }
  ~DieBetween() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    platform::faults::Verdict verdict;
    const std::string& next = extensions_[seen_];
    if (event.call != platform::faults::Call::write || event.name.size() < next.size() ||
        event.name.compare(event.name.size() - next.size(), next.size(), next) != 0) {
      return verdict;
    }
    verdict.die = seen_ + 1 == extensions_.size();
    if (verdict.die) verdict.cutTo = 0;
    ++seen_;
    return verdict;
  }

 private:
  std::vector<std::string> extensions_;
  std::size_t seen_ = 0;
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_PROCESS_DIE_BETWEEN_H
