// What processes do to their files, and what a disk may hold of it when power is lost.

#ifndef ZELTA_TESTS_CRASH_RECORDED_DISK_H
#define ZELTA_TESTS_CRASH_RECORDED_DISK_H

#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "platform/faults.h"
#include "support/storage_fixture.h"

namespace zelta::testing {

struct Change {
  enum class Kind { write, cut, removal, flush };
  Kind kind;
  std::string file;
  std::uint64_t position;
  std::string bytes;
};

/// Takes down what a process does to its files.
class Recorder : public platform::faults::Hook {
 public:
  Recorder() { platform::faults::install(this); }
  ~Recorder() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    using platform::faults::Call;
    const std::string file = std::filesystem::path(event.name).filename().string();
    if (event.call == Call::write) {
      changes.push_back({Change::Kind::write, file, event.position,
                         std::string(static_cast<const char*>(event.data), event.length)});
    } else if (event.call == Call::truncate) {
      changes.push_back({Change::Kind::cut, file, event.position, {}});
    } else if (event.call == Call::remove) {
      changes.push_back({Change::Kind::removal, file, 0, {}});
    } else if (event.call == Call::flush) {
      changes.push_back({Change::Kind::flush, file, 0, {}});
    }
    return {};
  }
  std::vector<Change> changes;
};

/// The files of a disk. What was not flushed may be lost.
class Disk {
 public:
  explicit Disk(const FreshFolder& folder) {
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
      const std::string name = entry.path().filename().string();
      files_[name].bytes = folder.bytes(name);
      files_[name].there = true;
    }
  }
  void make(const Change& change) {
    File& file = files_[change.file];
    if (change.kind != Change::Kind::flush) {
      file.pending.push_back(change);
      return;
    }
    for (const Change& earlier : file.pending) apply(file, earlier);
    file.pending.clear();
  }
  /// The files if everything got through.
  [[nodiscard]] std::map<std::string, std::string> whole() const {
    std::map<std::string, std::string> out;
    for (const auto& [name, before] : files_) {
      File file = before;
      for (const Change& change : before.pending) apply(file, change);
      if (file.there) out[name] = file.bytes;
    }
    return out;
  }
  /// Writes to the folder what a loss of power right now could leave.
  void lose(const FreshFolder& folder, std::mt19937& random) const {
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
      std::filesystem::remove(entry.path());
    }
    // How much gets lost differs from loss to loss.
    const auto keep = random() % 5;
    for (const auto& [name, before] : files_) {
      File file = before;
      for (const Change& change : before.pending) {
        if (random() % 4 < keep) {
          apply(file, change);
        } else if (change.kind == Change::Kind::write && random() % 2 == 0) {
          tear(file, change, random);
        }
      }
      if (file.there) folder.write(name, file.bytes);
    }
  }

 private:
  struct File {
    std::string bytes;
    bool there = false;
    std::vector<Change> pending;
  };
  static void put(File& file, std::uint64_t position, const std::string& bytes) {
    file.there = true;
    if (file.bytes.size() < position + bytes.size()) {
      file.bytes.resize(position + bytes.size(), '\0');
    }
    file.bytes.replace(position, bytes.size(), bytes);
  }
  static void apply(File& file, const Change& change) {
    switch (change.kind) {
      case Change::Kind::write:
        put(file, change.position, change.bytes);
        break;
      case Change::Kind::cut:
        file.bytes.resize(change.position, '\0');
        break;
      case Change::Kind::removal:
        file.bytes.clear();
        file.there = false;
        break;
      case Change::Kind::flush:
        break;
    }
  }
  static void tear(File& file, const Change& change, std::mt19937& random) {
    constexpr std::uint64_t kSector = 512;
    const std::uint64_t end = change.position + change.bytes.size();
    for (std::uint64_t at = change.position; at < end;) {
      const std::uint64_t next = std::min(end, (at / kSector + 1) * kSector);
      if (random() % 2 == 0) {
        put(file, at, change.bytes.substr(at - change.position, next - at));
      }
      at = next;
    }
  }

  std::map<std::string, File> files_;
};

inline std::map<std::string, std::string> filesOf(const FreshFolder& folder) {
  std::map<std::string, std::string> out;
  for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
    const std::string name = entry.path().filename().string();
    out[name] = folder.bytes(name);
  }
  return out;
}

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_CRASH_RECORDED_DISK_H
