// A fresh folder, a handle's record without a database, and a hook that makes the platform fail
// from some call on, for tests of the lower layers.

#ifndef ZELTA_TESTS_SUPPORT_STORAGE_FIXTURE_H
#define ZELTA_TESTS_SUPPORT_STORAGE_FIXTURE_H

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "frame/metadata.h"
#include "platform/faults.h"
#include "platform/file.h"
#include "platform/lock_file.h"
#include "platform/mutex.h"

namespace zelta::testing {

/// A folder that vanishes with its object.
class FreshFolder {
 public:
  FreshFolder() {
    std::random_device random;
    do {
      path_ =
          std::filesystem::temp_directory_path() / ("zelta-storage-" + std::to_string(random()));
    } while (!std::filesystem::create_directory(path_));
  }
  ~FreshFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  FreshFolder(const FreshFolder&) = delete;
  FreshFolder& operator=(const FreshFolder&) = delete;

  [[nodiscard]] std::filesystem::path path() const { return path_; }
  [[nodiscard]] std::u16string file(const std::string& name) const {
    return (path_ / name).u16string();
  }

  [[nodiscard]] std::string bytes(const std::string& name) const {
    std::ifstream in(path_ / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }
  void write(const std::string& name, const std::string& bytes) const {
    std::ofstream(path_ / name, std::ios::binary | std::ios::trunc) << bytes;
  }
  /// Takes over the files of another folder.
  void copyFrom(const FreshFolder& other) const {
    for (const auto& entry : std::filesystem::directory_iterator(other.path_)) {
      const std::string name = entry.path().filename().string();
      write(name, other.bytes(name));
    }
  }
  [[nodiscard]] bool has(const std::string& name) const {
    return std::filesystem::exists(path_ / name);
  }

 private:
  std::filesystem::path path_;
};

/// An open file of the platform layer.
class OpenedFile {
 public:
  explicit OpenedFile(const std::u16string& name) {
    EXPECT_EQ(platform::openFile(name.c_str(), platform::Disposition::openAlways, &file_), 0u);
  }
  ~OpenedFile() { platform::closeFile(file_); }
  OpenedFile(const OpenedFile&) = delete;
  OpenedFile& operator=(const OpenedFile&) = delete;
  operator platform::File() const { return file_; }

 private:
  platform::File file_ = platform::File::none;
};

/// The lock file "shop.zlk" of a folder, for a file "shop.zlc" that need not be a database's.
class OpenedLockFile {
 public:
  explicit OpenedLockFile(const FreshFolder& folder) {
    if (!folder.has("shop.zlc")) folder.write("shop.zlc", "");
    EXPECT_EQ(platform::openLockFile(folder.file("shop.zlk").c_str(),
                                     folder.file("shop.zlc").c_str(), &file_),
              0u);
  }
  ~OpenedLockFile() { platform::closeLockFile(file_); }
  OpenedLockFile(const OpenedLockFile&) = delete;
  OpenedLockFile& operator=(const OpenedLockFile&) = delete;
  operator platform::LocksFile() const { return file_; }

 private:
  platform::LocksFile file_ = platform::LocksFile::none;
};

/// Lets a number of changing calls (writes, truncations, flushes) pass and fails all later ones,
/// as if the process had died there. The first failing write may be cut instead.
class StopAfter : public platform::faults::Hook {
 public:
  explicit StopAfter(std::uint64_t calls, bool cutFirst = false)
      : left_(calls), cutFirst_(cutFirst) {
    platform::faults::install(this);
  }
  ~StopAfter() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    using platform::faults::Call;
    platform::faults::Verdict verdict;
    if (event.call != Call::write && event.call != Call::truncate && event.call != Call::flush) {
      return verdict;
    }
    if (event.call == Call::flush) ++flushes;
    if (left_ != 0) {
      --left_;
      return verdict;
    }
    if (cutFirst_ && !stopped && event.call == Call::write) {
      verdict.cutTo = event.length / 2;
    } else {
      verdict.code = code::kGeneralFailure;
    }
    stopped = true;
    return verdict;
  }
  bool stopped = false;
  std::uint64_t flushes = 0;

 private:
  std::uint64_t left_;
  bool cutFirst_;
};

/// A little-endian number in bytes read from a file.
template <class Number>
Number numberAt(const std::string& bytes, std::uint64_t offset) {
  Number value{};
  if (offset + sizeof(value) > bytes.size()) {
    ADD_FAILURE() << "no bytes at " << offset;
    return value;
  }
  std::memcpy(&value, bytes.data() + offset, sizeof(value));
  return value;
}

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_SUPPORT_STORAGE_FIXTURE_H
