// Random operations on handles with models.

#ifndef ZELTA_TESTS_MODEL_RANDOM_WORK_H
#define ZELTA_TESTS_MODEL_RANDOM_WORK_H

#include <random>
#include <string>

#include "model/model_handle.h"

namespace zelta::testing {

/// Random numbers, and contents that collide now and then.
class RandomThings {
 public:
  /// `crowd`: about how many objects there are to be.
  RandomThings(unsigned seed, const TableShape& shape, unsigned crowd)
      : shape_(shape), crowd_(crowd), random_(seed) {}

  unsigned below(unsigned limit) {
    return std::uniform_int_distribution<unsigned>(0, limit - 1)(random_);
  }
  bool chance(unsigned percent) { return below(100) < percent; }
  Thing thing();
  /// The same with some parts changed.
  Thing changed(const Thing& from);
  [[nodiscard]] unsigned crowd() const { return crowd_; }
  [[nodiscard]] const TableShape& shape() const { return shape_; }

 private:
  std::string text();
  std::vector<ThingRow> rows();

  const TableShape& shape_;
  unsigned crowd_;
  std::mt19937 random_;
};

/// Keeps a handle at work, one step at a time.
class RandomWorker {
 public:
  RandomWorker(RandomThings& random, TableModel& table, ModelHandle& handle)
      : random_(random), table_(table), handle_(handle) {}

  /// One operation, which may begin or end a transaction.
  void step();
  /// Leaves a transaction if there is one.
  void rest();
  [[nodiscard]] std::uint64_t operations() const { return operations_; }

 private:
  void beginSome();
  void endSome();
  void write();
  void add();
  void erase();
  void restore();
  void read();
  void search();
  Request request(std::string* image);
  std::uint64_t someId();
  Thing givenUp();

  RandomThings& random_;
  TableModel& table_;
  ModelHandle& handle_;
  unsigned left_ = 0;  ///< steps to the end of the transaction
  std::uint64_t operations_ = 0;
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_MODEL_RANDOM_WORK_H
