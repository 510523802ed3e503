// Log files after a power failure: of what was written since the last flush, any part may be on
// the disk.

#include <functional>
#include <set>

#include "transaction/log_fixture.h"

namespace zelta {
namespace {

using testing::LogTest;
using testing::RawLog;

/// Follows one file: what is on the disk for certain, and what was done since.
class Disk : public platform::faults::Hook {
 public:
  using Sample = std::function<void(const std::string&)>;
  Disk(unsigned seed, std::string durable)
      : random_([engine = std::mt19937(seed)]() mutable {
          return static_cast<std::uint32_t>(engine());
        }),
        durable_(std::move(durable)) {
    platform::faults::install(this);
  }
  ~Disk() override { platform::faults::install(nullptr); }

  platform::faults::Verdict before(const platform::faults::Event& event) override {
    using platform::faults::Call;
    if (event.name.size() < 4 || event.name.substr(event.name.size() - 4) != ".zll") return {};
    if (event.call == Call::write) {
      pending_.push_back(
          {event.position, std::string(static_cast<const char*>(event.data), event.length), false});
    } else if (event.call == Call::truncate) {
      pending_.push_back({event.position, {}, true});
    } else if (event.call == Call::flush) {
      sample();
      for (const Step& step : pending_) apply(durable_, step);
      pending_.clear();
    }
    return {};
  }

  /// Keeps some of the states that a failure right now could leave.
  void sample() {
    for (int i = 0; i < 12; ++i) {
      std::string state = durable_;
      for (const Step& step : pending_) {
        if (random_() % 2 == 0) apply(state, step);
      }
      states.insert(state);
    }
  }
  std::set<std::string> states;

 private:
  struct Step {
    std::uint64_t position;
    std::string bytes;
    bool truncate;
  };
  static void apply(std::string& file, const Step& step) {
    if (step.truncate) {
      file.resize(step.position, '\0');
      return;
    }
    if (file.size() < step.position + step.bytes.size()) {
      file.resize(step.position + step.bytes.size(), '\0');
    }
    file.replace(step.position, step.bytes.size(), step.bytes);
  }
  std::function<std::uint32_t()> random_;
  std::string durable_;
  std::vector<Step> pending_;
};

class LogPower : public LogTest {
 protected:
  /// Looks at every state; the entries of `certain` must be there, complete.
  void check(const std::set<std::string>& states, const std::string& name,
             const std::set<std::uint64_t>& certain) {
    for (const std::string& state : states) {
      reopen();
      folder.write(name, state);
      ASSERT_TRUE(prepare().ok());
      const Result result = readHeader();
      ASSERT_TRUE(result.ok()) << result.code();
      const RawLog log = raw(name, logFile.header().isSingle() ? "ZELL" : "ZELO");
      const std::string bytes = folder.bytes(name);
      std::set<std::uint64_t> complete;
      for (const auto& [number, position] : log.entries) {
        if (testing::numberAt<std::uint32_t>(bytes, position + 16) == 0) continue;
        const auto length = testing::numberAt<std::uint64_t>(bytes, position);
        std::uint64_t checksum = testing::numberAt<std::uint64_t>(bytes, position + 24);
        ASSERT_LE(position + length, bytes.size());
        xorChecksum64(checksum, bytes.data() + position + 32, length - 32);
        if (checksum == 0) complete.insert(position);
      }
      for (const std::uint64_t position : certain) {
        ASSERT_EQ(complete.count(position), 1u) << position;
      }
    }
  }

  void run(const std::string& name, unsigned seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    auto random = [engine = std::mt19937(seed)]() mutable {
      return static_cast<std::uint32_t>(engine());
    };
    ASSERT_TRUE(prepare().ok());
    std::map<std::uint64_t, std::uint32_t> live;
    for (int step = 0; step < 60; ++step) {
      const std::string before = folder.bytes(name);
      std::set<std::uint64_t> certain;
      for (const auto& [position, number] : live) certain.insert(position);
      std::set<std::string> states;
      {
        Disk disk(random(), before);
        if (header.logFlags == 1 || live.empty() || random() % 2 == 0) {
          const std::uint32_t number = 1 + random() % 40;
          const std::uint64_t position = appendComplete(number, std::string(random() % 700, 'a'));
          ASSERT_NE(position, 0u);
          disk.sample();
          ASSERT_EQ(platform::flushFile(metaData.logFile), 0u);
          live[position] = number;
        } else {
          auto it = live.lower_bound(random() % 4000);
          if (it == live.end()) it = live.begin();
          ASSERT_TRUE(removeLogEntry(metaData, it->second, it->first).ok());
          disk.sample();
          certain.erase(it->first);
          live.erase(it);
        }
        states = disk.states;
      }
      const std::string after = folder.bytes(name);
      check(states, name, certain);
      if (::testing::Test::HasFailure()) return;
      reopen();
      folder.write(name, after);
      ASSERT_TRUE(prepare().ok());
    }
  }
};

TEST_F(LogPower, TheSingleFormKeepsWhatWasCommittedAndStaysSound) {
  for (int round = 0; round < 5; ++round) {
    reopen();
    std::filesystem::remove(folder.path() / "shop.zll");
    run("shop.zll", std::random_device()());
    if (HasFailure()) return;
  }
}

TEST_F(LogPower, TheNumberedFormKeepsWhatWasCommittedAndStaysSound) {
  header.logFlags = 1;
  run("shop.0000.zll", std::random_device()());
}

}  // namespace
}  // namespace zelta
