// Makes the seeds of all targets: databases of all forms, and what processes leave that die at a
// call which changes files; calls at random. The argument is the folder for them.

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>

#include "czelta.h"
#include "fuzz/archive.h"
#include "fuzz/found.h"
#include "fuzz/schemas.h"
#include "fuzz/session.h"
#include "fuzz/world.h"
#include "platform/faults.h"

using namespace zelta::fuzz;

namespace {

using zelta::platform::faults::Call;

bool changesFiles(Call call) {
  return call == Call::write || call == Call::truncate || call == Call::remove ||
         call == Call::rename;
}

/// Kills the process at a call that changes files, before it acts or in the midst of a write.
class DieAt : public zelta::platform::faults::Hook {
 public:
  explicit DieAt(unsigned calls) : left_(calls / 2), cut_(calls % 2 != 0) {
    zelta::platform::faults::install(this);
  }
  zelta::platform::faults::Verdict before(const zelta::platform::faults::Event& event) override {
    zelta::platform::faults::Verdict verdict;
    if (!changesFiles(event.call) || left_-- != 0) return verdict;
    verdict.die = true;
    constexpr std::uint64_t kWhole = 76;
    if (cut_ && event.call == Call::write && event.length > kWhole) {
      verdict.cutTo = event.length / 2;
    }
    return verdict;
  }

 private:
  unsigned left_;
  bool cut_;
};

/// Calls that change files, counted in memory that a child shares with its parent.
class CountCalls : public zelta::platform::faults::Hook {
 public:
  CountCalls()
      : calls_(static_cast<unsigned*>(mmap(nullptr, sizeof(unsigned), PROT_READ | PROT_WRITE,
                                           MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
  zelta::platform::faults::Verdict before(const zelta::platform::faults::Event& event) override {
    if (changesFiles(event.call)) ++*calls_;
    return {};
  }
  [[nodiscard]] unsigned calls() const { return *calls_; }

 private:
  unsigned* calls_;
};

/// Runs in a process of its own. Whether it came to its end.
bool inChild(const std::function<void()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    work();
    _exit(0);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
  expect(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL, "a seed cannot be made");
  return false;
}

void must(CZELTA& handle, unsigned long long word) {
  zelta::fuzz::must(handle, word, "a seed cannot be made");
}

/// A handle of the seeds' database.
class Seed {
 public:
  void create() { must(handle, handle.CreateDatabase(path().c_str())); }
  void open() { must(handle, handle.OpenDatabase(path().c_str())); }
  void begin(CZELTA::Mode mode = CZELTA::TransactionShared) {
    must(handle, handle.BeginTransaction(mode, 1000));
  }
  void end() { must(handle, handle.EndTransaction()); }
  void commit() { must(handle, handle.CommitTransaction(true)); }
  void makeTable(Form form, const char16_t* name, const char16_t* folder = nullptr) {
    FormSchema schema(form, name, folder);
    must(handle, handle.CreateTable(&schema.schema, nullptr));
  }
  void keepLogs() {
    must(handle, handle.SetDatabaseParameter(CZELTA::ParameterKeepLogFiles, 1));
    must(handle, handle.SetDatabaseParameter(CZELTA::ParameterLogFileSize, 1));
  }
  void enter(CZELTA::Mode mode = CZELTA::TransactionShared) {
    begin(mode);
    must(handle, handle.OpenTable(1));
  }
  void add(Form form, std::uint32_t from, std::uint32_t to, std::size_t length = 15) {
    for (std::uint32_t i = from; i <= to; ++i) {
      must(handle, addContent(handle, 1, form, contentOf(form, i, length), 0));
    }
  }
  void rewrite(Form form, long long id, std::uint32_t number, std::size_t length) {
    CZELTA::Object object{};
    must(handle, handle.ReadObject(1, id, &object));
    must(handle, putContent(handle, 1, form, contentOf(form, number, length), object));
    must(handle, handle.RewriteObject(1, &object));
  }
  void erase(long long id) { must(handle, handle.DeleteObject(1, id, nullptr)); }
  /// Changes of all kinds, of which some move objects and some leave gaps.
  void change(Form form) {
    rewrite(form, 2, 102, 60);
    rewrite(form, 3, 103, 4);
    erase(5);
    erase(6);
    add(form, 30, 32, 9);
  }

  CZELTA handle;

 private:
  static const std::u16string& path() {
    static const std::u16string text = World::path("db.zlc");
    return text;
  }
};

class SeedMaker {
 public:
  explicit SeedMaker(std::filesystem::path folder) : folder_(std::move(folder)) {}

  void make();
  [[nodiscard]] unsigned count() const { return count_; }

 private:
  /// Files that stand now, with some work to do on them.
  void keep(const std::string& name, Archive archive);
  /// What work leaves that comes to its end.
  Archive after(const Archive& start, const std::function<void(Seed&)>& work);
  /// What `work`, behind `before`, leaves at deaths at about `most` of its calls.
  std::vector<Archive> deaths(const std::string& name, const Archive& start, unsigned most,
                              const std::function<void(Seed&)>& before,
                              const std::function<void(Seed&)>& work);
  Archive filled(Form form, bool kept, bool folder);
  void makeForm(Form form);
  void makeRotation();
  /// Trees of several levels in all files.
  void makeDeepTrees();
  void makeLarge(Form form, const std::string& name);
  void makeDirectoryChanges();
  /// Calls of the whole interface at random, for the target that has no files.
  void makeCalls();
  std::string steering();

  std::filesystem::path folder_;
  std::mt19937 random_{5489};
  unsigned count_ = 0;
};

Archive taken() {
  Archive out;
  const auto files = World::get().files();
  for (std::size_t i = 0; i < kFileNameCount; ++i) {
    const auto file = files.find(kFileNames[i]);
    if (file != files.end()) out.files.push_back({i, file->second});
  }
  return out;
}

/// Begins a transaction of some kind, opens the tables, and goes on at random.
std::string SeedMaker::steering() {
  std::string out{0, static_cast<char>(random_() % 6), 0};
  for (unsigned left = 20 + random_() % 120; left != 0; --left) {
    out += static_cast<char>(random_() % 256);
  }
  return out;
}

void SeedMaker::keep(const std::string& name, Archive archive) {
  archive.steering = steering();
  const std::string bytes = pack(archive);
  std::ofstream(folder_ / "databases" / name, std::ios::binary | std::ios::trunc) << bytes;
  ++count_;
}

Archive SeedMaker::after(const Archive& start, const std::function<void(Seed&)>& work) {
  World::get().lay(start);
  const bool done = inChild([&] {
    Seed seed;
    work(seed);
  });
  expect(done, "a seed cannot be made");
  return taken();
}

std::vector<Archive> SeedMaker::deaths(const std::string& name, const Archive& start, unsigned most,
                                       const std::function<void(Seed&)>& before,
                                       const std::function<void(Seed&)>& work) {
  CountCalls counted;
  after(start, [&](Seed& seed) {
    before(seed);
    zelta::platform::faults::install(&counted);
    work(seed);
    zelta::platform::faults::install(nullptr);
  });
  std::vector<Archive> out;
  const unsigned calls = 2 * counted.calls();  // each with a write in the midst of it, too
  for (unsigned i = 0; i < most; ++i) {
    World::get().lay(start);
    const unsigned call = calls * i / most;
    inChild([&] {
      Seed seed;
      before(seed);
      static DieAt death(call);
      work(seed);
    });
    out.push_back(taken());
    keep(name + "-" + std::to_string(call), out.back());
  }
  return out;
}

Archive SeedMaker::filled(Form form, bool kept, bool folder) {
  static const std::u16string indexFolder = World::path("i/");
  return after({}, [&](Seed& seed) {
    seed.create();
    seed.begin(CZELTA::TransactionExclusive);
    if (kept) seed.keepLogs();
    seed.makeTable(form, u"a", folder ? indexFolder.c_str() : nullptr);
    if (folder) seed.makeTable(Form::fixed, u"b");
    seed.end();
    seed.enter();
    seed.add(form, 1, 9);
    seed.commit();
    seed.erase(4);
    seed.commit();
    seed.end();
  });
}

void SeedMaker::makeForm(Form form) {
  const std::string name = "form" + std::to_string(static_cast<int>(form));
  for (const bool kept : {false, true}) {
    const Archive start = filled(form, kept, kept && form != Form::bare);
    const std::string whole = name + (kept ? "-kept" : "-single");
    keep(whole, start);
    keep(whole + "-changed", after(start, [&](Seed& seed) {
           seed.open();
           seed.enter();
           seed.change(form);
           seed.commit();
         }));
    const auto dead = deaths(
        whole + "-commit", start, 9,
        [&](Seed& seed) {
          seed.open();
          seed.enter();
          seed.change(form);
        },
        [&](Seed& seed) { seed.commit(); });
    deaths(
        whole + "-add", start, 2,
        [&](Seed& seed) {
          seed.open();
          seed.enter();
        },
        [&](Seed& seed) { seed.change(form); });
    deaths(
        whole + "-repair", dead[dead.size() / 2], 4, [](Seed&) {},
        [&](Seed& seed) {
          seed.open();
          seed.begin();
        });
  }
}

/// A log of 1 MiB would make a large seed: what filled the first file is left out of it.
void SeedMaker::makeRotation() {
  constexpr std::size_t kLogName = 2;
  const Archive start = filled(Form::variable, true, false);
  Archive full = after(start, [](Seed& seed) {
    seed.open();
    seed.begin(CZELTA::TransactionExclusive);
    seed.makeTable(Form::bare, u"c");
    must(seed.handle,
         addContent(seed.handle, 2, Form::bare, contentOf(Form::bare, 1, std::size_t{1} << 20), 0));
    seed.commit();
    must(seed.handle, seed.handle.RemoveTable(2, true));
    seed.end();
  });
  const auto shorten = [&](Archive archive) {
    for (ArchivedFile& file : archive.files) {
      if (file.name == kLogName) file.bytes = start.files[*start.find(kLogName)].bytes;
    }
    return archive;
  };
  const Archive rotated = after(full, [](Seed& seed) {
    seed.open();
    seed.enter();
    seed.change(Form::variable);
    seed.commit();
  });
  keep("rotated", shorten(rotated));
  for (unsigned call = 0; call < 12; ++call) {
    World::get().lay(full);
    const bool done = inChild([&] {
      Seed seed;
      seed.open();
      static DieAt death(call);
      seed.begin();
    });
    if (done) break;
    keep("rotation-" + std::to_string(call), shorten(taken()));
  }
}

void SeedMaker::makeDeepTrees() {
  constexpr std::size_t kLongKey = 110;
  const auto enter = [](Seed& seed) {
    seed.open();
    seed.enter();
  };
  const Archive keys = after(filled(Form::variable, false, false), [&](Seed& seed) {
    enter(seed);
    seed.add(Form::variable, 100, 139, kLongKey);
    seed.commit();
  });
  const auto thin = [&](Seed& seed) {
    for (long long id = 12; id < 44; id += 1 + id % 2) seed.erase(id);
    seed.add(Form::variable, 200, 209, kLongKey);
  };
  keep("deep", keys);
  deaths(
      "deep-commit", keys, 6,
      [&](Seed& seed) {
        enter(seed);
        thin(seed);
      },
      [](Seed& seed) { seed.commit(); });
  deaths("deep-add", keys, 3, enter, thin);
  const auto addMany = [](Seed& seed) { seed.add(Form::fixed, 100, 230); };
  const Archive few = filled(Form::fixed, true, false);
  deaths("many-add", few, 6, enter, addMany);
  keep("many-commits", after(few, [&](Seed& seed) {
         enter(seed);
         for (std::uint32_t i = 100; i < 140; ++i) {
           seed.add(Form::fixed, i, i);
           seed.commit();
         }
       }));
}

/// Trees of a form that are large enough to be divided, thinned out and joined again.
void SeedMaker::makeLarge(Form form, const std::string& name) {
  constexpr std::size_t kLength = 16;
  const auto enter = [](Seed& seed) {
    seed.open();
    seed.enter();
  };
  const Archive large = after(filled(form, false, false), [&](Seed& seed) {
    enter(seed);
    seed.add(form, 100, 170, kLength);
    seed.commit();
  });
  const auto thin = [&](Seed& seed) {
    for (long long id = 12; id < 75; id += 1 + id % 2) seed.erase(id);
    for (long long id = 75; id < 79; ++id) {
      seed.rewrite(form, id, 300 + static_cast<std::uint32_t>(id), kLength);
    }
    seed.add(form, 200, 260, kLength);
  };
  keep(name, large);
  deaths(
      name + "-commit", large, 8,
      [&](Seed& seed) {
        enter(seed);
        thin(seed);
      },
      [](Seed& seed) { seed.commit(); });
  deaths(name + "-add", large, 6, enter, thin);
}

void SeedMaker::makeDirectoryChanges() {
  const Archive empty = after({}, [](Seed& seed) { seed.create(); });
  keep("empty", empty);
  deaths(
      "create", {}, 4, [](Seed&) {}, [](Seed& seed) { seed.create(); });
  for (const bool kept : {false, true}) {
    const Archive start = filled(Form::variable, kept, false);
    const std::string tail = kept ? "-kept" : "-single";
    const auto exclusive = [](Seed& seed) {
      seed.open();
      seed.begin(CZELTA::TransactionExclusive);
    };
    deaths("make-table" + tail, start, 8, exclusive,
           [](Seed& seed) { seed.makeTable(Form::wide, u"b"); });
    deaths("remove-table" + tail, start, 8, exclusive,
           [](Seed& seed) { must(seed.handle, seed.handle.RemoveTable(1, true)); });
    deaths("parameter" + tail, start, 6, exclusive, [&](Seed& seed) {
      must(seed.handle,
           seed.handle.SetDatabaseParameter(CZELTA::ParameterKeepLogFiles, kept ? 0 : 1));
    });
    keep("taken-out" + tail, after(start, [&](Seed& seed) {
           exclusive(seed);
           must(seed.handle, seed.handle.RemoveTable(1, false));
         }));
  }
}

void SeedMaker::makeCalls() {
  for (unsigned i = 0; i < 60; ++i) {
    std::string bytes(1, static_cast<char>(i));
    for (unsigned left = 120 + random_() % 600; left != 0; --left) {
      bytes += static_cast<char>(random_() % 256);
    }
    std::ofstream(folder_ / "calls" / std::to_string(i), std::ios::binary) << bytes;
    ++count_;
  }
}

void SeedMaker::make() {
  for (const Form form : kForms) makeForm(form);
  makeRotation();
  makeDeepTrees();
  makeLarge(Form::shapes, "shapes");
  makeLarge(Form::words, "words");
  makeDirectoryChanges();
  makeCalls();
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 2) {
    std::fputs("usage: make_seeds FOLDER\n", stderr);
    return 2;
  }
  const std::filesystem::path folder = arguments[1];
  for (const char* part : {"databases", "calls"})
    std::filesystem::create_directories(folder / part);
  World::get();
  SeedMaker maker(folder);
  maker.make();
  std::printf("%u seeds\n", maker.count());
  return 0;
}
