// The same searches by Zeltastore and SQLite (WAL, synchronous FULL, prepared statements), in one
// run: boxes and spans beside R*Trees, words beside FTS5. Objects are loaded, looked for, and read.
//
//   search [FOLDER] [SCALE] [ROWS] [RUNS]
//
//   FOLDER: where the databases go (a folder of its own is made there)
//   SCALE: share of the full number of objects, 1 by default; 0.01 takes seconds
//   ROWS: only rows whose name holds this text, and what they need
//   RUNS: how often each row is run, 3 by default; figures are medians
//
// "us" is processor time per operation, which says more than the rates on a busy machine. Whether
// both find the same objects is checked before each row of searches. The seed is fixed.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "phase.h"
#include "search_data.h"
#include "search_engine.h"

namespace {

/// What an engine does in a phase.
using EnginePhase = std::function<Measure(SearchEngine&, const std::function<void()>& go)>;

constexpr std::int64_t kObjectsEach = 1000;  // of a transaction

EnginePhase loading(const SearchData& data, std::int64_t each) {
  return [=, &data](SearchEngine& engine, const std::function<void()>& go) {
    const std::int64_t count = data.count();
    Item item{};
    Measure m = timed(count, (count + each - 1) / each, go, [&] {
      for (std::int64_t i = 0; i < count;) {
        engine.beginWrite();
        for (const std::int64_t end = std::min(count, i + each); i < end; ++i) {
          data.make(i, &item);
          engine.add(item);
        }
        engine.commit();
      }
    });
    // What it costs to make the objects is no part of it.
    const Measure made = timed(
        count, 1, [] {},
        [&] {
          for (std::int64_t i = 0; i < count; ++i) data.make(i, &item);
        });
    m.end -= made.end - made.start;
    m.cpu -= made.cpu;
    return m;
  };
}

/// Searches, of which each has its objects read if that is wanted. What they find is looked at
/// beforehand, and brings everything into memory.
EnginePhase searching(const std::vector<Query>& queries, bool reads) {
  return [=, &queries](SearchEngine& engine, const std::function<void()>& go) {
    engine.beginRead();
    std::uint64_t found = 0;
    std::uint64_t checksum = 0;
    for (std::size_t i = 0; i < queries.size(); ++i) {
      const std::int64_t hits = engine.read(queries[i], [&](std::int64_t number) {
        checksum += scatter(static_cast<std::uint64_t>(number) + (std::uint64_t{i} << 32));
      });
      found += static_cast<std::uint64_t>(hits);
    }
    std::uint64_t again = 0;
    std::int64_t sum = 0;
    const auto take = [&](std::int64_t number) { sum += number; };
    Measure m = timed(static_cast<std::int64_t>(queries.size()), 1, go, [&] {
      for (const Query& query : queries) {
        const std::int64_t hits = reads ? engine.read(query, take) : engine.search(query);
        again += static_cast<std::uint64_t>(hits);
      }
    });
    engine.endRead();
    if (again != found) throw std::runtime_error("the same searches had other results");
    m.found = found;
    m.checksum = checksum;
    return m;
  };
}

/// Of several runs of a phase.
class Runs {
 public:
  void add(const Measure& m) { measures_.push_back(m); }
  [[nodiscard]] const Measure& first() const { return measures_.front(); }
  [[nodiscard]] double rate() const {
    return median([](const Measure& m) { return m.rate(); });
  }
  [[nodiscard]] double microseconds() const {
    return median([](const Measure& m) { return 1e6 * m.cpu / m.operations; });
  }
  [[nodiscard]] double megabytes() const {
    return median([](const Measure& m) { return static_cast<double>(m.peakKilobytes) / 1024; });
  }

 private:
  template <class Value>
  [[nodiscard]] double median(Value value) const {
    std::vector<double> values;
    for (const Measure& m : measures_) values.push_back(value(m));
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
  }

  std::vector<Measure> measures_;
};

struct Row {
  Runs zelta;
  Runs sqlite;
};

class Comparison {
 public:
  Comparison(std::string folder, std::string wanted, int runs)
      : folder_(std::move(folder)), wanted_(std::move(wanted)), runs_(runs) {
    std::printf("seed %llu, medians of %d runs\n%-52s %10s %10s %6s %9s %9s %8s %8s %8s\n",
                static_cast<unsigned long long>(SearchData::kSeed), runs, "", "zelta /s",
                "sqlite /s", "ratio", "zelta us", "sqlite us", "zelta MB", "sqlite MB", "hits");
  }

  [[nodiscard]] bool wants(const std::string& name) const {
    return name.find(wanted_) != std::string::npos;
  }

  /// Begins with new databases on every run. They stay for the searches that follow; if the row
  /// itself is not wanted, they are made once.
  Row load(const std::string& name, Content content, const EnginePhase& phase) {
    const Row row = run(content, true, wants(name) ? runs_ : 1, phase);
    if (wants(name)) print(name, row);
    return row;
  }
  void searches(const std::string& name, Content content, const std::vector<Query>& queries,
                bool reads) {
    if (!wants(name)) return;
    const Row row = run(content, false, runs_, searching(queries, reads));
    const Measure& zelta = row.zelta.first();
    const Measure& sqlite = row.sqlite.first();
    if (zelta.found != sqlite.found || zelta.checksum != sqlite.checksum) {
      throw std::runtime_error(name + ": " + std::to_string(zelta.found) + " hits against " +
                               std::to_string(sqlite.found) + ", or other ones");
    }
    print(name, row);
  }

 private:
  Row run(Content content, bool fresh, int runs, const EnginePhase& phase) {
    Row row;
    for (int i = 0; i < runs; ++i) {
      row.zelta.add(runOnce("zelta", makeZeltaSearch, content, fresh, phase));
      row.sqlite.add(runOnce("sqlite", makeSqliteSearch, content, fresh, phase));
    }
    return row;
  }

  Measure runOnce(const char* name, std::unique_ptr<SearchEngine> (*make)(), Content content,
                  bool fresh, const EnginePhase& phase) {
    const std::string folder = folder_ + "/" + name;
    if (fresh) std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    Worker worker([&](const std::function<void()>& go) {
      const auto engine = make();
      fresh ? engine->create(folder, content) : engine->open(folder, content);
      return phase(*engine, go);
    });
    worker.go();
    return worker.finish();
  }

  static void print(const std::string& name, const Row& row) {
    std::printf("%-52s %10.0f %10.0f %6.2f %9.1f %9.1f %8.1f %8.1f", name.c_str(), row.zelta.rate(),
                row.sqlite.rate(), row.zelta.rate() / row.sqlite.rate(), row.zelta.microseconds(),
                row.sqlite.microseconds(), row.zelta.megabytes(), row.sqlite.megabytes());
    const Measure& m = row.zelta.first();
    if (m.found != 0) std::printf(" %8.1f", static_cast<double>(m.found) / m.operations);
    std::printf("\n");
    std::fflush(stdout);
  }

  std::string folder_;
  std::string wanted_;
  int runs_;
};

/// A kind of search, as a row.
struct Searches {
  const char* name;
  Query::Kind kind;
  std::int64_t hits;  ///< about; 0: as they come
  int count;
  bool reads = false;
};

const std::vector<Searches> kBoxSearches = {
    {"about 10 hits", Query::Kind::box, 10, 20000},
    {"about 10 hits, and read them", Query::Kind::box, 10, 20000, true},
    {"about 1000 hits", Query::Kind::box, 1000, 1000},
    {"about 1000 hits, and read them", Query::Kind::box, 1000, 1000, true},
};
const std::vector<Searches> kSpanSearches = {
    {"about 10 hits", Query::Kind::span, 10, 20000},
    {"about 10 hits, and read them", Query::Kind::span, 10, 20000, true},
    {"about 1000 hits", Query::Kind::span, 1000, 1000},
    {"about 1000 hits, and read them", Query::Kind::span, 1000, 1000, true},
};
const std::vector<Searches> kWordSearches = {
    {"one word", Query::Kind::word, 0, 1000},
    {"one word, and read the objects", Query::Kind::word, 0, 1000, true},
    {"two words with and", Query::Kind::twoWords, 0, 500},
    {"prefix", Query::Kind::prefix, 0, 500},
    {"contains", Query::Kind::contains, 0, 200},
};

class Benchmark {
 public:
  Benchmark(Comparison& comparison, double scale) : comparison_(comparison), scale_(scale) {}

  void run() {
    for (const std::int64_t full : {200000, 1000000}) {
      const std::int64_t count = std::max<std::int64_t>(
          1000, static_cast<std::int64_t>(static_cast<double>(full) * scale_));
      const Order near = Order::near;
      loadAndSearch("boxes", SearchData(Content::boxes, count, near), kBoxSearches);
      loadAndSearch("boxes at random", SearchData(Content::boxes, count, Order::random),
                    kBoxSearches);
      loadAndSearch("spans", SearchData(Content::spans, count, near), kSpanSearches);
      loadAndSearch("spans at random", SearchData(Content::spans, count, Order::random),
                    kSpanSearches);
      loadAndSearch("texts", SearchData(Content::texts, count, near), kWordSearches);
      loadAndSearch("five indexes", SearchData(Content::all, count, near), {});
      if (full == 200000) loadCommonWord(count);
    }
  }

 private:
  /// Searches are of that which a load has left.
  void loadAndSearch(const std::string& what, const SearchData& data,
                     const std::vector<Searches>& all) {
    const std::string rows = what + " (" + std::to_string(data.count()) + "): ";
    std::vector<const Searches*> wanted;
    for (const Searches& searches : all) {
      if (comparison_.wants(rows + searches.name)) wanted.push_back(&searches);
    }
    if (wanted.empty() && !comparison_.wants(rows + "load")) return;
    comparison_.load(rows + "load", data.content(), loading(data, kObjectsEach));
    for (const Searches* searches : wanted) {
      const int queries = std::max(20, static_cast<int>(searches->count * std::min(scale_, 1.0)));
      comparison_.searches(rows + searches->name, data.content(),
                           data.queries(searches->kind, searches->hits, queries), searches->reads);
    }
  }

  /// A word that all objects share, against the same texts without it.
  void loadCommonWord(std::int64_t count) {
    constexpr std::int64_t kEach = 10000;
    const std::string name = "texts (" + std::to_string(count) + "): load, one word in all";
    if (!comparison_.wants(name)) return;
    SearchData data(Content::texts, count, Order::near);
    const Row without = comparison_.load(name + ", without", data.content(), loading(data, kEach));
    data.addToTexts("everywhere");
    const Row with = comparison_.load(name, data.content(), loading(data, kEach));
    std::printf("  the word makes the load take %.2f times as long; sqlite: %.2f times\n",
                without.zelta.rate() / with.zelta.rate(),
                without.sqlite.rate() / with.sqlite.rate());
  }

  Comparison& comparison_;
  double scale_;
};

}  // namespace

int main(int argc, char** argv) try {
  const std::string parent = argc > 1 ? argv[1] : std::filesystem::temp_directory_path().string();
  const double scale = argc > 2 ? std::atof(argv[2]) : 1;
  const int runs = argc > 4 ? std::atoi(argv[4]) : 3;
  const std::string folder = parent + "/zelta-bench-" + std::to_string(getpid());
  if (!std::filesystem::create_directory(folder)) throw std::runtime_error(folder + " exists");
  Comparison comparison(folder, argc > 3 ? argv[3] : "", std::max(runs, 1));
  Benchmark(comparison, scale > 0 ? scale : 1).run();
  std::filesystem::remove_all(folder);
} catch (const std::exception& error) {
  std::fprintf(stderr, "search: %s\n", error.what());
  return 1;
}
