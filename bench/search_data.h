// What the benchmark of searches stores and looks for. All of it follows from numbers: the same
// number gives the same object, the same query, on every run.

#ifndef BENCH_SEARCH_DATA_H
#define BENCH_SEARCH_DATA_H

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "search_engine.h"

/// A vocabulary, and texts of it. As in a language, the word of rank r is about 1/r times as
/// frequent as the first one.
class Vocabulary {
 public:
  Vocabulary();

  [[nodiscard]] const std::string& word(std::size_t rank) const { return words_[rank]; }
  /// Eight to sixteen words.
  void makeText(std::uint64_t seed, std::string* text) const;

 private:
  std::vector<std::string> words_;   ///< by rank
  std::vector<std::uint16_t> dice_;  ///< ranks, each as often as its word is frequent
};

/// In which order boxes and spans come.
enum class Order {
  near,   ///< boxes one map sheet after the other, spans as time goes on
  random  ///< as it happens
};

class SearchData {
 public:
  static constexpr std::uint64_t kSeed = 20180207;

  /// `count`: objects in all.
  SearchData(Content content, std::int64_t count, Order order)
      : content_(content), count_(count), order_(order) {}
  [[nodiscard]] Content content() const { return content_; }
  [[nodiscard]] std::int64_t count() const { return count_; }
  /// Puts a word into the text of every object.
  void addToTexts(const std::string& word) { common_ = word; }

  /// The texts in `item` keep their memory.
  void make(std::int64_t number, Item* item) const;
  /// Boxes and spans are of such a size that a query has so many hits, more or less.
  [[nodiscard]] std::vector<Query> queries(Query::Kind kind, std::int64_t hits, int count) const;

 private:
  void placeBox(std::int64_t number, std::uint64_t own, std::int32_t* box) const;
  void placeSpan(std::int64_t number, std::uint64_t own, std::uint32_t* span) const;
  void aimAtBox(std::mt19937_64& random, std::int64_t hits, Query* query) const;
  void aimAtSpan(std::mt19937_64& random, std::int64_t hits, Query* query) const;
  void aimAtWords(std::mt19937_64& random, Query* query) const;

  Content content_;
  std::int64_t count_;
  Order order_;
  std::string common_;
  Vocabulary vocabulary_;
};

#endif  // BENCH_SEARCH_DATA_H
