// The same work on objects by Zeltastore and SQLite (WAL, synchronous FULL, prepared statements),
// in one run: loading, random reads by ID and by key, an ordered scan, updates and deletes, single
// durable commits, and one writer against two.
//
//   objects [FOLDER] [SCALE] [ROWS]
//
//   FOLDER: where the databases go (a folder of its own is made there)
//   SCALE: share of the full number of objects, 1 by default
//   ROWS: only rows whose name holds this text, and what they need
//
// "us" is processor time per operation, which says more than the rates on a busy machine. Each
// phase runs in processes of its own, so that peak memory is that phase's. The seed is fixed.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine.h"
#include "phase.h"

namespace {

constexpr std::uint64_t kSeed = 20180207;

std::string keyOf(std::int64_t number) {
  char text[17];
  std::snprintf(
      text, sizeof text, "%016llx",
      static_cast<unsigned long long>(scatter(static_cast<std::uint64_t>(number) + kSeed)));
  return text;
}

Item itemOf(std::int64_t number) {
  const auto n = static_cast<std::int32_t>(number);
  return {number,
          static_cast<double>(number) * 0.5,
          n,
          -n,
          keyOf(number),
          std::string(70, static_cast<char>('a' + number % 26))};
}

/// What an engine does in a phase.
using EnginePhase = std::function<Measure(Engine&, const std::function<void()>& go)>;

EnginePhase loading(std::int64_t count, std::int64_t each) {
  return [=](Engine& engine, const std::function<void()>& go) {
    return timed(count, (count + each - 1) / each, go, [&] {
      for (std::int64_t i = 0; i < count;) {
        engine.beginWrite();
        for (std::int64_t end = std::min(count, i + each); i < end; ++i) engine.add(itemOf(i));
        engine.commit();
      }
    });
  };
}

EnginePhase reading(std::int64_t count, std::int64_t reads, bool byKey, bool transactionEach) {
  return [=](Engine& engine, const std::function<void()>& go) {
    return timed(reads, transactionEach ? reads : 1, go, [&] {
      std::mt19937_64 random(kSeed);
      if (!transactionEach) engine.beginRead();
      for (std::int64_t i = 0; i < reads; ++i) {
        const auto number = static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(count));
        if (transactionEach) engine.beginRead();
        const std::int64_t found =
            byKey ? engine.readByKey(keyOf(number)) : engine.readById(number + 1);
        if (found != number) throw std::runtime_error("the wrong object was read");
        if (transactionEach) engine.endRead();
      }
      if (!transactionEach) engine.endRead();
    });
  };
}

EnginePhase scanning(std::int64_t count) {
  return [=](Engine& engine, const std::function<void()>& go) {
    return timed(count, 1, go, [&] {
      engine.beginRead();
      if (engine.scan() != count) throw std::runtime_error("the scan missed objects");
      engine.endRead();
    });
  };
}

constexpr std::int64_t kChangesEach = 1000;

/// `changes` different objects of `count`, in no order, of which this writer takes those from
/// `first` on in steps of `step`, in transactions of 1,000. `salt` makes the new values; 0:
/// deletes.
EnginePhase changing(std::int64_t count, std::int64_t changes, std::int64_t salt,
                     std::int64_t first = 0, std::int64_t step = 1) {
  return [=](Engine& engine, const std::function<void()>& go) {
    std::vector<std::int64_t> ids(static_cast<std::size_t>(count));
    std::iota(ids.begin(), ids.end(), 1);
    std::shuffle(ids.begin(), ids.end(), std::mt19937_64(kSeed));
    std::vector<std::int64_t> mine;
    for (std::int64_t i = first; i < changes; i += step) {
      mine.push_back(ids[static_cast<std::size_t>(i)]);
    }
    const auto total = static_cast<std::int64_t>(mine.size());
    return timed(total, (total + kChangesEach - 1) / kChangesEach, go, [&] {
      for (std::int64_t i = 0; i < total;) {
        engine.beginWrite();
        for (std::int64_t end = std::min(total, i + kChangesEach); i < end; ++i) {
          const std::int64_t id = mine[static_cast<std::size_t>(i)];
          if (salt == 0) {
            engine.remove(id);
          } else {
            engine.update(id, itemOf(id + salt));
          }
        }
        engine.commit();
      }
    });
  };
}

class Comparison {
 public:
  Comparison(std::string folder, std::string wanted)
      : folder_(std::move(folder)), wanted_(std::move(wanted)) {
    std::printf("seed %llu\n%-46s %10s %10s %6s %8s %8s %8s %8s %8s %8s\n",
                static_cast<unsigned long long>(kSeed), "", "zelta /s", "sqlite /s", "ratio",
                "zelta us", "sqlite us", "zelta MB", "sqlite MB", "calls/op", "flush/tx");
  }

  [[nodiscard]] bool wants(const std::string& name) const {
    return name.find(wanted_) != std::string::npos;
  }
  /// One row: the phases side by side, by both engines. `fresh` begins with new databases.
  void row(const std::string& name, bool fresh, const std::vector<EnginePhase>& phases) {
    const Measure zelta = run("zelta", makeZelta, fresh, phases);
    const Measure sqlite = run("sqlite", makeSqlite, fresh, phases);
    if (!wants(name)) return;
    std::printf("%-46s %10.0f %10.0f %6.2f %8.1f %8.1f %8.1f %8.1f", name.c_str(), zelta.rate(),
                sqlite.rate(), zelta.rate() / sqlite.rate(), 1e6 * zelta.cpu / zelta.operations,
                1e6 * sqlite.cpu / sqlite.operations,
                static_cast<double>(zelta.peakKilobytes) / 1024,
                static_cast<double>(sqlite.peakKilobytes) / 1024);
    if (zelta.calls > 0) {
      std::printf(" %8.2f %8.2f", zelta.calls / zelta.operations,
                  zelta.flushes / zelta.transactions);
    }
    std::printf("\n");
    std::fflush(stdout);
  }
  /// A row that changes nothing, or what no other row needs.
  void optional(const std::string& name, bool fresh, const EnginePhase& phase) {
    if (wants(name)) row(name, fresh, {phase});
  }

 private:
  Measure run(const char* name, std::unique_ptr<Engine> (*make)(), bool fresh,
              const std::vector<EnginePhase>& phases) {
    const std::string folder = folder_ + "/" + name;
    if (fresh) std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    std::vector<std::unique_ptr<Worker>> workers;
    for (const EnginePhase& phase : phases) {
      workers.push_back(std::make_unique<Worker>([&](const std::function<void()>& go) {
        const auto engine = make();
        fresh ? engine->create(folder) : engine->open(folder);
        return phase(*engine, go);
      }));
    }
    for (const auto& worker : workers) worker->go();
    Measure all = workers[0]->finish();
    for (std::size_t i = 1; i < workers.size(); ++i) all = together(all, workers[i]->finish());
    return all;
  }

  std::string folder_;
  std::string wanted_;
};

std::string label(const char* text, std::int64_t n) { return text + std::to_string(n); }

void compareSize(Comparison& comparison, std::int64_t n, std::int64_t reads) {
  const std::string of = label(" of ", n);
  for (const std::int64_t each : {n, std::int64_t{1000}, std::int64_t{10000}}) {
    const std::string name = label("load ", n) + label(" in transactions of ", each);
    // The last one leaves what the other rows read.
    if (each == 10000 || comparison.wants(name)) comparison.row(name, true, {loading(n, each)});
  }
  comparison.optional("read by ID, one transaction" + of, false, reading(n, reads, false, false));
  comparison.optional("read by ID, transaction each" + of, false, reading(n, reads, false, true));
  comparison.optional("read by key, one transaction" + of, false, reading(n, reads, true, false));
  comparison.optional("read by key, transaction each" + of, false, reading(n, reads, true, true));
  comparison.optional("ordered scan" + of, false, scanning(n));
  const std::int64_t changes = std::min<std::int64_t>(n / 2, 20000);
  comparison.optional(label("update ", changes) + of, false, changing(n, changes, 3));
  const std::string two = label("update ", changes) + of + " by two writers";
  if (comparison.wants(two)) {
    comparison.row(two, false, {changing(n, changes, 7, 0, 2), changing(n, changes, 7, 1, 2)});
  }
  comparison.optional(label("delete ", changes) + of, false, changing(n, changes, 0));
}

void compare(Comparison& comparison, double scale) {
  const auto scaled = [&](std::int64_t n) {
    return std::max<std::int64_t>(2, static_cast<std::int64_t>(static_cast<double>(n) * scale));
  };
  for (const std::int64_t full : {200000, 1000000}) {
    compareSize(comparison, scaled(full), scaled(200000));
  }
  comparison.optional("single durable commits", true, loading(scaled(2000), 1));
}

}  // namespace

int main(int argc, char** argv) try {
  const std::string parent = argc > 1 ? argv[1] : std::filesystem::temp_directory_path().string();
  const double scale = argc > 2 ? std::atof(argv[2]) : 1;
  const std::string folder = parent + "/zelta-bench-" + std::to_string(getpid());
  if (!std::filesystem::create_directory(folder)) throw std::runtime_error(folder + " exists");
  Comparison comparison(folder, argc > 3 ? argv[3] : "");
  compare(comparison, scale > 0 ? scale : 1);
  std::filesystem::remove_all(folder);
} catch (const std::exception& error) {
  std::fprintf(stderr, "objects: %s\n", error.what());
  return 1;
}
