// A database as far as the log needs one, and a reader of log files that knows their bytes and
// shares nothing with the engine.

#ifndef ZELTA_TESTS_TRANSACTION_LOG_FIXTURE_H
#define ZELTA_TESTS_TRANSACTION_LOG_FIXTURE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/file_io.h"
#include "support/storage_fixture.h"
#include "transaction/log/log_rotation.h"
#include "transaction/log/log_search.h"

namespace zelta::testing {

struct RawLog {
  std::uint64_t root = 0;
  std::uint64_t freeHead = 0;
  std::uint64_t end = 0;
  /// Numbers and positions, in the order of the tree.
  std::vector<std::pair<std::uint32_t, std::uint64_t>> entries;
  int depth = 0;
};

/// Reads a log file's bytes and checks that nodes, entries and free blocks fill it without gaps.
class RawLogReader {
 public:
  explicit RawLogReader(const std::string& bytes, const char* magic = "ZELL") : bytes_(bytes) {
    EXPECT_EQ(bytes.substr(0, 4), magic);
    EXPECT_EQ(bytes[4], 1);
    EXPECT_EQ(bytes[5], 0);
    log.root = numberAt<std::uint64_t>(bytes, 8);
    log.freeHead = numberAt<std::uint64_t>(bytes, 16);
    log.end = numberAt<std::uint64_t>(bytes, 24);
    EXPECT_EQ(numberAt<std::uint64_t>(bytes, 48), 0u) << "an intent is pending";
    if (log.root != 0) log.depth = walk(log.root, 0, 0xFFFFFFFF);
    for (std::uint64_t at = log.freeHead; at != 0; at = numberAt<std::uint64_t>(bytes, at + 8)) {
      EXPECT_EQ(numberAt<std::uint32_t>(bytes, at + 16), 0xFFFFFFFFu);
      cover(at, numberAt<std::uint64_t>(bytes, at));
    }
    std::uint64_t at = 112;
    for (const auto& [position, size] : blocks_) {
      EXPECT_EQ(position, at) << "a gap or an overlap";
      at = position + size;
    }
    EXPECT_EQ(at, std::max<std::uint64_t>(log.end, 112));
  }
  RawLog log;

 private:
  void cover(std::uint64_t position, std::uint64_t size) {
    EXPECT_TRUE(blocks_.emplace(position, size).second) << "used twice: " << position;
  }
  int walk(std::uint64_t position, std::uint32_t low, std::uint32_t high) {
    cover(position, numberAt<std::uint64_t>(bytes_, position));
    const auto type = numberAt<std::uint16_t>(bytes_, position + 8);
    const auto keyCount = numberAt<std::uint16_t>(bytes_, position + 10);
    EXPECT_TRUE(type == 27753 || type == 28265) << type;
    EXPECT_TRUE(keyCount >= 1 && keyCount <= 25) << keyCount;
    if ((type != 27753 && type != 28265) || keyCount > 25) return 0;
    int depth = 0;
    for (std::uint32_t i = 0; i <= keyCount; ++i) {
      const auto value = [&] { return numberAt<std::uint64_t>(bytes_, position + 112 + 8 * i); };
      const std::uint32_t key =
          i < keyCount ? numberAt<std::uint32_t>(bytes_, position + 12 + 4 * i) : high;
      EXPECT_LE(low, key);
      EXPECT_LE(key, high);
      if (type == 28265) {
        const int below = walk(value(), low, key);
        EXPECT_TRUE(depth == 0 || depth == below) << "leaves of different depth";
        depth = below;
      } else if (i < keyCount) {
        log.entries.emplace_back(key, value());
        EXPECT_EQ(bytes_.substr(value() + 8, 4), "ZELL");
        EXPECT_EQ(numberAt<std::uint32_t>(bytes_, value() + 12), key);
        cover(value(), numberAt<std::uint64_t>(bytes_, value()));
      }
      low = key;
    }
    return depth + 1;
  }

  const std::string& bytes_;
  std::map<std::uint64_t, std::uint64_t> blocks_;
};

class LogTest : public ::testing::Test {
 protected:
  LogTest() {
    metaData.directoryPath = (folder.path().u16string() + platform::kSeparator);
    metaData.baseName = u"shop";
    metaData.access = Access::write;
    const std::u16string name = folder.file("shop.log-mutex");
    const OpenedLockFile locks(folder);
    EXPECT_EQ(platform::createMutex(locks, name.c_str(), &metaData.logMutex), 0u);
    EXPECT_EQ(platform::openFile(folder.file("shop.zlc").c_str(), platform::Disposition::openAlways,
                                 &metaData.controlFile),
              0u);
    std::memcpy(header.magic, "ZELC", 4);
    writeControl();
  }
  ~LogTest() override {
    platform::closeFile(metaData.logFile);
    platform::closeFile(metaData.controlFile);
    platform::closeMutex(metaData.logMutex);
  }

  void writeControl() {
    ASSERT_EQ(writeBuffer(metaData.controlFile, 0, &header, sizeof(header)), 0u);
  }
  Result prepare() { return prepareLogFile(header, logFile); }
  /// Reads the header of the file in use, and repairs what is pending.
  Result readHeader() {
    logFile.useCurrent();
    return logFile.readHeaderLocked();
  }
  /// Appends an entry and gives its position; 0 if that failed.
  std::uint64_t append(std::uint32_t number, std::uint64_t length, std::uint64_t expected = 0) {
    LogEntry entry;
    logFile.useCurrent();
    EXPECT_TRUE(logFile.lock(kLogMutexWait).ok());
    last = logFile.append(number, length, &entry, expected);
    logFile.unlock();
    head = entry.head;
    return last.ok() ? entry.position : 0;
  }
  /// Appends an entry and fills it with one section of a text.
  std::uint64_t appendComplete(std::uint32_t number, const std::string& body) {
    const std::uint64_t position = append(number, 32 + body.size());
    if (position != 0) complete(position, body);
    return position;
  }
  void complete(std::uint64_t position, const std::string& body) {
    std::string bytes(head.blockLength, '\0');
    bytes.replace(32, body.size(), body);
    head.sectionCount = 1;
    head.checksum = 0;
    xorChecksum64(head.checksum, bytes.data() + 32, bytes.size() - 32);
    std::memcpy(bytes.data(), &head, 32);
    ASSERT_EQ(writeBuffer(metaData.logFile, position, bytes.data(),
                          static_cast<std::int64_t>(bytes.size())),
              0u);
  }
  std::uint64_t find(std::uint32_t number) {
    LogFile found(metaData);
    std::uint64_t position = 77;
    last = findLogEntry(&header, number, found, &position);
    logFile.header() = found.header();
    return position;
  }
  /// A handle that was never opened before, as after the death of this one.
  void reopen() {
    platform::closeFile(metaData.logFile);
    metaData.logFile = platform::File::none;
  }
  RawLog raw(const std::string& name = "shop.zll", const char* magic = "ZELL") {
    const std::string bytes = folder.bytes(name);
    return RawLogReader(bytes, magic).log;
  }

  FreshFolder folder;
  MetaData metaData;
  ControlHeader_tag header{};
  LogFile logFile{metaData};
  LogEntryHead_tag head{};
  Result last;
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_TRANSACTION_LOG_FIXTURE_H
