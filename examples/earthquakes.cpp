// A week of earthquakes: loads a catalogue into a database, and finds events in it again.
//
//   earthquakes load DATABASE CATALOGUE          creates the database and loads the catalogue (CSV)
//   earthquakes show DATABASE [CODE ...]         the ten strongest, the events with these codes,
//                                                some places
//   earthquakes find DATABASE [CONDITION ...]    the events that meet all conditions, the strongest
//                                                first:
//       box WEST SOUTH EAST NORTH                in degrees
//       during FROM TO                           such as 2018-02-05 2018-02-06T12:30, in UTC
//       words EXPRESSION                         of the place and the kind of event
//       above MAGNITUDE
//   earthquakes revise DATABASE CODE MAGNITUDE   corrects a magnitude, and drops all events that
//                                                are no earthquakes and that nobody has felt

#include <czelta.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "earthquake_csv.h"
#include "support.h"

namespace {

constexpr int kObjectsPerTransaction = 200;
constexpr unsigned kEvents = 1;  ///< ID of the table, the database's first

/// The fixed fields of an event, laid out as the library lays them out: each at its alignment.
struct FixedFields {
  float magnitude;
  std::uint32_t time[2];  // TypeDateTime is aligned to 4
  std::uint32_t updated[2];
  std::int32_t epicentre[4];  // TypeRect2: a box without extent
  float depth;
  std::uint32_t feltReports;
  std::uint8_t tsunami;
};

enum Indexes : unsigned {
  ByCode = 1,
  ByMagnitude = 2,
  ByPlace = 3,
  ByEpicentre = 4,
  ByTime = 5,
  ByWords = 6
};

unsigned createTable(CZELTA& database) {
  CZELTA::Schema::Field fields[] = {
      {CZELTA::TypeFloat, 0, 0, 0, u"magnitude", nullptr},
      {CZELTA::TypeDateTime, 0, 0, 0, u"time", nullptr},
      {CZELTA::TypeDateTime, 0, 0, 0, u"updated", nullptr},
      {CZELTA::TypeRect2, 0, 0, 0, u"epicentre", nullptr},
      {CZELTA::TypeFloat, 0, 0, 0, u"depth", nullptr},
      {CZELTA::TypeUInt32, 0, 0, 0, u"felt reports", nullptr},
      {CZELTA::TypeBoolean, 0, 0, 0, u"tsunami", nullptr},
      {CZELTA::TypeText, 0, 12, 0, u"code", nullptr},
      {CZELTA::TypeText, 0, 40, 0, u"place", nullptr},
      {CZELTA::TypeText, 0, 12, 0, u"kind", nullptr},
  };
  CZELTA::Schema::Segment code[] = {{7, 0}};
  CZELTA::Schema::Segment magnitude[] = {{0, CZELTA::SegmentDescending},
                                         {CZELTA::ObjectIdSegment, 0}};
  CZELTA::Schema::Segment place[] = {{8, CZELTA::SegmentUpperCase}, {CZELTA::ObjectIdSegment, 0}};
  CZELTA::Schema::Segment epicentre[] = {{3, 0}};
  CZELTA::Schema::Segment time[] = {{1, 0}, {1, 0}};  // a span that ends as it begins
  constexpr std::uint32_t kWords =
      CZELTA::SegmentWords | CZELTA::SegmentAlphanumeric | CZELTA::SegmentLowerCase;
  CZELTA::Schema::Segment words[] = {{8, kWords}, {9, kWords}};
  CZELTA::Schema::Index indexes[6] = {};
  indexes[0].segmentCount = 1;
  indexes[0].segments = code;
  indexes[1].segmentCount = 2;
  indexes[1].segments = magnitude;
  indexes[2].segmentCount = 2;
  indexes[2].segments = place;
  indexes[3].indexKind = CZELTA::SpatialTree;
  indexes[3].segmentCount = 1;
  indexes[3].segments = epicentre;
  indexes[4].indexKind = CZELTA::TemporalTree;
  indexes[4].segmentCount = 2;
  indexes[4].segments = time;
  indexes[5].indexKind = CZELTA::AsciiList;
  indexes[5].segmentCount = 2;
  indexes[5].segments = words;

  CZELTA::Schema schema = {};
  schema.tableName = u"events";
  schema.fieldCount = 10;
  schema.fields = fields;
  schema.indexCount = 6;
  schema.indexes = indexes;
  unsigned table = 0;
  check(database, database.BeginTransaction(CZELTA::TransactionExclusive, kTimeout));
  check(database, database.CreateTable(&schema, &table));
  check(database, database.EndTransaction());
  return table;
}

void addEvent(CZELTA& database, unsigned table, const Earthquake& event) {
  CZELTA::Object object;
  check(database, database.NewObject(table, &object, 0));
  FixedFields fixed = {};
  fixed.magnitude = static_cast<float>(event.magnitude);
  std::memcpy(fixed.time, &event.time, sizeof fixed.time);
  std::memcpy(fixed.updated, &event.updated, sizeof fixed.updated);
  fixed.epicentre[0] = fixed.epicentre[2] = event.longitude;
  fixed.epicentre[1] = fixed.epicentre[3] = event.latitude;
  fixed.depth = static_cast<float>(event.depth);
  fixed.feltReports = event.feltReports;
  fixed.tsunami = event.tsunami;
  std::memcpy(object.data, &fixed, offsetof(FixedFields, tsunami) + 1);

  // The texts follow each other, each with its terminator.
  std::string texts = event.code + '\0' + event.place + '\0' + event.kind + '\0';
  check(database, database.PutVariableValues(table, texts.data(),
                                             static_cast<unsigned>(texts.size()), 0, 3, &object));
  check(database, database.AddObject(table, &object, 0));
}

int load(CZELTA& database, const char* path, const char* catalogue) {
  check(database, database.CreateDatabase(databasePath(path).c_str()));
  const unsigned table = createTable(database);

  int loaded = 0;
  int rejected = 0;
  const auto begin = [&] { openTable(database, CZELTA::TransactionShared, table); };
  const auto commit = [&] {
    check(database, database.CommitTransaction(true));
    check(database, database.EndTransaction());
    std::printf("\r%d events loaded", loaded);
    std::fflush(stdout);
  };
  const auto reject = [&](long line, const std::string& reason) {
    std::fprintf(stderr, "%s:%ld: skipped: %s\n", catalogue, line, reason.c_str());
    ++rejected;
  };

  begin();
  const bool read = readCatalogue(
      catalogue,
      [&](const Earthquake& event) {
        addEvent(database, table, event);
        if (++loaded % kObjectsPerTransaction == 0) {
          commit();
          begin();
        }
        return true;
      },
      reject);
  commit();
  std::printf("\n");
  if (rejected > 0) std::fprintf(stderr, "%d rows were skipped\n", rejected);
  if (!read) std::fprintf(stderr, "%s: cannot be read\n", catalogue);
  return read ? 0 : 1;
}

FixedFields fixedFieldsOf(const CZELTA::Object& object) {
  FixedFields fixed = {};
  std::memcpy(&fixed, object.data, offsetof(FixedFields, tsunami) + 1);
  return fixed;
}

/// Prints the object in the table's buffer.
void print(CZELTA& database, unsigned table, const CZELTA::Object& object) {
  const FixedFields fixed = fixedFieldsOf(object);
  void* texts[3] = {};
  for (unsigned i = 0; i < 3; ++i)
    check(database, database.GetVariableField(table, i, &texts[i], nullptr));
  std::printf("  %4.1f  %6.1f km  %9.4f %8.4f  %-12s %s (%s)\n",
              static_cast<double>(fixed.magnitude), static_cast<double>(fixed.depth),
              fixed.epicentre[0] / 1e6, fixed.epicentre[1] / 1e6, static_cast<char*>(texts[0]),
              static_cast<char*>(texts[1]), static_cast<char*>(texts[2]));
}

/// Reads up to `most` objects of an index in order, from the one that `mode` and `key` name.
void walk(CZELTA& database, unsigned table, unsigned index, CZELTA::Mode mode, const void* key,
          int most) {
  CZELTA::Object object;
  for (int i = 0; i < most; ++i) {
    const auto result = database.ReadObject(table, mode, &object, index, key, nullptr);
    if (result == kNoMore) return;
    check(database, result);
    print(database, table, object);
    mode = CZELTA::ReadNext;
  }
}

/// The IDs of events that are no earthquakes. Nothing is locked for that.
std::vector<long long> findBlasts(CZELTA& database, unsigned table) {
  std::vector<long long> found;
  CZELTA::Object object;
  for (auto mode = CZELTA::ReadFirst;; mode = CZELTA::ReadNext) {
    const auto result =
        database.ReadObject(table, mode | CZELTA::ReadNoLock, &object, 0, nullptr, nullptr);
    if (result == kNoMore) return found;
    check(database, result);
    void* kind = nullptr;
    check(database, database.GetVariableField(table, 2, &kind, nullptr));
    if (std::strcmp(static_cast<char*>(kind), "earthquake") != 0) found.push_back(object.objectID);
  }
}

/// All of it is one transaction: others see the catalogue before the revision, or after it.
int revise(CZELTA& database, const char* path, const char* code, float magnitude) {
  check(database, database.OpenDatabase(databasePath(path).c_str()));
  openTable(database, CZELTA::TransactionShared, kEvents);

  CZELTA::Object object;
  check(database, database.ReadObject(kEvents, CZELTA::ReadEqual, &object, ByCode, code, nullptr));
  std::memcpy(object.data, &magnitude, sizeof magnitude);  // the first of the fixed fields
  check(database, database.RewriteObject(kEvents, &object));
  std::printf("Corrected (version %u):\n", object.version);
  print(database, kEvents, object);

  int dropped = 0;
  std::printf("No earthquakes, but felt:\n");
  for (const long long id : findBlasts(database, kEvents)) {
    check(database, database.DeleteObject(kEvents, id, &object));
    ++dropped;
    if (fixedFieldsOf(object).feltReports == 0) continue;
    print(database, kEvents, object);  // what was deleted stays in the buffer
    check(database, database.RestoreObject(kEvents, id, true));
    --dropped;
  }
  check(database, database.CommitTransaction(true));
  check(database, database.EndTransaction());
  std::printf("%d events dropped\n", dropped);
  return 0;
}

int show(CZELTA& database, const char* path, const std::vector<const char*>& codes) {
  check(database, database.OpenDatabase(databasePath(path).c_str()));
  openTable(database, CZELTA::TransactionRead, kEvents);

  std::printf("The ten strongest:\n");
  walk(database, kEvents, ByMagnitude, CZELTA::ReadFirst, nullptr, 10);

  for (const char* code : codes) {
    std::printf("Event %s:\n", code);
    CZELTA::Object object;
    if (database.ReadObject(kEvents, CZELTA::ReadEqual, &object, ByCode, code, nullptr) == 0) {
      print(database, kEvents, object);
    } else {
      const char16_t* message = nullptr;
      database.GetErrorMessage(&message);
      std::printf("  %s\n", utf8(message).c_str());
    }
  }

  // The key of the place index: the text, then a 32-bit object ID. ID 0 stands before all others.
  std::string from("Hawaii", 6);
  from.append(1 + sizeof(std::uint32_t), '\0');
  std::printf("Places from \"Hawaii\" on:\n");
  walk(database, kEvents, ByPlace, CZELTA::ReadGreaterEqual, from.data(), 8);

  check(database, database.EndTransaction());
  return 0;
}

// -- Finding by several conditions ----------------------------------------------------------------

/// What an event has to meet. A member that was not given is empty.
struct Conditions {
  std::vector<std::int32_t> box;      ///< west, south, east, north, in millionths of a degree
  std::vector<std::uint64_t> during;  ///< from, to; as TypeDateTime
  std::string words;                  ///< an expression
  float above = -10;                  ///< magnitude, weaker than all that anybody measures
};

/// "2018-02-05" or "2018-02-05T13:30", as TypeDateTime.
std::uint64_t parseTime(const char* text) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0;
  const int parts = std::sscanf(text, "%d-%d-%dT%d:%d", &year, &month, &day, &hour, &minute);
  const std::chrono::year_month_day date(std::chrono::year(year),
                                         std::chrono::month(static_cast<unsigned>(month)),
                                         std::chrono::day(static_cast<unsigned>(day)));
  if ((parts != 3 && parts != 5) || !date.ok() || year < 1601) {
    throw std::runtime_error(std::string(text) + " is no time");
  }
  const auto since = std::chrono::sys_days(date) + std::chrono::hours(hour) +
                     std::chrono::minutes(minute) -
                     std::chrono::sys_days(std::chrono::year(1601) / 1 / 1);
  return static_cast<std::uint64_t>(std::chrono::seconds(since).count()) * 10000000;
}

Conditions parseConditions(const std::vector<const char*>& words) {
  Conditions wanted;
  std::size_t at = 0;
  const auto next = [&] {
    if (at == words.size()) throw std::runtime_error("a condition is not complete");
    return words[at++];
  };
  while (at < words.size()) {
    const std::string name = next();
    if (name == "box") {
      while (wanted.box.size() < 4) {
        wanted.box.push_back(microdegrees(std::strtod(next(), nullptr)));
      }
    } else if (name == "during") {
      while (wanted.during.size() < 2) wanted.during.push_back(parseTime(next()));
    } else if (name == "words") {
      wanted.words = next();
    } else if (name == "above") {
      wanted.above = std::strtof(next(), nullptr);
    } else {
      throw std::runtime_error(name + " is no condition");
    }
  }
  return wanted;
}

/// The events that meet all conditions for which there is a search. The results of the first one
/// are taken over, and each of the others takes away what it has not found.
std::vector<std::uint32_t> search(CZELTA& database, const Conditions& wanted) {
  std::vector<std::uint32_t> ids;
  bool any = false;
  const auto combine = [&](unsigned index) {
    if (any) {
      keepFound(database, kEvents, index, &ids);
    } else {
      ids = foundObjects(database, kEvents, index);
    }
    any = true;
  };
  if (!wanted.box.empty()) {
    searchIndex(database, kEvents, ByEpicentre, wanted.box.data());
    combine(ByEpicentre);
  }
  if (!wanted.during.empty()) {
    searchIndex(database, kEvents, ByTime, wanted.during.data());
    combine(ByTime);
  }
  if (!wanted.words.empty()) {
    searchWords(database, kEvents, ByWords, wanted.words.c_str());
    combine(ByWords);
  }
  if (!any) combine(ByMagnitude);  // all of them
  return ids;
}

int find(CZELTA& database, const char* path, const Conditions& wanted) {
  check(database, database.OpenDatabase(databasePath(path).c_str()));
  openTable(database, CZELTA::TransactionRead, kEvents);
  std::vector<std::pair<float, std::uint32_t>> found;
  for (const std::uint32_t id : search(database, wanted)) {
    CZELTA::Object object;
    check(database, database.ReadObject(kEvents, id, &object));
    const float magnitude = fixedFieldsOf(object).magnitude;
    if (magnitude > wanted.above) found.emplace_back(magnitude, id);
  }
  std::sort(found.begin(), found.end(), std::greater<>());
  for (const auto& [magnitude, id] : found) {
    CZELTA::Object object;
    check(database, database.ReadObject(kEvents, id, &object));
    print(database, kEvents, object);
  }
  std::printf("%zu events found\n", found.size());
  check(database, database.EndTransaction());
  return 0;
}

}  // namespace

int main(int argc, char** argv) try {
  CZELTA database;
  const std::string command = argc > 1 ? argv[1] : "";
  if (command == "load" && argc == 4) return load(database, argv[2], argv[3]);
  if (command == "revise" && argc == 5) {
    return revise(database, argv[2], argv[3], std::strtof(argv[4], nullptr));
  }
  if (command == "find" && argc >= 3) {
    return find(database, argv[2], parseConditions({argv + 3, argv + argc}));
  }
  if (command == "show" && argc >= 3) return show(database, argv[2], {argv + 3, argv + argc});
  std::fprintf(stderr,
               "usage: earthquakes load DATABASE CATALOGUE\n"
               "       earthquakes show DATABASE [CODE ...]\n"
               "       earthquakes find DATABASE [box WEST SOUTH EAST NORTH] [during FROM TO] "
               "[words EXPRESSION] [above MAGNITUDE]\n"
               "       earthquakes revise DATABASE CODE MAGNITUDE\n");
  return 2;
} catch (const std::exception& error) {
  std::fprintf(stderr, "earthquakes: %s\n", error.what());
  return 1;
}
