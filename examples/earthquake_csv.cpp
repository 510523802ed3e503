#include "earthquake_csv.h"

#include <csv.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <vector>

namespace {

constexpr std::size_t kColumns = 12;
/// 100 ns steps from 1 January 1601 to 1 January 1970.
constexpr std::uint64_t kUnixEpoch = 116444736000000000;

struct Reader {
  std::vector<std::string> fields;
  long line = 1;  // line on which the row ends
  long rows = 0;
  bool stopped = false;
  const std::function<bool(const Earthquake&)>& accept;
  const std::function<void(long, const std::string&)>& reject;
};

template <typename Number>
Number parse(const std::string& text, const char* column) {
  Number value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size()) {
    throw std::runtime_error(std::string(column) + " is no number: \"" + text + "\"");
  }
  return value;
}

std::int32_t parseDegrees(const std::string& text, const char* column, double limit) {
  const double degrees = parse<double>(text, column);
  if (!(std::fabs(degrees) <= limit))
    throw std::runtime_error(std::string(column) + " is off the globe");
  return static_cast<std::int32_t>(std::lround(degrees * 1e6));
}

std::uint64_t parseTime(const std::string& text, const char* column) {
  const auto milliseconds = parse<std::int64_t>(text, column);
  if (milliseconds < -11644473600000 || milliseconds > 253402300799999) {
    throw std::runtime_error(std::string(column) + " is out of range");
  }
  return kUnixEpoch + static_cast<std::uint64_t>(milliseconds) * 10000;
}

Earthquake toEarthquake(const std::vector<std::string>& f) {
  if (f.size() != kColumns) {
    throw std::runtime_error(std::to_string(f.size()) + " columns instead of " +
                             std::to_string(kColumns));
  }
  if (f[0].empty()) throw std::runtime_error("the code is missing");
  Earthquake e;
  e.code = f[0];
  e.place = f[1];
  e.magnitude = parse<double>(f[2], "magnitude");
  e.time = parseTime(f[4], "time");
  e.updated = parseTime(f[5], "updated");
  e.longitude = parseDegrees(f[6], "longitude", 180);
  e.latitude = parseDegrees(f[7], "latitude", 90);
  e.depth = parse<double>(f[8], "depth");
  e.feltReports = f[9].empty() ? 0 : parse<std::uint32_t>(f[9], "felt reports");
  e.tsunami = parse<int>(f[10], "tsunami") != 0;
  e.kind = f[11];
  return e;
}

void onField(void* text, std::size_t length, void* data) {
  static_cast<Reader*>(data)->fields.emplace_back(static_cast<char*>(text), length);
}

void onRow(int, void* data) {
  auto& reader = *static_cast<Reader*>(data);
  const bool header = reader.rows++ == 0;
  if (!header && !reader.stopped) {
    try {
      reader.stopped = !reader.accept(toEarthquake(reader.fields));
    } catch (const std::runtime_error& error) {
      reader.reject(reader.line, error.what());
    }
  }
  reader.fields.clear();
}

}  // namespace

bool readCatalogue(const char* path, const std::function<bool(const Earthquake&)>& accept,
                   const std::function<void(long, const std::string&)>& reject) {
  std::FILE* file = std::fopen(path, "rb");
  if (file == nullptr) return false;
  csv_parser parser;
  csv_init(&parser, 0);
  Reader reader{{}, 1, 0, false, accept, reject};

  // A character at a time, so that a row's line number is at hand when the row ends.
  for (int c = std::fgetc(file); c != EOF && !reader.stopped; c = std::fgetc(file)) {
    const char byte = static_cast<char>(c);
    csv_parse(&parser, &byte, 1, onField, onRow, &reader);
    if (c == '\n') ++reader.line;
  }
  csv_fini(&parser, onField, onRow, &reader);
  csv_free(&parser);
  std::fclose(file);
  return reader.rows > 0;
}
