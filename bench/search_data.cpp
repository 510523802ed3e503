#include "search_data.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <unordered_set>

#include "phase.h"

namespace {

constexpr std::size_t kWords = 30000;
constexpr std::size_t kSides = std::size_t{1} << 20;  // of the dice
constexpr double kFlattening = 2.7;  // even the most frequent words are no more than that frequent

constexpr std::int64_t kWorld = 10000000;  // width and height
constexpr std::int64_t kEra = 1000000000;  // all spans begin in it
constexpr std::int64_t kObjectsOfSheet = 1000;
constexpr std::int64_t kLargestBox = 1000;  // width and height
constexpr std::int64_t kLongestSpan = 4;    // times the average distance of two begins

template <class Random>
std::int64_t below(Random& random, std::int64_t limit) {
  return static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(limit));
}

/// Two to five syllables.
std::string wordOf(std::uint64_t number) {
  constexpr char kConsonants[] = "bdfghklmnprstvwz";
  constexpr char kVowels[] = "aeiou";
  std::uint64_t rest = scatter(number + 1);
  std::string word;
  for (auto left = 2 + rest % 4; left != 0; --left) {
    rest /= 4;
    word += kConsonants[rest % 16];
    rest /= 16;
    word += kVowels[rest % 5];
    rest /= 5;
  }
  return word;
}

}  // namespace

Vocabulary::Vocabulary() {
  std::unordered_set<std::string> known;
  for (std::uint64_t i = 0; words_.size() < kWords; ++i) {
    std::string word = wordOf(i);
    if (known.insert(word).second) words_.push_back(std::move(word));
  }
  double all = 0;
  for (std::size_t rank = 0; rank < kWords; ++rank)
    all += 1 / (static_cast<double>(rank) + kFlattening);
  double reached = 0;
  for (std::size_t rank = 0; rank < kWords; ++rank) {
    reached += 1 / (static_cast<double>(rank) + kFlattening) / all;
    const auto end = static_cast<std::size_t>(reached * static_cast<double>(kSides));
    dice_.resize(std::min(end, kSides), static_cast<std::uint16_t>(rank));
  }
}

void Vocabulary::makeText(std::uint64_t seed, std::string* text) const {
  const auto random = [&] { return scatter(++seed); };
  text->clear();
  for (std::int64_t left = 8 + below(random, 9); left != 0; --left) {
    if (!text->empty()) *text += ' ';
    *text += words_[dice_[static_cast<std::size_t>(random() % dice_.size())]];
  }
}

void SearchData::make(std::int64_t number, Item* item) const {
  const std::uint64_t own = scatter(static_cast<std::uint64_t>(number) + kSeed);
  item->number = number;
  if (content_ == Content::boxes || content_ == Content::all) placeBox(number, own, item->box);
  if (content_ == Content::spans || content_ == Content::all) placeSpan(number, own, item->span);
  if (content_ == Content::texts || content_ == Content::all) {
    vocabulary_.makeText(own, &item->text);
    if (!common_.empty()) item->text.append(1, ' ').append(common_);
  }
  if (content_ == Content::all) {
    char name[17];
    std::snprintf(name, sizeof name, "%016llx", static_cast<unsigned long long>(own));
    item->name = name;
  }
}

/// Sheets lie in rows that are gone along to and fro.
void SearchData::placeBox(std::int64_t number, std::uint64_t own, std::int32_t* box) const {
  const std::int64_t random[] = {static_cast<std::int64_t>(own & 0xFFFFFFFF),
                                 static_cast<std::int64_t>(own >> 32)};
  const double sheetCount = static_cast<double>(count_) / kObjectsOfSheet;
  const auto rows =
      order_ == Order::near ? std::max<std::int64_t>(1, std::llround(std::sqrt(sheetCount))) : 1;
  const std::int64_t sheet = number * rows * rows / count_;
  const std::int64_t row = sheet / rows;
  const std::int64_t column = row % 2 == 0 ? sheet % rows : rows - 1 - sheet % rows;
  const std::int64_t width = kWorld / rows;
  const std::int64_t at[] = {column * width + random[0] % width, row * width + random[1] % width};
  const std::uint64_t size = scatter(own);
  const std::uint64_t extents[] = {size & 0xFFFFFFFF, size >> 32};
  for (int axis = 0; axis < 2; ++axis) {
    box[axis] = static_cast<std::int32_t>(at[axis]);
    box[axis + 2] = box[axis] + static_cast<std::int32_t>(extents[axis] % kLargestBox);
  }
}

void SearchData::placeSpan(std::int64_t number, std::uint64_t own, std::uint32_t* span) const {
  const std::int64_t distance = kEra / count_;
  const std::int64_t begin =
      order_ == Order::near
          ? number * distance + static_cast<std::int64_t>(own % 1000) * distance / 1000
          : static_cast<std::int64_t>(own % kEra);
  span[0] = static_cast<std::uint32_t>(begin);
  span[1] = span[0] + static_cast<std::uint32_t>(
                          scatter(own + 1) % static_cast<std::uint64_t>(kLongestSpan * distance));
}

std::vector<Query> SearchData::queries(Query::Kind kind, std::int64_t hits, int count) const {
  std::mt19937_64 random(kSeed + static_cast<std::uint64_t>(hits));
  std::vector<Query> queries(static_cast<std::size_t>(count));
  for (Query& query : queries) {
    query.kind = kind;
    switch (kind) {
      case Query::Kind::box:
        aimAtBox(random, hits, &query);
        break;
      case Query::Kind::span:
        aimAtSpan(random, hits, &query);
        break;
      default:
        aimAtWords(random, &query);
    }
  }
  return queries;
}

void SearchData::aimAtBox(std::mt19937_64& random, std::int64_t hits, Query* query) const {
  const double share = static_cast<double>(hits) / static_cast<double>(count_);
  const auto side = static_cast<std::int64_t>(std::sqrt(share) * kWorld) - kLargestBox / 2;
  const auto extent = static_cast<std::int32_t>(std::clamp<std::int64_t>(side, 0, kWorld - 1));
  for (int axis = 0; axis < 2; ++axis) {
    query->box[axis] = static_cast<std::int32_t>(below(random, kWorld - extent));
    query->box[axis + 2] = query->box[axis] + extent;
  }
}

void SearchData::aimAtSpan(std::mt19937_64& random, std::int64_t hits, Query* query) const {
  const std::int64_t wanted = kEra * (hits - kLongestSpan / 2) / count_;
  const std::int64_t width = std::clamp<std::int64_t>(wanted, 0, kEra - 1);
  query->span[0] = static_cast<std::uint32_t>(below(random, kEra - width));
  query->span[1] = query->span[0] + static_cast<std::uint32_t>(width);
}

void SearchData::aimAtWords(std::mt19937_64& random, Query* query) const {
  const auto wordAmong = [&](std::int64_t from, std::int64_t to) {
    return vocabulary_.word(static_cast<std::size_t>(from + below(random, to - from)));
  };
  std::string& word = query->words[0];
  switch (query->kind) {
    case Query::Kind::twoWords:
      word = wordAmong(10, 200);
      do query->words[1] = wordAmong(10, 200);
      while (query->words[1] == word);
      break;
    case Query::Kind::prefix:
      word = wordAmong(100, 2000).substr(0, 4);
      break;
    case Query::Kind::contains:
      do word = wordAmong(100, 5000);
      while (word.size() < 8);
      word = word.substr(2, 5);
      break;
    default:
      word = wordAmong(100, 2000);
  }
}
