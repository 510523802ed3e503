// Where the files of an input lie: a folder on a file system of bounded size, and beside it the
// folder of a stranger, in which nothing may happen.

#ifndef ZELTA_TESTS_FUZZ_WORLD_H
#define ZELTA_TESTS_FUZZ_WORLD_H

#include <map>
#include <string>

#include "fuzz/archive.h"
#include "platform/faults.h"

namespace zelta::fuzz {

class World : private platform::faults::Hook {
 public:
  /// The process's only one; made when it is first asked for, and the process is ended if it can't
  /// be made.
  static World& get();

  /// Empties the folder and puts an archive's files there.
  void lay(const Archive& archive);
  /// The files as they stand now.
  [[nodiscard]] std::map<std::string, std::string> files() const;
  /// All that must hold behind an input, whose handles are closed: the stranger's files are as they
  /// were, nothing was tried elsewhere, no file has grown without measure, and nothing is left of
  /// the mutexes.
  void check() const;

  [[nodiscard]] static std::u16string path(const std::string& name);
  [[nodiscard]] static const std::string& folder();

 private:
  World();
  platform::faults::Verdict before(const platform::faults::Event& event) override;
  void checkStranger() const;
  void checkGrowth() const;
  void checkMutexes() const;
  void sweepMutexes() const;

  bool private_ = false;  ///< nobody else sees the file system
};

}  // namespace zelta::fuzz

#endif  // ZELTA_TESTS_FUZZ_WORLD_H
