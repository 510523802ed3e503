// The same work on objects by Zeltastore and SQLite (WAL, synchronous FULL, prepared statements),
// in one run: loading, single durable commits, random reads by ID and by key, an ordered scan.
//
//   objects [FOLDER] [SCALE]     FOLDER: where the databases go (a folder of its own is made
//   there);
//                                SCALE: share of the full size, 1 by default
//
// Each phase runs in a process of its own, so that peak memory is that phase's. The seed is fixed.

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>

#include "engine.h"

namespace {

constexpr std::uint64_t kSeed = 20180207;

/// A number in, another out, one to one and in no order.
std::uint64_t scatter(std::uint64_t x) {
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9;
  x = (x ^ (x >> 27)) * 0x94d049bb133111eb;
  return x ^ (x >> 31);
}

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

struct Measure {
  double seconds = 0;
  double operations = 0;
  double calls = 0;
  double flushes = 0;
  double transactions = 1;
  long peakKilobytes = 0;
};

using Phase = std::function<Measure(Engine&)>;

Measure timed(std::int64_t operations, std::int64_t transactions,
              const std::function<void()>& work) {
  const Calls before = countCalls();
  const auto start = std::chrono::steady_clock::now();
  work();
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
  const Calls after = countCalls();
  Measure m;
  m.seconds = time.count();
  m.operations = static_cast<double>(operations);
  m.transactions = static_cast<double>(transactions);
  m.calls = static_cast<double>(after.all - before.all);
  m.flushes = static_cast<double>(after.flushes - before.flushes);
  return m;
}

/// Runs a phase in a process of its own.
Measure inChild(std::unique_ptr<Engine> (*make)(), const std::string& folder, bool create,
                const Phase& phase) {
  int ends[2];
  if (pipe(ends) != 0) throw std::runtime_error("no pipe");
  const pid_t child = fork();
  if (child == 0) {
    Measure m;
    try {
      auto engine = make();
      if (create) {
        engine->create(folder);
      } else {
        engine->open(folder);
      }
      m = phase(*engine);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "objects: %s\n", error.what());
      _exit(1);
    }
    if (write(ends[1], &m, sizeof m) != sizeof m) _exit(1);
    _exit(0);
  }
  close(ends[1]);
  Measure m;
  const bool read_all = read(ends[0], &m, sizeof m) == sizeof m;
  close(ends[0]);
  int status = 0;
  rusage usage = {};
  wait4(child, &status, 0, &usage);
  if (!read_all || status != 0) throw std::runtime_error("a phase failed");
  m.peakKilobytes = usage.ru_maxrss;
  return m;
}

Phase loading(std::int64_t count, std::int64_t each) {
  return [=](Engine& engine) {
    return timed(count, (count + each - 1) / each, [&] {
      for (std::int64_t i = 0; i < count;) {
        engine.beginWrite();
        for (std::int64_t end = std::min(count, i + each); i < end; ++i) engine.add(itemOf(i));
        engine.commit();
      }
    });
  };
}

Phase reading(std::int64_t count, std::int64_t reads, bool byKey, bool transactionEach) {
  return [=](Engine& engine) {
    return timed(reads, transactionEach ? reads : 1, [&] {
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

Phase scanning(std::int64_t count) {
  return [=](Engine& engine) {
    return timed(count, 1, [&] {
      engine.beginRead();
      if (engine.scan() != count) throw std::runtime_error("the scan missed objects");
      engine.endRead();
    });
  };
}

class Comparison {
 public:
  explicit Comparison(std::string folder) : folder_(std::move(folder)) {
    std::printf("seed %llu\n%-40s %12s %12s %6s %9s %9s %9s %9s\n",
                static_cast<unsigned long long>(kSeed), "", "zelta /s", "sqlite /s", "ratio",
                "zelta MB", "sqlite MB", "calls/op", "flush/tx");
  }

  /// One row: the phase by both engines. `fresh` begins with new databases.
  void row(const char* name, bool fresh, const Phase& phase) {
    const Measure zelta = run("zelta", makeZelta, fresh, phase);
    const Measure sqlite = run("sqlite", makeSqlite, fresh, phase);
    std::printf("%-40s %12.0f %12.0f %6.2f %9.1f %9.1f", name, zelta.operations / zelta.seconds,
                sqlite.operations / sqlite.seconds,
                zelta.operations / zelta.seconds / (sqlite.operations / sqlite.seconds),
                static_cast<double>(zelta.peakKilobytes) / 1024,
                static_cast<double>(sqlite.peakKilobytes) / 1024);
    if (zelta.calls > 0) {
      std::printf(" %9.2f %9.2f", zelta.calls / zelta.operations,
                  zelta.flushes / zelta.transactions);
    }
    std::printf("\n");
    std::fflush(stdout);
  }

 private:
  Measure run(const char* name, std::unique_ptr<Engine> (*make)(), bool fresh, const Phase& phase) {
    const std::string folder = folder_ + "/" + name;
    if (fresh) std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    return inChild(make, folder, fresh, phase);
  }

  std::string folder_;
};

void compare(Comparison& comparison, double scale) {
  const auto scaled = [&](std::int64_t n) {
    return std::max<std::int64_t>(1, static_cast<std::int64_t>(static_cast<double>(n) * scale));
  };
  const auto label = [](const char* text, std::int64_t n) { return text + std::to_string(n); };
  for (const std::int64_t full : {200000, 1000000}) {
    const std::int64_t n = scaled(full);
    for (const std::int64_t each : {n, scaled(1000), scaled(10000)}) {
      const std::string name = label("load ", n) + label(" in transactions of ", each);
      comparison.row(name.c_str(), true, loading(n, each));
    }
    const std::int64_t reads = scaled(200000);
    comparison.row(label("read by ID, one transaction, of ", n).c_str(), false,
                   reading(n, reads, false, false));
    comparison.row("read by ID, transaction each", false, reading(n, reads, false, true));
    comparison.row("read by key, one transaction", false, reading(n, reads, true, false));
    comparison.row("read by key, transaction each", false, reading(n, reads, true, true));
    comparison.row("ordered scan", false, scanning(n));
  }
  comparison.row("single durable commits", true, loading(scaled(2000), 1));
}

}  // namespace

int main(int argc, char** argv) try {
  const std::string parent = argc > 1 ? argv[1] : std::filesystem::temp_directory_path().string();
  const double scale = argc > 2 ? std::atof(argv[2]) : 1;
  std::string folder = parent + "/zelta-bench-XXXXXX";
  if (mkdtemp(folder.data()) == nullptr)
    throw std::runtime_error("cannot make a folder in " + parent);
  Comparison comparison(folder);
  compare(comparison, scale > 0 ? scale : 1);
  std::filesystem::remove_all(folder);
} catch (const std::exception& error) {
  std::fprintf(stderr, "objects: %s\n", error.what());
  return 1;
}
