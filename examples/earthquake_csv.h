// Rows of the earthquake catalogue.

#ifndef EXAMPLES_EARTHQUAKE_CSV_H
#define EXAMPLES_EARTHQUAKE_CSV_H

#include <cstdint>
#include <functional>
#include <string>

/// One event, in the units in which the database stores it.
struct Earthquake {
  std::string code;           ///< identifier of the event, unique
  std::string place;          ///< "4km W of Castaic, CA"
  std::string kind;           ///< "earthquake", "quarry blast", ...
  double magnitude;           ///< Richter or a scale like it
  std::uint64_t time;         ///< 100 ns since 1 January 1601
  std::uint64_t updated;      ///< the same for the last change of the record
  std::int32_t longitude;     ///< millionths of a degree
  std::int32_t latitude;      ///< millionths of a degree
  double depth;               ///< km
  std::uint32_t feltReports;  ///< number of people who reported it
  bool tsunami;               ///< a warning was given
};

/// Reads a catalogue and hands over each event. A bad row goes to `reject` with its line number and
/// the reason, and is skipped. Returns false if the file cannot be read or lacks its header line.
bool readCatalogue(const char* path, const std::function<bool(const Earthquake&)>& accept,
                   const std::function<void(long line, const std::string& reason)>& reject);

#endif  // EXAMPLES_EARTHQUAKE_CSV_H
