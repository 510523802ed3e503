// An application of several tables and transactions that meets misfortune anywhere: at a write or
// flush its process dies, or the call fails once, or from then on. What it was told is done must be
// there afterwards, and of the step under way everything or nothing.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <numeric>
#include <random>
#include <stdexcept>

#include "crash/misfortune.h"
#include "crash/recorded_disk.h"
#include "support/check_database.h"
#include "support/database_fixture.h"
#include "support/shapes.h"

namespace zelta::testing {
namespace {

constexpr unsigned kPeople = 1;  ///< variable, with sub-records and shapes
constexpr unsigned kOrders = 2;  ///< fixed, wide IDs
constexpr unsigned kNotes = 3;   ///< comes and goes
constexpr unsigned kTimeout = 10000;

/// The tables' schemas. The library fills in derived members, hence a fresh copy for each use.
struct People {
  People() = default;
  People(const People&) = delete;
  People& operator=(const People&) = delete;
  CZELTA::Schema::Field tags[1] = {{CZELTA::TypeUInt32, 0, 0, 0, u"tag", nullptr}};
  CZELTA::Schema::Field fields[11] = {{CZELTA::TypeUInt32, 0, 0, 0, u"number", nullptr},
                                      {CZELTA::TypeRect2, 0, 0, 0, u"garden", nullptr},
                                      {CZELTA::TypeDate, 0, 0, 0, u"comes", nullptr},
                                      {CZELTA::TypeDate, 0, 0, 0, u"goes", nullptr},
                                      {CZELTA::TypeUInt16, 0, 0, 0, u"grove", nullptr},
                                      {CZELTA::TypeCharArray, 0, 6, 0, u"tree", nullptr},
                                      {CZELTA::TypeText, 0, 20, 0, u"name", nullptr},
                                      {CZELTA::TypeSubRecords, 0, 8, 1, u"tags", tags},
                                      {CZELTA::TypeText, 0, 20, 0, u"woods", nullptr},
                                      {CZELTA::TypeWideText, 0, 20, 0, u"forests", nullptr},
                                      {CZELTA::TypePoints2, 0, 20, 0, u"trees", nullptr}};
  CZELTA::Schema::Segment byNumber[1] = {{0, 0}};
  CZELTA::Schema::Segment byName[2] = {{6, CZELTA::SegmentUpperCase}, {CZELTA::ObjectIdSegment, 0}};
  CZELTA::Schema::Segment byTag[2] = {{11, CZELTA::SegmentDescending},
                                      {CZELTA::ObjectIdSegment, 0}};
  CZELTA::Schema::Segment byGarden[1] = {{1, 0}};
  CZELTA::Schema::Segment byStay[2] = {{2, 0}, {3, 0}};
  CZELTA::Schema::Segment byGrove[2] = {{4, 0}, {5, CZELTA::SegmentWords}};
  CZELTA::Schema::Segment byTrees[1] = {{10, 0}};
  CZELTA::Schema::Segment byWoods[1] = {{8, CZELTA::SegmentWords}};
  CZELTA::Schema::Segment byForests[1] = {{9, CZELTA::SegmentWords}};
  CZELTA::Schema::Index indexes[9] = {
      {0, CZELTA::BPlusTree, 1, {0}, byNumber},    {0, CZELTA::BPlusTree, 2, {0}, byName},
      {0, CZELTA::BPlusTree, 2, {0}, byTag},       {0, CZELTA::SpatialTree, 1, {0}, byGarden},
      {0, CZELTA::TemporalTree, 2, {0}, byStay},   {0, CZELTA::AsciiList, 2, {0}, byGrove},
      {0, CZELTA::AsciiList, 1, {0}, byWoods},     {0, CZELTA::WideList, 1, {0}, byForests},
      {0, CZELTA::SpatialPattern, 1, {0}, byTrees}};
  CZELTA::Schema schema{0, 9, kPeople, 0, 11, 0, u"people", nullptr, fields, indexes};
};
struct Orders {
  Orders() = default;
  Orders(const Orders&) = delete;
  Orders& operator=(const Orders&) = delete;
  CZELTA::Schema::Field fields[2] = {{CZELTA::TypeUInt64, 0, 0, 0, u"key", nullptr},
                                     {CZELTA::TypeUInt32, 0, 0, 0, u"person", nullptr}};
  CZELTA::Schema::Segment byKey[1] = {{0, 0}};
  CZELTA::Schema::Segment byPerson[2] = {{1, CZELTA::SegmentDescending},
                                         {CZELTA::ObjectIdSegment, 0}};
  CZELTA::Schema::Index indexes[2] = {{0, CZELTA::BPlusTree, 1, {0}, byKey},
                                      {0, CZELTA::BPlusTree, 2, {0}, byPerson}};
  CZELTA::Schema schema{0,         2,       kOrders, 0,      2, CZELTA::SchemaWideObjectIds,
                        u"orders", nullptr, fields,  indexes};
};

/// Thrown by the first operation that fails.
struct Failure : std::runtime_error {
  explicit Failure(unsigned long long result)
      : std::runtime_error("class " + std::to_string(result >> 32) + " code " +
                           std::to_string(result & 0xFFFFFFFF)) {}
};
void must(unsigned long long result) {
  if (result != 0) throw Failure(result);
}

/// What the application does. `done` is told of each step that lasts.
class Application {
 public:
  Application(const std::u16string& path, std::function<void()> done)
      : path_(path), done_(std::move(done)) {}

  static void create(const std::u16string& path) {
    CZELTA db;
    must(db.CreateDatabase(path.c_str()));
    must(db.BeginTransaction(CZELTA::TransactionExclusive, kTimeout));
    People people;
    Orders orders;
    must(db.CreateTable(&people.schema, nullptr));
    must(db.CreateTable(&orders.schema, nullptr));
  }
  void run() {
    must(db_.OpenDatabase(path_.c_str()));
    share();
    alone();
  }

 private:
  void commit(bool release) {
    must(db_.CommitTransaction(release));
    done_();
  }
  void share() {
    must(db_.BeginTransaction(CZELTA::TransactionShared, kTimeout));
    open();
    for (std::uint32_t i = 1; i <= 12; ++i) addPerson(i, {i, 2 * i, 3 * i});
    for (std::uint32_t i = 1; i <= 20; ++i) addOrder(1000 + i, i % 5);
    commit(true);

    changePerson(3, 300, {1, 2, 3, 4, 5, 6});
    removeOrder(5);
    addOrder(1005, 7);  // the key of the one removed
    changeOrder(7, 2007);
    changeOrder(6, 1007);  // the key that another gave up
    commit(false);

    removePerson(4);
    must(db_.RestoreObject(kPeople, 4, false));
    removePerson(2);
    addPerson(2, {90, 91});
    std::vector<std::uint32_t> many(200);
    std::iota(many.begin(), many.end(), 1000);
    changePerson(1, 1, many, 1);
    commit(false);

    addPerson(50, {50});
    removeOrder(9);
    changePerson(6, 60, {});
    must(db_.AbortTransaction(false));
    for (std::uint32_t i = 100; i < 160; ++i) addOrder(i, i % 3);
    removePerson(12);
    commit(true);
    must(db_.EndTransaction());
  }
  void alone() {
    must(db_.BeginTransaction(CZELTA::TransactionExclusive, kTimeout));
    open();
    SmallSchema notes(u"notes", kNotes);
    must(db_.CreateTable(&notes.schema, nullptr));
    done_();
    for (std::uint32_t i = 1; i <= 3; ++i) addNote(i);
    for (std::uint32_t i = 20; i <= 75; ++i) removeOrder(i);
    changePerson(5, 12, {7});  // the number of one removed
    commit(true);
    must(db_.RemoveTable(kNotes, true));
    done_();
    removePerson(7);
    commit(false);
    must(db_.EndTransaction());
  }

  void open() {
    must(db_.OpenTable(kPeople));
    must(db_.OpenTable(kOrders));
  }
  void putPerson(std::uint32_t number, const std::vector<std::uint32_t>& tags) {
    std::string values = "name " + std::to_string(number % 4);
    values += '\0';
    const auto length = static_cast<std::uint32_t>(4 + 4 * tags.size());
    values.append(reinterpret_cast<const char*>(&length), sizeof length);
    values.append(reinterpret_cast<const char*>(tags.data()), 4 * tags.size());
    const Shapes shapes(number);
    values += shapes.variableBytes();
    must(db_.PutVariableValues(kPeople, values.data(), static_cast<unsigned>(values.size()), 0, 5,
                               &object_));
    const std::string fixed = Packed().number(number).raw(shapes.fixedBytes());
    std::memcpy(object_.data, fixed.data(), fixed.size());
  }
  void addPerson(std::uint32_t number, const std::vector<std::uint32_t>& tags) {
    must(db_.NewObject(kPeople, &object_, 0));
    putPerson(number, tags);
    must(db_.AddObject(kPeople, &object_, 0));
  }
  /// Rewrites a person `times` times and once more.
  void changePerson(long long id, std::uint32_t number, const std::vector<std::uint32_t>& tags,
                    int times = 0) {
    must(db_.ReadObject(kPeople, id, &object_));
    for (int i = 0; i <= times; ++i) {
      putPerson(number, i < times ? std::vector<std::uint32_t>{77} : tags);
      must(db_.RewriteObject(kPeople, &object_));
    }
  }
  void removePerson(std::uint32_t number) {
    must(db_.DeleteObject(kPeople, CZELTA::ReadEqual, &object_, 1, &number, nullptr));
  }
  void addOrder(std::uint64_t key, std::uint32_t person) {
    must(db_.NewObject(kOrders, &object_, 0));
    std::memcpy(object_.data, &key, sizeof key);
    std::memcpy(static_cast<char*>(object_.data) + sizeof key, &person, sizeof person);
    must(db_.AddObject(kOrders, &object_, 0));
  }
  void changeOrder(long long id, std::uint64_t key) {
    must(db_.ReadObject(kOrders, id, &object_));
    std::memcpy(object_.data, &key, sizeof key);
    must(db_.RewriteObject(kOrders, &object_));
  }
  void removeOrder(long long id) { must(db_.DeleteObject(kOrders, id, &object_)); }
  void addNote(std::uint32_t number) {
    must(db_.NewObject(kNotes, &object_, 0));
    std::memcpy(object_.data, &number, sizeof number);
    must(db_.AddObject(kNotes, &object_, 0));
  }

  std::u16string path_;
  std::function<void()> done_;
  CZELTA db_;
  CZELTA::Object object_{};
};

/// The people whom some searches find. Searches that find nobody leave no trace: the first writer
/// that needs an index file makes it.
std::string foundPeople(CZELTA& db) {
  constexpr unsigned kFirst = 4;
  std::string all;
  for (unsigned i = 0; i < shapeKinds(true).size(); ++i) {
    const ShapeKind kind = shapeKinds(true)[i];
    for (const std::uint32_t number : {0u, 1u, 3u, 77u}) {
      const Shapes like = number == 0 ? Shapes::everything() : Shapes(number);
      const auto searched = searchLike(db, kPeople, kFirst + i, kind, like);
      if (searched == systemCode(2)) return "";
      must(searched);
      std::string ids;
      CZELTA::Object object{};
      CZELTA::Mode step = CZELTA::ReadFirst;
      for (;; step = CZELTA::ReadNext) {
        const auto result = db.ReadObject(kPeople, step, &object, kFirst + i, nullptr, nullptr);
        if (result == ownCode(32)) break;
        must(result);
        ids += " " + std::to_string(object.objectID);
      }
      if (ids.empty()) continue;
      all += std::string(kind.name) + " like " + std::to_string(number) + ":" + ids + "\n";
    }
  }
  return all;
}

/// All that a database holds, in the order of each index, and what searches find.
std::string contentsOf(const std::u16string& path, CZELTA::Mode mode) {
  CZELTA db;
  must(db.OpenDatabase(path.c_str()));
  must(db.BeginTransaction(mode, kTimeout));
  std::string all;
  for (const auto& [table, indexes] : {std::pair{kPeople, 3u}, {kOrders, 2u}, {kNotes, 1u}}) {
    const unsigned long long opened = db.OpenTable(table);
    if (opened == ownCode(30)) continue;
    must(opened);
    for (unsigned index = 0; index <= indexes; ++index) {
      all += "table " + std::to_string(table) + " index " + std::to_string(index) + "\n";
      CZELTA::Object object{};
      CZELTA::Mode step = CZELTA::ReadFirst;
      unsigned entry = 0;
      for (;; step = CZELTA::ReadNext) {
        const auto result = db.ReadObject(table, step, &object, index, nullptr, &entry);
        // The first writer that needs an index file makes it.
        if (result == ownCode(32) || result == systemCode(2)) break;
        must(result);
        all += std::to_string(object.objectID) + "," + std::to_string(object.version) + "," +
               std::to_string(entry) + ",";
        all.append(static_cast<const char*>(object.data), object.length);
        all += "\n";
      }
    }
  }
  all += foundPeople(db);
  must(db.EndTransaction());
  return all;
}

class ApplicationCrash : public ::testing::Test {
 protected:
  ApplicationCrash() : thorough_(std::getenv("ZELTA_THOROUGH") != nullptr) {}
  ApplicationCrash(const ApplicationCrash&) = delete;
  ApplicationCrash& operator=(const ApplicationCrash&) = delete;

  void SetUp() override {
    ASSERT_EQ(inProcess([&] {
                try {
                  Application::create(start_.file("shop.zlc"));
                  return 0;
                } catch (const Failure&) {
                  return 1;
                }
              }),
              0);
    // An undisturbed run tells what there is after each step.
    reset();
    states_.push_back(contentsOf(path(), CZELTA::TransactionRead));
    Application(path(), [&] {
      states_.push_back(contentsOf(path(), CZELTA::TransactionRead));
    }).run();
    ASSERT_EQ(states_.size(), 9u);
    expectClean(path());
  }
  [[nodiscard]] std::u16string path() const { return folder_.file("shop.zlc"); }
  void reset() const {
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
      std::filesystem::remove(entry.path());
    }
    folder_.copyFrom(start_);
    *reported_ = 0;
  }
  /// Runs the application. False if it came to its end without meeting the call.
  [[nodiscard]] bool strike(std::uint64_t call, Misfortune::Kind kind) const {
    const int ended = inProcess([&] {
      Misfortune misfortune(call, kind);
      try {
        Application(path(), [&] { ++*reported_; }).run();
      } catch (const Failure&) {
        return 1;
      }
      return misfortune.struck ? 1 : 0;
    });
    return ended != 0;
  }
  /// Repairs in a process that dies at a call of its own.
  [[nodiscard]] bool strikeRepair(std::uint64_t call, Misfortune::Kind kind) const {
    return inProcess([&] {
             Misfortune misfortune(call, kind);
             try {
               static_cast<void>(contentsOf(path(), CZELTA::TransactionShared));
             } catch (const Failure&) {
               return 1;
             }
             return 0;
           }) != 0;
  }
  void judge(const std::string& context) {
    const auto reported = static_cast<std::size_t>(*reported_);
    std::string found;
    try {
      found = contentsOf(path(), CZELTA::TransactionExclusive);
    } catch (const Failure& failure) {
      FAIL() << failure.what() << context;
    }
    const bool before = found == states_[reported];
    const bool after = reported + 1 < states_.size() && found == states_[reported + 1];
    ASSERT_TRUE(before || after) << "after step " << reported << context;
    if (after && !before) ++finished_;
    ASSERT_EQ(findingsOf(path()), "") << context;
    ++points_;
  }
  /// Loses power behind changes of the files that an undisturbed run makes.
  void losePower(std::size_t stride, int samples) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    reset();
    std::vector<std::size_t> done = {0};  // changes made when a step was reported done
    Recorder recorder;
    Application(path(), [&] { done.push_back(recorder.changes.size()); }).run();
    platform::faults::install(nullptr);
    const auto after = filesOf(folder_);
    Disk disk(start_);
    std::size_t steps = 0;
    for (std::size_t i = 0; i <= recorder.changes.size(); ++i) {
      while (steps + 1 < done.size() && done[steps + 1] <= i) ++steps;
      for (int sample = 0; i % stride == seed % stride && sample < samples; ++sample) {
        disk.lose(folder_, random);
        *reported_ = static_cast<int>(steps);
        judge(", change " + std::to_string(i));
        if (HasFatalFailure()) return;
      }
      if (i < recorder.changes.size()) disk.make(recorder.changes[i]);
    }
    EXPECT_TRUE(disk.whole() == after) << "something was changed unseen";
    std::printf("%d disks of %zu changes, %d times the step under way was finished\n", points_,
                recorder.changes.size(), finished_);
  }
  void tryEverywhere(Misfortune::Kind kind, std::uint64_t stride, int repairers) {
    std::random_device source;
    const unsigned seed = source();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    if (thorough_) stride = 1;
    for (std::uint64_t call = random() % stride;; call += 1 + random() % (2 * stride - 1)) {
      reset();
      if (!strike(call, kind)) break;
      const std::string context = ", call " + std::to_string(call);
      for (int i = 0; i < repairers; ++i) {
        if (strikeRepair(random() % 60, kind)) ++repairersStruck_;
      }
      judge(context);
      if (HasFatalFailure()) return;
    }
    EXPECT_GT(points_, 20);
    std::printf("%d points, %d repairers struck, %d times the step under way was finished\n",
                points_, repairersStruck_, finished_);
  }

  const bool thorough_;
  SharedNumber reported_;
  FreshFolder start_;
  FreshFolder folder_;
  std::vector<std::string> states_;
  int points_ = 0;
  int repairersStruck_ = 0;
  int finished_ = 0;
};

TEST_F(ApplicationCrash, Death_at_any_call_loses_nothing_that_was_done) {
  tryEverywhere(Misfortune::Kind::death, 12, 0);
}
TEST_F(ApplicationCrash, Death_within_a_write_loses_nothing_that_was_done) {
  tryEverywhere(Misfortune::Kind::deathInWrite, 12, 0);
}
TEST_F(ApplicationCrash, A_call_that_fails_once_loses_nothing_that_was_done) {
  tryEverywhere(Misfortune::Kind::failure, 12, 0);
}
TEST_F(ApplicationCrash, Calls_that_fail_from_some_point_on_lose_nothing_that_was_done) {
  tryEverywhere(Misfortune::Kind::failures, 12, 0);
}
TEST_F(ApplicationCrash, Repairers_may_die_one_after_the_other) {
  tryEverywhere(Misfortune::Kind::death, 20, 3);
}
TEST_F(ApplicationCrash, Loss_of_power_loses_nothing_that_was_done) {
  losePower(thorough_ ? 1 : 8, thorough_ ? 12 : 1);
}

}  // namespace
}  // namespace zelta::testing
