// Checks the files of a database and tells what does not agree. It changes nothing.

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>

#include "check/check.h"

namespace {

constexpr int kSound = 0;
constexpr int kFindings = 1;
constexpr int kNotChecked = 2;

constexpr const char* kUsage =
    "usage: zelta-check [--remains] [--limit N] DATABASE\n"
    "\n"
    "Checks all files of a database, which is named by its control file, with or without "
    "\".zlc\".\n"
    "No transaction may be open on it. Nothing is changed.\n"
    "\n"
    "  --remains  tell of harmless left-overs too\n"
    "  --limit N  end after N findings (100)\n"
    "\n"
    "Prints a line for each finding: damage; pending work, which the next who opens the database\n"
    "finishes or takes back; remains. The exit code is 0 if there is neither damage nor pending\n"
    "work, 1 if there is, 2 if the database could not be checked.\n";

struct Arguments {
  std::filesystem::path database;
  zelta::CheckOptions options;
  bool help = false;
};

bool parseLimit(const char* text, std::size_t* limit) {
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text, &end, 10);
  *limit = static_cast<std::size_t>(value);
  return *text >= '1' && *text <= '9' && *end == '\0';
}

std::string utf8(const std::filesystem::path& path) {
  const std::u8string bytes = path.u8string();
  return {bytes.begin(), bytes.end()};
}

/// Arguments as the system gives them, which on Windows are wide.
template <class Character>
bool parse(int count, Character** values, Arguments* out) {
  for (int i = 1; i < count; ++i) {
    const std::filesystem::path given(values[i]);
    const std::string value = utf8(given);
    if (value == "--help") {
      out->help = true;
    } else if (value == "--remains") {
      out->options.remains = true;
    } else if (value == "--limit") {
      if (++i == count) return false;
      const std::string limit = utf8(values[i]);
      if (!parseLimit(limit.c_str(), &out->options.maximumFindings)) return false;
    } else if (out->database.empty() && !value.empty() && value[0] != '-') {
      out->database = given;
    } else {
      return false;
    }
  }
  return out->help || !out->database.empty();
}

/// The control file that is meant.
std::filesystem::path controlFile(std::filesystem::path path) {
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(path, ignored)) path += ".zlc";
  return path;
}

void print(const char* text) { std::fputs(text, stdout); }

void printCounts(const zelta::CheckCounts& counts) {
  std::printf("%llu tables, %llu objects, %llu indexes with %llu keys, %llu log entries\n",
              static_cast<unsigned long long>(counts.tables),
              static_cast<unsigned long long>(counts.objects),
              static_cast<unsigned long long>(counts.indexes),
              static_cast<unsigned long long>(counts.keys),
              static_cast<unsigned long long>(counts.logEntries));
  if (counts.notChecked != 0) {
    std::printf("%llu indexes are of a kind that is not checked\n",
                static_cast<unsigned long long>(counts.notChecked));
  }
}

int run(const Arguments& arguments) {
  const std::filesystem::path path = controlFile(arguments.database);
  if (!std::ifstream(path, std::ios::binary)) {
    std::fprintf(stderr, "zelta-check: %s cannot be read\n", utf8(path).c_str());
    return kNotChecked;
  }
  zelta::CheckCounts counts;
  const auto findings = zelta::checkDatabase(path.u16string(), arguments.options, &counts);
  bool sound = true;
  for (const zelta::CheckFinding& finding : findings) {
    print((zelta::describe(finding) + "\n").c_str());
    sound = sound && finding.kind == zelta::CheckKind::remains;
  }
  printCounts(counts);
  const bool ended = findings.size() >= arguments.options.maximumFindings;
  print(ended   ? "the limit of findings is reached: there may be more\n"
        : sound ? "nothing is wrong\n"
                : "not all is well\n");
  return sound && !ended ? kSound : kFindings;
}

template <class Character>
int checkGiven(int count, Character** values) {
  try {
    Arguments arguments;
    if (!parse(count, values, &arguments)) {
      std::fputs(kUsage, stderr);
      return kNotChecked;
    }
    if (arguments.help) {
      print(kUsage);
      return kSound;
    }
    return run(arguments);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "zelta-check: %s\n", failure.what());
    return kNotChecked;
  }
}

}  // namespace

#ifdef _WIN32
int wmain(int count, wchar_t** values) { return checkGiven(count, values); }
#else
int main(int count, char** values) { return checkGiven(count, values); }
#endif
