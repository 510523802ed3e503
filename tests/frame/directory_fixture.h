// A database of two tables, and processes that die while they change its directory.

#ifndef ZELTA_TESTS_FRAME_DIRECTORY_FIXTURE_H
#define ZELTA_TESTS_FRAME_DIRECTORY_FIXTURE_H

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/database_fixture.h"
#include "support/raw_control.h"

namespace zelta::testing {

/// Exclusive-or of 32-bit words, the last one filled up with zeros.
inline std::uint32_t checksum(std::string bytes) {
  bytes.resize((bytes.size() + 3) / 4 * 4, '\0');
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < bytes.size(); i += 4) sum ^= numberAt<std::uint32_t>(bytes, i);
  return sum;
}

class DirectoryChangeTest : public DatabaseTest {
 protected:
  void SetUp() override {
    ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
    makeTable(handle, u"goods", 1, 1);
    makeTable(handle, u"sales", 2, 2);
    ASSERT_DONE(handle, handle.CloseDatabase());
  }

  /// All files of the folder, to start from the same state again.
  using State = std::map<std::string, std::string>;
  [[nodiscard]] State state() const {
    State out;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
      const std::string name = entry.path().filename().string();
      out[name] = folder.bytes(name);
    }
    return out;
  }
  void restore(const State& wanted) const {
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
      std::filesystem::remove(entry.path());
    }
    for (const auto& [name, bytes] : wanted) folder.write(name, bytes);
  }

  [[nodiscard]] std::vector<std::string> tableNames() const {
    std::vector<std::string> out;
    for (const RawEntry& entry : RawControl(control()).entries) out.push_back(entry.name);
    return out;
  }

  /// Runs an exclusive transaction with `work` in a process that dies one change later each time;
  /// calls `check` after the next opener, and again after one that died in its repair.
  void cutEverywhere(const std::function<unsigned long long(CZELTA&)>& work,
                     const std::function<void()>& check) {
    const State before = state();
    bool cameThrough = false;
    for (std::uint64_t calls = 0; !cameThrough; ++calls) {
      ASSERT_LT(calls, 200u);
      for (const bool cut : {false, true}) {
        SCOPED_TRACE("after " + std::to_string(calls) + (cut ? " calls, cut" : " calls"));
        restore(before);
        ChildProcess child([&](const ChildProcess::Line&) {
          CZELTA own;
          if (own.OpenDatabase(path().c_str()) != 0) return 1;
          if (own.BeginTransaction(CZELTA::TransactionExclusive, 10000) != 0) return 2;
          {
            const DieAt die(calls, cut);
            if (work(own) != 0) return 3;
          }
          endProcess(0);  // no orderly end: the transaction dies with the process
        });
        const int ended = child.wait();
        ASSERT_TRUE(ended == 0 || ended == kKilled) << ended;
        cameThrough = ended == 0;
        ASSERT_NO_FATAL_FAILURE(repairEverywhere(check, cut ? 1 : 100));
      }
    }
  }

  /// The repair dies one change later each time, at most `most` times, then comes through.
  void repairEverywhere(const std::function<void()>& check, std::uint64_t most) {
    const State broken = state();
    bool cameThrough = false;
    for (std::uint64_t calls = 0; !cameThrough; ++calls) {
      ASSERT_LT(calls, 100u);
      if (calls == most) calls = 99;
      restore(broken);
      ChildProcess child([&](const ChildProcess::Line&) {
        CZELTA own;
        const DieAt die(calls);
        return own.OpenDatabase(path().c_str()) == 0 &&
                       own.BeginTransaction(CZELTA::TransactionExclusive, 10000) == 0 &&
                       own.EndTransaction() == 0
                   ? 0
                   : 1;
      });
      const int ended = child.wait();
      ASSERT_TRUE(ended == 0 || ended == kKilled) << ended;
      cameThrough = ended == 0;
      if (!cameThrough) {
        ASSERT_NO_FATAL_FAILURE(repair());
      }
      ASSERT_NO_FATAL_FAILURE(expectAtRest());
      ASSERT_NO_FATAL_FAILURE(check());
    }
  }

  /// What the next one does who keeps all others out.
  void repair() const {
    CZELTA next;
    ASSERT_DONE(next, next.OpenDatabase(path().c_str()));
    ASSERT_DONE(next, next.BeginTransaction(CZELTA::TransactionExclusive, 10000));
    ASSERT_DONE(next, next.EndTransaction());
  }
  /// Nothing is under way, and nobody has left anything behind.
  void expectAtRest() const {
    const RawControl raw(control());
    ASSERT_FALSE(raw.pending);
    ASSERT_EQ(raw.state, 0u);
    ASSERT_TRUE(raw.slots.empty());
  }

  /// Opening and reading what the directory names must work.
  void expectUsable(const std::vector<unsigned int>& ids) {
    CZELTA own;
    ASSERT_DONE(own, own.OpenDatabase(path().c_str()));
    ASSERT_DONE(own, own.BeginTransaction(CZELTA::TransactionShared, 10000));
    for (const unsigned int id : ids) ASSERT_DONE(own, own.OpenTable(id));
  }

  CZELTA handle;
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_FRAME_DIRECTORY_FIXTURE_H
