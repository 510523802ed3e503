// Work on a database of which nothing is known: what the steering bytes say is done with whatever
// tables the database turns out to have.

#ifndef ZELTA_TESTS_FUZZ_WORK_H
#define ZELTA_TESTS_FUZZ_WORK_H

#include <cstdint>
#include <string>
#include <vector>

#include "czelta.h"
#include "fuzz/steering.h"

namespace zelta::fuzz {

class Work {
 public:
  Work(CZELTA& handle, Steering& steering) : handle_(handle), steering_(steering) {}

  /// Does what the bytes say, until they end or all has been tried often enough.
  void run();

 private:
  /// What is known of an open table.
  struct OpenTable {
    unsigned int id;
    std::vector<std::uint32_t> fieldTypes;
    std::vector<std::uint32_t> subFieldCounts;  ///< of each field
    std::uint32_t firstVariable;
    std::uint32_t indexCount;
    bool wide;
  };

  void step();
  void begin();
  void end();
  void listTables();
  void openTable(unsigned int id);
  void learnSchema(unsigned int id);
  void readParameters();
  void setParameter();
  bool isSparse(const OpenTable& table);
  void walk(const OpenTable& table, std::uint32_t index, CZELTA::Mode first, CZELTA::Mode flags);
  void walkAll(const OpenTable& table);
  void readByKey(const OpenTable& table);
  void look(const OpenTable& table, const CZELTA::Object& object);
  void lookAtField(const OpenTable& table, std::uint32_t field, const CZELTA::Object& whole);
  void lookAtRows(const OpenTable& table, std::uint32_t field, const CZELTA::Object& whole);
  void add(const OpenTable& table);
  void rewrite(const OpenTable& table);
  void erase(const OpenTable& table);
  void restore(const OpenTable& table);
  void search(const OpenTable& table);
  std::string someQuery();
  void removeTable();
  void addTable();
  void createTable();
  void waitForCommit();
  long long someID();
  CZELTA::Mode someFlags();
  /// Zero for an ID as wide as the table's, and room for any key.
  const void* idKey(const OpenTable& table, long long id);

  CZELTA& handle_;
  Steering& steering_;
  std::vector<unsigned int> known_;  ///< IDs of the tables
  std::vector<OpenTable> open_;
  std::string key_;
};

}  // namespace zelta::fuzz

#endif  // ZELTA_TESTS_FUZZ_WORK_H
