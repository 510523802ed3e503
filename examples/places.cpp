// Places and countries: a larger table with boxes and words, and one with the outlines of countries
// as patterns of points.
//
//   places load DATABASE CITIES COUNTRIES              creates the database from two lists, whose
//                                                      columns are separated by tabs
//   places near DATABASE LONGITUDE LATITUDE KM         places at most so far away, the nearest first
//   places named DATABASE EXPRESSION                   places by words of their names, in small letters
//   places meet DATABASE DEGREES LONGITUDE LATITUDE [LONGITUDE LATITUDE ...]
//                                                      countries whose outlines pass by each of
//                                                      these points: those that meet at a point, or
//                                                      share the border that goes along some points

#include <czelta.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support.h"

namespace {

constexpr int kObjectsPerTransaction = 10000;

enum Tables : unsigned { Places = 1, Countries = 2 };
enum PlaceIndexes : unsigned { ByPosition = 1, ByWords = 2 };
enum CountryIndexes : unsigned { ByName = 1, ByOutline = 2 };

// -- Loading --------------------------------------------------------------------------------------

void createTable(CZELTA& database, CZELTA::Schema& schema) {
  check(database, database.BeginTransaction(CZELTA::TransactionExclusive, kTimeout));
  check(database, database.CreateTable(&schema, nullptr));
  check(database, database.EndTransaction());
}

void createPlaces(CZELTA& database) {
  CZELTA::Schema::Field fields[] = {
      {CZELTA::TypeRect2, 0, 0, 0, u"position", nullptr},
      {CZELTA::TypeWideText, 0, 40, 0, u"name", nullptr},
      {CZELTA::TypeText, 0, 3, 0, u"country", nullptr},
  };
  CZELTA::Schema::Segment position[] = {{0, 0}};
  CZELTA::Schema::Segment words[] = {{1, CZELTA::SegmentWords | CZELTA::SegmentLowerCase}};
  CZELTA::Schema::Index indexes[2] = {};
  indexes[0].indexKind = CZELTA::SpatialTree;
  indexes[0].segmentCount = 1;
  indexes[0].segments = position;
  indexes[1].indexKind = CZELTA::WideList;
  indexes[1].segmentCount = 1;
  indexes[1].segments = words;
  CZELTA::Schema schema = {};
  schema.tableId = Places;
  schema.tableName = u"places";
  schema.fieldCount = 3;
  schema.fields = fields;
  schema.indexCount = 2;
  schema.indexes = indexes;
  createTable(database, schema);
}

void createCountries(CZELTA& database) {
  CZELTA::Schema::Field fields[] = {
      {CZELTA::TypeText, 0, 20, 0, u"name", nullptr},
      {CZELTA::TypePoints2, 0, 500, 0, u"outline", nullptr},
  };
  CZELTA::Schema::Segment name[] = {{0, CZELTA::SegmentUpperCase}};
  CZELTA::Schema::Segment outline[] = {{1, 0}};
  CZELTA::Schema::Index indexes[2] = {};
  indexes[0].segmentCount = 1;
  indexes[0].segments = name;
  indexes[1].indexKind = CZELTA::SpatialPattern;
  indexes[1].segmentCount = 1;
  indexes[1].segments = outline;
  CZELTA::Schema schema = {};
  schema.tableId = Countries;
  schema.tableName = u"countries";
  schema.fieldCount = 2;
  schema.fields = fields;
  schema.indexCount = 2;
  schema.indexes = indexes;
  createTable(database, schema);
}

double parseDegrees(const std::string& text, double limit) {
  char* end = nullptr;
  const double degrees = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !(std::fabs(degrees) <= limit)) {
    throw std::runtime_error("\"" + text + "\" is off the globe");
  }
  return degrees;
}

/// Adds an object for each line of a list but the first one; `fill` puts the columns of a line into
/// the table's buffer.
int loadList(CZELTA& database, unsigned table, const char* path,
             const std::function<void(const std::vector<std::string>&, CZELTA::Object&)>& fill) {
  std::ifstream list(path);
  std::string line;
  if (!std::getline(list, line)) throw std::runtime_error(std::string(path) + " cannot be read");
  int loaded = 0;
  const auto commit = [&] {
    check(database, database.CommitTransaction(true));
    check(database, database.EndTransaction());
  };
  openTable(database, CZELTA::TransactionShared, table);
  while (std::getline(list, line)) {
    std::vector<std::string> columns;
    std::istringstream parts(line);
    for (std::string column; std::getline(parts, column, '\t');) columns.push_back(column);
    CZELTA::Object object;
    check(database, database.NewObject(table, &object, 0));
    fill(columns, object);
    check(database, database.AddObject(table, &object, 0));
    if (++loaded % kObjectsPerTransaction == 0) {
      commit();
      openTable(database, CZELTA::TransactionShared, table);
    }
  }
  commit();
  return loaded;
}

void fillPlace(CZELTA& database, const std::vector<std::string>& columns, CZELTA::Object& object) {
  if (columns.size() < 4) throw std::runtime_error("a place lacks columns");
  const std::int32_t longitude = microdegrees(parseDegrees(columns[2], 180));
  const std::int32_t latitude = microdegrees(parseDegrees(columns[1], 90));
  const std::int32_t position[] = {longitude, latitude, longitude, latitude};
  std::memcpy(object.data, position, sizeof position);
  const std::u16string name = utf16(columns[0]);
  std::string values(reinterpret_cast<const char*>(name.c_str()), 2 * name.size() + 2);
  values.append(columns[3]).append(1, '\0');
  check(database, database.PutVariableValues(Places, values.data(),
                                             static_cast<unsigned>(values.size()), 0, 2, &object));
}

/// A set of points as fields and searches have it: its length in bytes, then x and y of each.
std::string encodePoints(const std::vector<std::int32_t>& coordinates) {
  const auto bytes = static_cast<std::uint32_t>(4 + 4 * coordinates.size());
  std::string encoded(bytes, '\0');
  std::memcpy(encoded.data(), &bytes, 4);
  std::copy_n(reinterpret_cast<const char*>(coordinates.data()), bytes - 4, encoded.data() + 4);
  return encoded;
}

void fillCountry(CZELTA& database, std::vector<std::string> columns, CZELTA::Object& object) {
  if (columns.size() < 3) throw std::runtime_error("a country lacks columns");
  std::replace(columns[2].begin(), columns[2].end(), '|', ' ');  // where a ring ends
  std::vector<std::int32_t> coordinates;
  std::istringstream points(columns[2]);
  for (std::string point; points >> point;) {
    const std::size_t comma = point.find(',');
    if (comma == std::string::npos) throw std::runtime_error(point + " is no point");
    coordinates.push_back(microdegrees(parseDegrees(point.substr(0, comma), 180)));
    coordinates.push_back(microdegrees(parseDegrees(point.substr(comma + 1), 90)));
  }
  const std::string values = columns[0] + '\0' + encodePoints(coordinates);
  check(database, database.PutVariableValues(Countries, values.data(),
                                             static_cast<unsigned>(values.size()), 0, 2, &object));
}

int load(CZELTA& database, const char* path, const char* cities, const char* countries) {
  check(database, database.CreateDatabase(databasePath(path).c_str()));
  createPlaces(database);
  createCountries(database);
  const int places = loadList(database, Places, cities, [&](const auto& columns, auto& object) {
    fillPlace(database, columns, object);
  });
  const int outlines =
      loadList(database, Countries, countries,
               [&](const auto& columns, auto& object) { fillCountry(database, columns, object); });
  std::printf("%d places and %d countries loaded\n", places, outlines);
  return 0;
}

// -- Searching ------------------------------------------------------------------------------------

struct Point {
  double longitude;  ///< degrees
  double latitude;
};

constexpr double kKilometresPerDegree = 111.2;
constexpr double kRadiansPerDegree = 3.14159265358979 / 180;

/// Good enough for neighbours.
double kilometres(const Point& a, const Point& b) {
  const double shrunk = std::cos((a.latitude + b.latitude) / 2 * kRadiansPerDegree);
  return kKilometresPerDegree *
         std::hypot((a.longitude - b.longitude) * shrunk, a.latitude - b.latitude);
}

/// The place in the table's buffer: its name and country.
std::string describe(CZELTA& database) {
  void* name = nullptr;
  void* country = nullptr;
  check(database, database.GetVariableField(Places, 0, &name, nullptr));
  check(database, database.GetVariableField(Places, 1, &country, nullptr));
  return utf8(static_cast<const char16_t*>(name)) + ", " + static_cast<const char*>(country);
}

/// The box around the circle is searched; of what lies in its corners the distance decides.
int near(CZELTA& database, const char* path, const Point& centre, double radius) {
  check(database, database.OpenDatabase(databasePath(path).c_str()));
  openTable(database, CZELTA::TransactionRead, Places);
  const double high = radius / kKilometresPerDegree;
  const double wide = high / std::max(0.01, std::cos(centre.latitude * kRadiansPerDegree));
  const std::int32_t box[] = {
      microdegrees(centre.longitude - wide), microdegrees(centre.latitude - high),
      microdegrees(centre.longitude + wide), microdegrees(centre.latitude + high)};
  searchIndex(database, Places, ByPosition, box);
  std::vector<std::pair<double, std::string>> found;
  for (const std::uint32_t id : foundObjects(database, Places, ByPosition)) {
    CZELTA::Object object;
    check(database, database.ReadObject(Places, id, &object));
    std::int32_t position[2];
    std::memcpy(position, object.data, sizeof position);
    const double distance = kilometres(centre, {position[0] / 1e6, position[1] / 1e6});
    if (distance > radius) continue;
    found.emplace_back(distance, describe(database));
  }
  std::sort(found.begin(), found.end());
  for (const auto& [distance, name] : found)
    std::printf("  %5.1f km  %s\n", distance, name.c_str());
  std::printf("%zu places found\n", found.size());
  check(database, database.EndTransaction());
  return 0;
}

int named(CZELTA& database, const char* path, const char* expression) {
  check(database, database.OpenDatabase(databasePath(path).c_str()));
  openTable(database, CZELTA::TransactionRead, Places);
  searchWords(database, Places, ByWords, utf16(expression).c_str());
  const std::vector<std::uint32_t> ids = foundObjects(database, Places, ByWords);
  for (const std::uint32_t id : ids) {
    CZELTA::Object object;
    check(database, database.ReadObject(Places, id, &object));
    std::printf("  %s\n", describe(database).c_str());
  }
  std::printf("%zu places found\n", ids.size());
  check(database, database.EndTransaction());
  return 0;
}

int meet(CZELTA& database, const char* path, double tolerance, const std::vector<Point>& points) {
  if (tolerance < 0) throw std::runtime_error("a tolerance below 0 finds nothing");
  check(database, database.OpenDatabase(databasePath(path).c_str()));
  openTable(database, CZELTA::TransactionRead, Countries);
  std::vector<std::int32_t> coordinates;
  for (const Point& point : points) {
    coordinates.push_back(microdegrees(point.longitude));
    coordinates.push_back(microdegrees(point.latitude));
  }
  const std::string pattern = encodePoints(coordinates);
  check(database, database.SearchIndex(Countries, ByOutline, pattern.data(),
                                       static_cast<unsigned>(microdegrees(tolerance)),
                                       CZELTA::Mode{}, nullptr));
  for (const std::uint32_t id : foundObjects(database, Countries, ByOutline)) {
    CZELTA::Object object;
    check(database, database.ReadObject(Countries, id, &object));
    std::printf("  %s\n", static_cast<const char*>(object.variableData));
  }
  check(database, database.EndTransaction());
  return 0;
}

std::vector<Point> parsePoints(char** begin, char** end) {
  std::vector<Point> points;
  for (; begin != end; begin += 2) {
    points.push_back({parseDegrees(begin[0], 180), parseDegrees(begin[1], 90)});
  }
  return points;
}

}  // namespace

int main(int argc, char** argv) try {
  CZELTA database;
  const std::string command = argc > 1 ? argv[1] : "";
  if (command == "load" && argc == 5) return load(database, argv[2], argv[3], argv[4]);
  if (command == "near" && argc == 6) {
    return near(database, argv[2], parsePoints(argv + 3, argv + 5)[0], std::atof(argv[5]));
  }
  if (command == "named" && argc == 4) return named(database, argv[2], argv[3]);
  if (command == "meet" && argc >= 6 && argc % 2 == 0) {
    return meet(database, argv[2], parseDegrees(argv[3], 180), parsePoints(argv + 4, argv + argc));
  }
  std::fprintf(stderr,
               "usage: places load DATABASE CITIES COUNTRIES\n"
               "       places near DATABASE LONGITUDE LATITUDE KM\n"
               "       places named DATABASE EXPRESSION\n"
               "       places meet DATABASE DEGREES LONGITUDE LATITUDE [LONGITUDE LATITUDE ...]\n");
  return 2;
} catch (const std::exception& error) {
  std::fprintf(stderr, "places: %s\n", error.what());
  return 1;
}
