// What a store must be able to do to take part in the benchmark.

#ifndef BENCH_ENGINE_H
#define BENCH_ENGINE_H

#include <cstdint>
#include <memory>
#include <string>

/// An object of about 120 bytes with a unique text.
struct Item {
  std::int64_t number;
  double value;
  std::int32_t x, y;
  std::string key;   ///< 16 characters, unique, in no order
  std::string text;  ///< 70 characters
};

class Engine {
 public:
  virtual ~Engine() = default;
  virtual void create(const std::string& folder) = 0;
  virtual void open(const std::string& folder) = 0;
  virtual void beginWrite() = 0;
  virtual void beginRead() = 0;
  virtual void add(const Item& item) = 0;
  /// Gives an object another value, other numbers and another text; its key stays.
  virtual void update(std::int64_t id, const Item& item) = 0;
  virtual void remove(std::int64_t id) = 0;
  /// Makes the changes durable and ends the transaction.
  virtual void commit() = 0;
  virtual void endRead() = 0;
  /// Both return the object's `number`, having looked at all of its fields.
  virtual std::int64_t readById(std::int64_t id) = 0;
  virtual std::int64_t readByKey(const std::string& key) = 0;
  /// Walks all objects in the order of their keys; returns how many there are.
  virtual std::int64_t scan() = 0;
};

std::unique_ptr<Engine> makeZelta();
std::unique_ptr<Engine> makeSqlite();

#endif  // BENCH_ENGINE_H
