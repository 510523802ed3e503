// Does the same work on a database in every run and on every platform, so that the files that it
// leaves can be compared byte for byte.
//
//   zelta-same-bytes make PATH      creates a database with a log file that is emptied
//   zelta-same-bytes keep PATH      creates one that keeps its transactions in numbered log files
//   zelta-same-bytes change PATH    goes on with a database that "make" or "keep" has left
//   zelta-same-bytes check PATH     looks for damage, reads everything and prints a sum of it
//   zelta-same-bytes leave PATH     dies in the middle of a transaction

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "check/check.h"
#include "czelta.h"

namespace {

constexpr unsigned int kNumbers = 1;
constexpr unsigned int kWords = 2;
constexpr unsigned int kTimeout = 60000;

class Failure : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Throws the text of a failure.
void must(CZELTA& db, unsigned long long result) {
  if (result == 0) return;
  const char16_t* text = nullptr;
  static_cast<void>(db.GetErrorMessage(&text));
  std::string message = std::to_string(result >> 32) + "/" + std::to_string(result & 0xFFFFFFFF);
  message += ": ";
  for (; *text != 0; ++text) message += *text < 0x80 ? static_cast<char>(*text) : '?';
  throw Failure(message);
}

/// Numbers that depend on nothing but the start.
class Numbers {
 public:
  explicit Numbers(std::uint64_t start) : state_(start) {}
  std::uint64_t next() {
    state_ += 0x9E3779B97F4A7C15;
    std::uint64_t value = state_;
    value = (value ^ value >> 30) * 0xBF58476D1CE4E5B9;
    value = (value ^ value >> 27) * 0x94D049BB133111EB;
    return value ^ value >> 31;
  }
  std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(next() % limit); }

 private:
  std::uint64_t state_;
};

/// Letters of several scripts, in either case.
constexpr char16_t kLetters[] =
    u"abcXYZ019 -_\u00e4\u00d6\u00df\u00e9\u0152\u0131\u0416\u044f\u03a9\u03c2\u01c4\u1e9e\u4e2d"
    u"\u2167\uff21\u3000";

std::u16string wideText(Numbers& numbers, std::uint32_t most) {
  constexpr std::uint32_t kCount = sizeof kLetters / sizeof kLetters[0] - 1;
  std::u16string text;
  for (std::uint32_t i = numbers.below(most + 1); i > 0; --i) {
    text += kLetters[numbers.below(kCount)];
  }
  return text;
}

std::string utf8(const std::u16string& text) {
  std::string out;
  for (const char16_t c : text) {
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | c >> 6);
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xE0 | c >> 12);
      out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

/// An index over segments of one kind.
template <std::size_t count>
CZELTA::Schema::Index indexOver(CZELTA::Schema::Segment (&segments)[count],
                                CZELTA::IndexKind kind = CZELTA::BPlusTree) {
  CZELTA::Schema::Index index{};
  index.indexKind = static_cast<std::uint8_t>(kind);
  index.segmentCount = count;
  index.segments = segments;
  return index;
}

template <class Number>
std::string bytesOf(Number number) {
  return {reinterpret_cast<const char*>(&number), sizeof number};
}

void makeTables(CZELTA& db) {
  CZELTA::Schema::Field numberFields[] = {{CZELTA::TypeUInt32, 0, 0, 0, u"number", nullptr},
                                          {CZELTA::TypeInt64, 0, 0, 0, u"amount", nullptr},
                                          {CZELTA::TypeBox3, 0, 0, 0, u"box", nullptr},
                                          {CZELTA::TypeDate, 0, 0, 0, u"from", nullptr},
                                          {CZELTA::TypeDate, 0, 0, 0, u"to", nullptr}};
  CZELTA::Schema::Segment number[] = {{0, 0}};
  CZELTA::Schema::Segment amount[] = {{1, CZELTA::SegmentDescending}, {CZELTA::ObjectIdSegment, 0}};
  CZELTA::Schema::Segment box[] = {{2, 0}};
  CZELTA::Schema::Segment span[] = {{3, 0}, {4, 0}};
  CZELTA::Schema::Index numberIndexes[] = {indexOver(number), indexOver(amount),
                                           indexOver(box, CZELTA::SpatialTree),
                                           indexOver(span, CZELTA::TemporalTree)};
  CZELTA::Schema numbers = {
      0, 4, kNumbers, 1, 5, 0, u"numbers", nullptr, numberFields, numberIndexes};
  CZELTA::Schema::Field marks[] = {{CZELTA::TypeRect2, 0, 0, 0, u"area", nullptr},
                                   {CZELTA::TypePoints2, 0, 0, 0, u"corners", nullptr}};
  CZELTA::Schema::Field wordFields[] = {{CZELTA::TypeUInt32, 0, 0, 0, u"number", nullptr},
                                        {CZELTA::TypeText, 0, 90, 0, u"name", nullptr},
                                        {CZELTA::TypeWideText, 0, 40, 0, u"title", nullptr},
                                        {CZELTA::TypeSubRecords, 0, 60, 2, u"marks", marks},
                                        {CZELTA::TypePoints3, 0, 40, 0, u"points", nullptr}};
  CZELTA::Schema::Segment name[] = {{1, CZELTA::SegmentUpperCase | CZELTA::SegmentNoSpace},
                                    {CZELTA::ObjectIdSegment, 0}};
  CZELTA::Schema::Segment title[] = {{2, CZELTA::SegmentLowerCase | CZELTA::SegmentAlphanumeric},
                                     {CZELTA::ObjectIdSegment, 0}};
  CZELTA::Schema::Segment nameWords[] = {{1, CZELTA::SegmentWords | CZELTA::SegmentLowerCase}};
  CZELTA::Schema::Segment titleWords[] = {{2, CZELTA::SegmentWords | CZELTA::SegmentUpperCase}};
  CZELTA::Schema::Segment area[] = {{5, 0}};
  CZELTA::Schema::Segment corners[] = {{6, 0}};
  CZELTA::Schema::Segment points[] = {{4, 0}};
  CZELTA::Schema::Index wordIndexes[] = {indexOver(name),
                                         indexOver(title),
                                         indexOver(area, CZELTA::SpatialTree),
                                         indexOver(corners, CZELTA::SpatialPattern),
                                         indexOver(points, CZELTA::SpatialPattern),
                                         indexOver(nameWords, CZELTA::AsciiList),
                                         indexOver(titleWords, CZELTA::WideList)};
  CZELTA::Schema words = {0,        7,       kWords,     2,          5, CZELTA::SchemaWideObjectIds,
                          u"words", nullptr, wordFields, wordIndexes};
  must(db, db.BeginTransaction(CZELTA::TransactionExclusive, kTimeout));
  must(db, db.CreateTable(&numbers, nullptr));
  must(db, db.CreateTable(&words, nullptr));
  must(db, db.EndTransaction());
}

/// The objects of one table, and what may happen to them.
class Work {
 public:
  Work(CZELTA& db, unsigned int table, Numbers& numbers)
      : db_(db), table_(table), numbers_(numbers) {}

  /// Notes which objects there are.
  void look() {
    ids_.clear();
    CZELTA::Object object;
    for (auto mode = CZELTA::ReadFirst;; mode = CZELTA::ReadNext) {
      if (db_.ReadObject(table_, mode | CZELTA::ReadNoLock, &object, 0, nullptr, nullptr) != 0) {
        break;
      }
      ids_.push_back(object.objectID);
    }
  }
  void step() {
    const std::uint32_t choice = numbers_.below(10);
    if (ids_.size() < 5 || choice < 5) return add();
    const std::size_t which = numbers_.below(static_cast<std::uint32_t>(ids_.size()));
    return choice < 8 ? rewrite(ids_[which]) : erase(which);
  }

 private:
  void add() {
    CZELTA::Object object;
    must(db_, db_.NewObject(table_, &object, 0));
    fill(object);
    must(db_, db_.AddObject(table_, &object, 0));
    ids_.push_back(object.objectID);
  }
  void rewrite(long long id) {
    CZELTA::Object object;
    must(db_, db_.ReadObject(table_, id, &object));
    fill(object);
    must(db_, db_.RewriteObject(table_, &object));
  }
  void erase(std::size_t which) {
    CZELTA::Object object;
    must(db_, db_.DeleteObject(table_, ids_[which], &object));
    ids_.erase(ids_.begin() + static_cast<std::ptrdiff_t>(which));
  }
  void fill(CZELTA::Object& object) {
    const auto number = static_cast<std::uint32_t>(numbers_.next());
    if (table_ == kNumbers) {
      const auto amount = static_cast<std::int64_t>(numbers_.below(100)) - 50;
      std::string fixed = bytesOf(number) + bytesOf(amount);
      for (int i = 0; i < 6; ++i) fixed += bytesOf(coordinate());
      for (int i = 0; i < 2; ++i) fixed += bytesOf(numbers_.below(1000));
      std::memcpy(object.data, fixed.data(), fixed.size());
      return;
    }
    std::string values = utf8(wideText(numbers_, 30)) + '\0';
    const std::u16string title = wideText(numbers_, 40);
    values.append(reinterpret_cast<const char*>(title.c_str()), (title.size() + 1) * 2);
    std::string marks;
    for (std::uint32_t row = numbers_.below(4); row > 0; --row) {
      for (int i = 0; i < 4; ++i) marks += bytesOf(coordinate());
      marks += points(2);
    }
    values += bytesOf(static_cast<std::uint32_t>(marks.size() + 4)) + marks + points(3);
    must(db_, db_.PutVariableValues(table_, values.data(), static_cast<unsigned int>(values.size()),
                                    0, 4, &object));
    std::memcpy(object.data, &number, sizeof number);
  }

  /// Mostly a small one; whole keys are equal now and then.
  std::int32_t coordinate() {
    constexpr std::int32_t kEnds[] = {INT32_MIN, INT32_MIN + 1, INT32_MAX};
    if (numbers_.below(20) == 0) return kEnds[numbers_.below(3)];
    return static_cast<std::int32_t>(numbers_.below(12)) - 6;
  }
  std::string points(std::uint32_t axes) {
    std::string all;
    for (std::uint32_t i = axes * numbers_.below(4); i > 0; --i) all += bytesOf(coordinate());
    return bytesOf(static_cast<std::uint32_t>(all.size() + 4)) + all;
  }

  CZELTA& db_;
  unsigned int table_;
  Numbers& numbers_;
  std::vector<long long> ids_;
};

/// A number of transactions; every fifth one is taken back.
void work(CZELTA& db, std::uint64_t start, int transactions) {
  Numbers numbers(start);
  for (int t = 0; t < transactions; ++t) {
    must(db, db.BeginTransaction(
                 t % 7 == 3 ? CZELTA::TransactionExclusive : CZELTA::TransactionShared, kTimeout));
    Work one(db, kNumbers, numbers);
    Work two(db, kWords, numbers);
    must(db, db.OpenTable(kNumbers));
    must(db, db.OpenTable(kWords));
    one.look();
    two.look();
    for (std::uint32_t step = numbers.below(12) + 1; step > 0; --step) {
      (numbers.below(2) == 0 ? one : two).step();
    }
    if (t % 5 == 4) {
      must(db, db.AbortTransaction(true));
    } else {
      must(db, db.CommitTransaction(true));
    }
    must(db, db.EndTransaction());
  }
}

void make(const std::u16string& path, bool keepLogs) {
  CZELTA db;
  must(db, db.CreateDatabase(path.c_str()));
  if (keepLogs) {
    must(db, db.BeginTransaction(CZELTA::TransactionExclusive, kTimeout));
    must(db, db.SetDatabaseParameter(CZELTA::ParameterKeepLogFiles, 1));
    must(db, db.EndTransaction());
  }
  makeTables(db);
  work(db, keepLogs ? 1 : 2, 60);
  must(db, db.CloseDatabase());
}

void change(const std::u16string& path) {
  CZELTA db;
  must(db, db.OpenDatabase(path.c_str()));
  work(db, 3, 40);
  must(db, db.CloseDatabase());
}

/// Adds without end to what is not committed, and is never heard of again.
void leave(const std::u16string& path) {
  CZELTA db;
  must(db, db.OpenDatabase(path.c_str()));
  must(db, db.BeginTransaction(CZELTA::TransactionShared, kTimeout));
  must(db, db.OpenTable(kWords));
  Numbers numbers(4);
  Work words(db, kWords, numbers);
  words.look();
  for (int i = 0; i < 20; ++i) words.step();
  std::cout << "left" << std::endl;
  std::_Exit(9);
}

constexpr unsigned int kNarrowList = 6;  ///< of the table of words; behind it is the wide one

/// Searches that find some objects, or all, by the indexes behind the first two of a table.
const std::vector<std::string>& queriesOf(unsigned int table, unsigned int index) {
  const auto words = [](std::initializer_list<std::int64_t> values) {
    std::string all;
    for (const std::int64_t value : values) all += bytesOf(static_cast<std::uint32_t>(value));
    return all;
  };
  constexpr std::int64_t kLow = INT32_MIN;
  constexpr std::int64_t kHigh = INT32_MAX;
  static const std::vector<std::string> kBoxes = {words({kLow, kLow, kLow, kHigh, kHigh, kHigh}),
                                                  words({2, 2, 2, 1, 1, 1})};
  static const std::vector<std::string> kSpans = {words({0, 0xFFFFFFFF}), words({500, 500})};
  static const std::vector<std::string> kAreas = {words({kLow, kLow, kHigh, kHigh}),
                                                  words({2, 2, 1, 1})};
  static const std::vector<std::string> kCorners = {words({12, 0, 0}), words({20, 1, 1, 3, -2})};
  static const std::vector<std::string> kPoints = {words({16, 0, 0, 0}),
                                                   words({28, 1, 1, 2, -3, 0, 2})};
  static const std::vector<std::string> kNames = {"\"a\"", "\"x \" or \" 0\"", "not \"y\""};
  static const std::vector<std::string> kTitles = [] {
    std::vector<std::string> wide;
    for (const std::u16string text : {u"\"X\"", u"\"\u0416\" xor \"\u00d6\""}) {
      std::string& bytes = wide.emplace_back();
      for (const char16_t unit : text + u'\0') bytes += bytesOf(unit);
    }
    return wide;
  }();
  if (table == kNumbers) return index == 3 ? kBoxes : kSpans;
  if (index >= kNarrowList) return index == kNarrowList ? kNames : kTitles;
  return index == 3 ? kAreas : index == 4 ? kCorners : kPoints;
}

/// A sum of all objects, as each index has them.
std::uint64_t sumOf(CZELTA& db, unsigned int table) {
  std::uint64_t sum = 0xcbf29ce484222325;
  const auto add = [&sum](const void* bytes, std::size_t count) {
    const auto* p = static_cast<const unsigned char*>(bytes);
    for (std::size_t i = 0; i < count; ++i) sum = (sum ^ p[i]) * 0x100000001b3;
  };
  must(db, db.OpenTable(table));
  CZELTA::Object object;
  for (unsigned int index = 0; index <= 2; ++index) {
    for (auto mode = CZELTA::ReadFirst;; mode = CZELTA::ReadNext) {
      if (db.ReadObject(table, mode, &object, index, nullptr, nullptr) != 0) break;
      add(&object.objectID, sizeof object.objectID);
      add(object.data, object.length);
    }
  }
  const unsigned int last = table == kNumbers ? 4 : 7;
  for (unsigned int index = 3; index <= last; ++index) {
    for (const std::string& query : queriesOf(table, index)) {
      long long count = 0;
      constexpr unsigned int kTolerance = 3;
      const void* const bytes = query.data();
      must(db, index >= kNarrowList
                   ? db.SearchIndex(table, index, nullptr, bytes, CZELTA::Mode{}, &count)
                   : db.SearchIndex(table, index, bytes, kTolerance, CZELTA::Mode{}, &count));
      add(&count, sizeof count);
      for (auto mode = CZELTA::ReadFirst;; mode = CZELTA::ReadNext) {
        if (db.ReadObject(table, mode, &object, index, nullptr, nullptr) != 0) break;
        add(&object.objectID, sizeof object.objectID);
      }
    }
  }
  return sum;
}

void check(const std::u16string& path) {
  {
    CZELTA db;
    must(db, db.OpenDatabase(path.c_str()));
    must(db, db.BeginTransaction(CZELTA::TransactionRead, kTimeout));
    std::cout << std::hex << sumOf(db, kNumbers) << ' ' << sumOf(db, kWords) << '\n';
    must(db, db.EndTransaction());
    must(db, db.CloseDatabase());
  }
  std::string damage;
  for (const zelta::CheckFinding& finding : zelta::checkDatabase(path, {})) {
    damage += '\n' + describe(finding);
  }
  if (!damage.empty()) throw Failure("the database is damaged:" + damage);
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 3) return 2;
  const std::string command = arguments[1];
  const std::string plain = arguments[2];
  const std::u16string path(plain.begin(), plain.end());
  try {
    if (command == "make") {
      make(path, false);
    } else if (command == "keep") {
      make(path, true);
    } else if (command == "change") {
      change(path);
    } else if (command == "leave") {
      leave(path);
    } else if (command == "check") {
      check(path);
    } else {
      return 2;
    }
  } catch (const std::exception& failure) {
    std::cerr << command << ": " << failure.what() << '\n';
    return 1;
  }
  return 0;
}
