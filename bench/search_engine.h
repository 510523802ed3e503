// What a store must be able to do to take part in the benchmark of searches.

#ifndef BENCH_SEARCH_ENGINE_H
#define BENCH_SEARCH_ENGINE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

/// What objects are made of, and how they are indexed. A store has objects of one sort.
enum class Content {
  boxes,  ///< a number and a box; by the box
  spans,  ///< a number and a span; by the span
  texts,  ///< a number and a text; by its words
  all     ///< everything, by a unique name, the number, the span, the box and the words
};

/// An object. Which members count depends on the content; objects get the IDs from 1 on in the
/// order in which they are added.
struct Item {
  std::int64_t number;
  std::int32_t box[4];    ///< lower x, lower y, upper x, upper y
  std::uint32_t span[2];  ///< begin, end; below 2^31
  std::string name;       ///< 16 characters, unique, in no order
  std::string text;       ///< words of small letters, with a space between two
};

struct Query {
  enum class Kind { box, span, word, twoWords, prefix, contains };
  Kind kind;
  std::int32_t box[4];
  std::uint32_t span[2];
  std::string words[2];  ///< the second for `twoWords` only
};

class SearchEngine {
 public:
  virtual ~SearchEngine() = default;
  virtual void create(const std::string& folder, Content content) = 0;
  virtual void open(const std::string& folder, Content content) = 0;
  virtual void beginWrite() = 0;
  virtual void beginRead() = 0;
  virtual void add(const Item& item) = 0;
  /// Makes the changes durable and ends the transaction.
  virtual void commit() = 0;
  virtual void endRead() = 0;
  /// Finds the IDs of the objects that a query means; returns how many there are.
  virtual std::int64_t search(const Query& query) = 0;
  /// The same, and reads each of the objects: hands its `number` over.
  virtual std::int64_t read(const Query& query, const std::function<void(std::int64_t)>& take) = 0;
};

std::unique_ptr<SearchEngine> makeZeltaSearch();
std::unique_ptr<SearchEngine> makeSqliteSearch();

#endif  // BENCH_SEARCH_ENGINE_H
