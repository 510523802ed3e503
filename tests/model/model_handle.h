// A handle of the library beside its side of the model: each operation is done to both, and both
// must answer alike, to the last byte of the object and the place from which walks go on.

#ifndef ZELTA_TESTS_MODEL_MODEL_HANDLE_H
#define ZELTA_TESTS_MODEL_MODEL_HANDLE_H

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "model/table_model.h"
#include "support/check_database.h"

namespace zelta::testing {

inline constexpr unsigned kModelTable = 1;

/// Makes the database of a shape, and closes it.
void makeModelTable(const std::u16string& path, const TableShape& shape);

/// Nothing to compare: a call failed, and the transaction has given up what it did.
inline constexpr Word kGivenUp = ~Word{0};

class ModelHandle {
 public:
  ModelHandle(TableModel& table, const std::u16string& path);
  /// Lets calls to the system fail now and then; what is going on is then tried again or given up.
  void makeTrouble(std::mt19937& random) { trouble_ = &random; }
  /// How many operations failed for that.
  [[nodiscard]] int troubles() const { return troubles_; }

  void open();
  void close();
  /// Does both, and sees that they agree. The word is that of both.
  Word begin(CZELTA::Mode mode);
  void end();
  void commit(bool releaseLocks);
  void abort(bool releaseLocks);
  void reopenTable();
  Word add(const Thing& thing, std::uint64_t id, bool inNewObject);
  Word rewrite(const Thing& thing);
  Word read(const Request& request, const std::string& image);
  Word erase(const Request& request, const std::string& image);
  Word eraseCurrent();
  Word restore(std::uint64_t id, bool unlock);
  /// Searches one of the indexes over shapes, and reads all that it finds.
  void search(std::size_t number, const Shapes& like);

  [[nodiscard]] const ModelSession& model() const { return model_; }
  CZELTA db;

 private:
  template <class Call>
  Word perform(Word expected, bool mayRepeat, const Call& call);
  bool agree(const std::string& what, Word expected, Word found);
  void fill(const Thing& thing);
  /// The object in the buffer must be the model's.
  void compareObject();

  const TableShape& shape_;
  ModelSession model_;
  std::u16string path_;
  CZELTA::Object object_{};
  std::mt19937* trouble_ = nullptr;
  int troubles_ = 0;
};

/// Walks the whole table in a reading transaction, by ID and by each index, up and down, and
/// searches it: it must hold what the model holds, and nothing else.
void compareAll(CZELTA& db, const TableModel& table);

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_MODEL_MODEL_HANDLE_H
