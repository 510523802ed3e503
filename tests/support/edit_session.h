// A handle for tests of commit, abort and repair: it adds, rewrites and deletes objects of one
// table "T", and a reader of table files that knows their bytes and shares nothing with the engine.

#ifndef ZELTA_TESTS_SUPPORT_EDIT_SESSION_H
#define ZELTA_TESTS_SUPPORT_EDIT_SESSION_H

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "frame/lifecycle.h"
#include "frame/upcalls.h"
#include "objects/change/add_object.h"
#include "objects/change/delete_object.h"
#include "objects/change/rewrite_object.h"
#include "objects/object_buffer.h"
#include "objects/read/read_object.h"
#include "objects/search/search_index.h"
#include "schema/object_view.h"
#include "schema/table_create.h"
#include "schema/table_lifecycle.h"
#include "support/buffer_table.h"
#include "support/shapes.h"
#include "support/storage_fixture.h"
#include "transaction/commit/abort.h"
#include "transaction/commit/commit.h"
#include "transaction/slots/begin.h"

namespace zelta::testing {

/// What an object holds: a unique number, and in a variable table a text.
struct Content {
  std::uint32_t number = 0;
  std::string text;
  friend bool operator==(const Content&, const Content&) = default;
};
using Model = std::map<std::uint64_t, Content>;

/// The kinds of table under test.
struct TableForm {
  const char* name;
  bool fixed;
  bool wide;
  bool indexed;
  /// A box and a span behind the number, words and points behind the text, and indexes over them.
  bool shaped = false;

  /// Those indexes, which come behind the B+Trees.
  [[nodiscard]] std::vector<ShapeKind> searches() const {
    return shaped ? shapeKinds(!fixed) : std::vector<ShapeKind>();
  }
};
inline constexpr TableForm kForms[] = {{"fixed", true, false, true},
                                       {"fixed wide", true, true, true},
                                       {"variable", false, false, true},
                                       {"variable wide", false, true, true},
                                       {"variable without index", false, false, false}};
inline constexpr TableForm kShapedForms[] = {
    {"fixed with shapes", true, false, true, true},
    {"variable wide with shapes", false, true, true, true}};

/// All of these.
inline std::vector<TableForm> allForms() {
  std::vector<TableForm> forms(std::begin(kForms), std::end(kForms));
  forms.insert(forms.end(), std::begin(kShapedForms), std::end(kShapedForms));
  return forms;
}

/// One edit of a transaction. An ID of 0 lets the library choose.
struct EditStep {
  enum class Kind { add, rewrite, erase };
  Kind kind;
  std::uint64_t id;
  Content content;
};

inline EditStep add(std::uint64_t id, std::uint32_t number, std::size_t length = 20) {
  return {EditStep::Kind::add, id, {number, std::string(length, 'a')}};
}
inline EditStep rewrite(std::uint64_t id, std::uint32_t number, std::size_t length = 20) {
  return {EditStep::Kind::rewrite, id, {number, std::string(length, 'r')}};
}
inline EditStep erase(std::uint64_t id) { return {EditStep::Kind::erase, id, {}}; }

inline std::vector<EditStep> adds(std::uint32_t from, std::uint32_t to, std::size_t length = 20) {
  std::vector<EditStep> steps;
  for (std::uint32_t i = from; i <= to; ++i) steps.push_back(add(i, i, length));
  return steps;
}

/// The content of an object's bytes behind the header; bytes that are not a whole object's give
/// another one.
inline Content contentIn(const TableForm& form, const char* data, std::size_t length) {
  Content content;
  std::memcpy(&content.number, data, 4);
  const Shapes shapes(content.number);
  const std::string front = form.shaped ? shapes.fixedBytes() : "";
  const std::string back = form.shaped && !form.fixed ? shapes.variableBytes() : "";
  const std::string bytes(data + 4, length - 4);
  if (bytes.size() < front.size() + back.size()) return {};
  if (bytes.compare(0, front.size(), front) != 0) return {};
  if (bytes.compare(bytes.size() - back.size(), back.size(), back) != 0) return {};
  if (form.fixed) return content;
  const std::size_t text = bytes.size() - front.size() - back.size();
  content.text = bytes.substr(front.size(), text == 0 ? 0 : text - 1);
  return content;
}

class EditSession {
 public:
  explicit EditSession(const FreshFolder& folder, const TableForm& form,
                       const std::string& name = "db.zlc")
      : form_(form) {
    const std::u16string path = folder.file(name);
    opened = folder.has(name) ? openDatabase({metaData, tables}, path.c_str())
                              : createDatabase({metaData, tables}, path.c_str());
  }
  ~EditSession() {
    closeDatabase({metaData, tables});
    clearError(metaData);
  }
  EditSession(const EditSession&) = delete;
  EditSession& operator=(const EditSession&) = delete;

  [[nodiscard]] std::string error() const {
    std::string text;
    for (const char16_t* p = metaData.errorMessage; p != nullptr && *p != 0; ++p) {
      text += static_cast<char>(*p);
    }
    return text;
  }
  [[nodiscard]] Table& table() { return *findTable(tables, 1); }

  void makeTable() {
    Fields fields = {{CZELTA::TypeUInt32}};
    if (form_.shaped) {
      for (const FieldSpec& field : Shapes::fixedFields()) fields.push_back(field);
    }
    const auto text = static_cast<std::int32_t>(fields.size());
    if (!form_.fixed) fields.push_back({CZELTA::TypeText, 20});
    if (!form_.fixed && form_.shaped) {
      for (const FieldSpec& field : Shapes::variableFields()) fields.push_back(field);
    }
    Indexes indexes;
    if (form_.indexed) indexes.push_back({Segments{{0, 0}}});
    if (form_.indexed && !form_.fixed) {
      indexes.push_back({Segments{{text, 0}, {CZELTA::ObjectIdSegment, 0}}});
    }
    if (form_.shaped) {
      for (const IndexSpec& index : shapeIndexes(1, text + 1, !form_.fixed)) {
        indexes.push_back(index);
      }
    }
    const SchemaRecords records(fields, indexes, form_.wide ? 1U : 0U);
    ASSERT_TRUE(begin(CZELTA::TransactionExclusive).ok()) << error();
    ASSERT_TRUE(createTable({metaData, tables}, &records.schema, nullptr, true).ok()) << error();
    ASSERT_TRUE(end().ok()) << error();
  }
  Result begin(CZELTA::Mode mode = CZELTA::TransactionShared) {
    return beginTransaction({metaData, tables}, mode, 5000);
  }
  /// Begins and opens the table.
  Result enter(CZELTA::Mode mode = CZELTA::TransactionShared) {
    ZELTA_TRY(begin(mode));
    return openTable({metaData, tables}, 1);
  }
  Result end() { return endTransaction({metaData, tables}); }
  Result commit(bool release = true) { return commitTransaction({metaData, tables}, release); }
  Result abort(bool release = true) { return abortTransaction({metaData, tables}, release); }

  Result add(const Content& content, std::uint64_t id = 0) {
    clearError(metaData);
    table().currentObjectID = 0;
    put(content, std::string(table().headerSize(), '\0').data());
    return addObject({metaData, tables}, table(), nullptr, static_cast<long long>(id));
  }
  [[nodiscard]] std::uint64_t addedID() { return table().currentObjectID; }

  Result read(std::uint64_t id, Content* out = nullptr) {
    return fetch(CZELTA::ReadEqual, 0, &id, out);
  }
  Result readByNumber(CZELTA::Mode mode, std::uint32_t number, Content* out) {
    return fetch(mode, 1, &number, out);
  }

  Result rewrite(std::uint64_t id, const Content& content) {
    ZELTA_TRY(read(id));
    put(content, table().objectData);
    table().currentObjectID = id;  // a buffer of another size has forgotten it
    return rewriteObject({metaData, tables}, table(), nullptr);
  }
  Result erase(std::uint64_t id) {
    clearError(metaData);
    return deleteObject({metaData, tables}, table(), {CZELTA::ReadEqual, 0, &id}, nullptr, nullptr);
  }
  Result carryOut(const std::vector<EditStep>& steps) {
    for (const EditStep& step : steps) {
      switch (step.kind) {
        case EditStep::Kind::add:
          ZELTA_TRY(add(step.content, step.id));
          break;
        case EditStep::Kind::rewrite:
          ZELTA_TRY(rewrite(step.id, step.content));
          break;
        case EditStep::Kind::erase:
          ZELTA_TRY(erase(step.id));
          break;
      }
    }
    return {};
  }
  /// All objects, found by ID and, if there is an index, by each index in order, and by searches;
  /// `damage` says what does not agree.
  Model readAll(std::string* damage) {
    Model found;
    std::uint64_t id = 0;
    Content content;
    CZELTA::Mode mode = CZELTA::ReadFirst;
    for (; fetch(mode, 0, nullptr, &content, &id).ok(); mode = CZELTA::ReadNext) {
      found[id] = content;
    }
    const auto searches = static_cast<std::uint32_t>(form_.searches().size());
    const std::uint32_t trees = table().indexCount - searches;
    for (std::uint32_t i = 0; i < searches; ++i) {
      const std::string wrong = searchAll(trees + i + 1, form_.searches()[i], found);
      if (!wrong.empty()) *damage += wrong + "\n";
    }
    for (std::uint32_t index = 1; index <= trees; ++index) {
      Model byKey;
      std::pair<Content, std::uint64_t> last;
      mode = CZELTA::ReadFirst;
      for (; fetch(mode, index, nullptr, &content, &id).ok(); mode = CZELTA::ReadNext) {
        const bool ascends =
            index == 1 ? last.first.number < content.number
                       : std::tie(last.first.text, last.second) < std::tie(content.text, id);
        if (!byKey.empty() && !ascends) {
          *damage += "index " + std::to_string(index) + " does not ascend to object " +
                     std::to_string(id) + "\n";
        }
        byKey[id] = content;
        last = {content, id};
        if (byKey.size() > found.size()) break;
      }
      if (byKey != found) {
        *damage += "index " + std::to_string(index) + " has " + std::to_string(byKey.size()) +
                   " of " + std::to_string(found.size()) + " objects (" + error() + ")\n";
      }
    }
    return found;
  }

  MetaData metaData;
  UInt32AVLTree* tables = nullptr;
  Result opened;

 private:
  /// Puts a content into the buffer, behind the version and the ID that stand at `head`.
  void put(const Content& content, const char* head) {
    Packed bytes;
    bytes.raw(std::string(head, table().headerSize())).number(content.number);
    if (form_.shaped) bytes.raw(Shapes(content.number).fixedBytes());
    if (!form_.fixed) bytes.text(content.text);
    if (!form_.fixed && form_.shaped) bytes.raw(Shapes(content.number).variableBytes());
    reserveObject(table(), static_cast<std::uint32_t>(bytes.str().size()));
    std::memcpy(table().objectData, bytes.str().data(), bytes.str().size());
  }
  /// Searches an index for everything and for the shapes of some objects. Says what is wrong.
  std::string searchAll(std::uint32_t index, const ShapeKind& kind, const Model& objects) {
    ShapedObjects shaped;
    std::vector<Shapes> likes = {Shapes::everything()};
    for (const auto& [id, content] : objects) {
      shaped[id] = {Shapes(content.number)};
      if (id % 8 == 1 && likes.size() < 4) likes.emplace_back(content.number);
    }
    for (const Shapes& like : likes) {
      clearError(metaData);
      const std::string bytes = kind.query(like);
      const std::string part = kind.part(like);
      const SearchQuery byWords = {
          SearchQuery::Form::expression, index, part.data(), bytes.data(), 0, CZELTA::Mode{}};
      const SearchQuery byShape = {SearchQuery::Form::shape, index,         bytes.data(), nullptr,
                                   toleranceOf(like),        CZELTA::Mode{}};
      const Result result =
          searchIndex({metaData, tables}, table(), kind.byWords ? byWords : byShape, nullptr);
      if (result.failed()) return std::string("search of ") + kind.name + ": " + error();
      std::set<std::uint64_t> found;
      std::uint64_t id = 0;
      CZELTA::Mode mode = CZELTA::ReadFirst;
      for (; fetch(mode, index, nullptr, nullptr, &id).ok(); mode = CZELTA::ReadNext) {
        found.insert(id);
      }
      const std::set<std::uint64_t> expected = findableIn(kind, like, shaped);
      if (found == expected) continue;
      return std::string("search of ") + kind.name + " has found " + std::to_string(found.size()) +
             " objects, not " + std::to_string(expected.size()) + " (" + error() + ")";
    }
    return "";
  }
  Result fetch(CZELTA::Mode mode, std::uint32_t index, const void* key, Content* out,
               std::uint64_t* id = nullptr) {
    clearError(metaData);
    ZELTA_TRY(readObject({metaData, tables}, table(), {mode, index, key}, nullptr, nullptr));
    const char* data = table().objectData + table().headerSize();
    if (out != nullptr) {
      *out = contentIn(form_, data, table().objectLength - table().headerSize());
    }
    if (id != nullptr) *id = objectIdOf(table(), table().objectData);
    return {};
  }

  TableForm form_;
};

/// A table file, read byte by byte.
class RawTable {
 public:
  /// What a writer that died leaves behind the end of the file, or in an intent that does not stand
  /// any more, is no damage unless the file is `settled`.
  RawTable(const std::string& bytes, const TableForm& form, bool settled = true)
      : bytes_(bytes), form_(form), settled_(settled) {
    if (bytes.size() < 168 || bytes.compare(0, 4, "ZELT") != 0) {
      damage += "no table file\n";
      return;
    }
    slotBase = numberAt<std::uint32_t>(bytes, 8);
    highestID = numberAt<std::uint64_t>(bytes, 32);
    firstDeleted = numberAt<std::uint64_t>(bytes, 40);
    areaStart = numberAt<std::uint64_t>(bytes, 48);
    freeHead = numberAt<std::uint64_t>(bytes, 56);
    end = numberAt<std::uint64_t>(bytes, 64);
    expect(numberAt<std::uint64_t>(bytes, 88) == 0, "an intent stands");
    expect(bytes.size() >= end, "the file is shorter than its end");
    if (settled) {
      expect(bytes.size() == end, "the file is longer than its end");
      expect(bytes.substr(72, 96) == std::string(96, '\0'), "an intent is left");
    }
    expect(slotBase + 12 * (highestID + 1) <= areaStart, "slots reach into the objects");
    if (!damage.empty()) return;
    readSlots();
    if (form.fixed) {
      walkFixed();
    } else {
      walkVariable();
    }
  }

  std::uint32_t slotBase = 0;
  std::uint64_t highestID = 0;
  std::uint64_t firstDeleted = 0;
  std::uint64_t areaStart = 0;
  std::uint64_t freeHead = 0;
  std::uint64_t end = 0;
  std::vector<std::uint64_t> freeIDs;
  std::map<std::uint64_t, std::uint64_t> positions;   ///< of objects, by ID
  std::map<std::uint64_t, std::uint64_t> freeBlocks;  ///< sizes by position
  Model objects;
  std::string damage;

 private:
  void expect(bool good, const std::string& what) {
    if (!good) damage += what + "\n";
  }
  void readSlots() {
    constexpr std::uint64_t kTop = std::uint64_t{1} << 63;
    std::map<std::uint64_t, std::uint64_t> links;
    for (std::uint64_t id = 1; slotBase + 12 * (id + 1) <= areaStart; ++id) {
      const auto position = numberAt<std::uint64_t>(bytes_, slotBase + 12 * id);
      const auto stamp = numberAt<std::uint32_t>(bytes_, slotBase + 12 * id + 8);
      // That of an exclusive transaction that died may stay: nobody heeds it.
      expect(stamp == 0 || (stamp == 1 && !settled_),
             "slot " + std::to_string(id) + " has a stamp");
      if (id > highestID) {
        expect(position == 0, "slot " + std::to_string(id) + " above the highest is not zero");
      } else if ((position & kTop) != 0) {
        links[id] = position & ~kTop;
      } else {
        expect(position >= areaStart && position < end, "slot " + std::to_string(id) + " is wild");
        positions[id] = position;
      }
    }
    expect(highestID == 0 || links.count(highestID) == 0, "the highest ID is free");
    for (std::uint64_t id = firstDeleted; id != 0; id = links[id]) {
      expect(links.count(id) != 0, "ID " + std::to_string(id) + " on the list is in use");
      expect(freeIDs.empty() || freeIDs.back() < id, "the list of free IDs does not ascend");
      if (!damage.empty()) return;
      freeIDs.push_back(id);
    }
    expect(freeIDs.size() == links.size(), "free IDs are missing on the list");
  }
  void takeObject(std::uint64_t position, std::uint64_t at, std::uint64_t length) {
    const std::uint64_t lead = form_.wide ? 10 : 6;
    std::uint64_t id = 0;
    std::memcpy(&id, bytes_.data() + at + 2, form_.wide ? 8 : 4);
    expect(numberAt<std::uint16_t>(bytes_, at) != 0xFFFF, "a placeholder is left");
    const auto slot = positions.find(id);
    expect(slot != positions.end() && slot->second == position,
           "record at " + std::to_string(position) + " belongs to nobody");
    const Content content = contentIn(form_, bytes_.data() + at + lead, length - lead);
    expect(objects.emplace(id, content).second, "an object stands there twice");
  }
  void walkFixed() {
    const auto size = numberAt<std::uint32_t>(bytes_, 20);
    expect(freeHead == 0, "free space in a table that has none");
    expect((end - areaStart) % size == 0, "the objects do not come out even");
    for (std::uint64_t at = areaStart; damage.empty() && at < end; at += size) {
      takeObject(at, at, size);
    }
    expect(objects.size() == positions.size(), "records are missing");
  }
  void walkVariable() {
    std::uint64_t nextFree = freeHead;
    bool freeBefore = false;
    for (std::uint64_t at = areaStart; damage.empty() && at < end;) {
      const auto size = numberAt<std::uint32_t>(bytes_, at);
      const auto length = numberAt<std::uint32_t>(bytes_, at + 4);
      expect(size >= 20 && at + size <= end, "bad block at " + std::to_string(at));
      if (!damage.empty()) return;
      expect(numberAt<std::uint32_t>(bytes_, at + size - 4) == size,
             "tail of block " + std::to_string(at));
      if (length == 0xFFFFFFFF) {
        expect(at == nextFree, "free block out of the chain at " + std::to_string(at));
        expect(!freeBefore, "neighbours not merged at " + std::to_string(at));
        expect(at + size != end, "a free block at the end");
        nextFree = numberAt<std::uint64_t>(bytes_, at + 8);
        freeBlocks[at] = size;
      } else {
        expect(length + 12 <= size, "record too long at " + std::to_string(at));
        if (damage.empty()) takeObject(at, at + 8, length);
      }
      freeBefore = length == 0xFFFFFFFF;
      at += size;
    }
    expect(nextFree == 0, "the chain goes on");
    expect(objects.size() == positions.size(), "records are missing");
  }

  const std::string& bytes_;
  const TableForm& form_;
  bool settled_;
};

/// What the database holds, read from the table file's bytes and through the engine.
inline Model contentsOf(const FreshFolder& folder, const TableForm& form, std::string* damage) {
  Model model;
  {
    EditSession reader(folder, form);
    if (reader.opened.failed()) {
      *damage += "cannot be opened: " + reader.error() + "\n";
      return model;
    }
    if (reader.enter().failed()) {  // repairs what is left to repair
      *damage += "no transaction: " + reader.error() + "\n";
      return model;
    }
    model = reader.readAll(damage);
    if (reader.end().failed()) *damage += "no end: " + reader.error() + "\n";
  }
  const std::string bytes = folder.bytes("T.zlt");
  const RawTable raw(bytes, form, false);
  *damage += raw.damage;
  if (raw.damage.empty() && raw.objects != model) *damage += "the file holds other objects\n";
  return model;
}

inline void applyStep(Model& model, const EditStep& step) {
  if (step.kind == EditStep::Kind::erase) {
    model.erase(step.id);
  } else {
    model[step.id] = step.content;
  }
}

/// Random transactions whose steps all succeed: objects change any number of times, and take
/// numbers that others have given up.
class RandomEdits {
 public:
  RandomEdits(unsigned seed, const TableForm& form) : random_(seed), form_(form) {}

  std::vector<EditStep> transaction(const Model& model, std::size_t count) {
    std::vector<EditStep> steps;
    Model after = model;
    std::vector<std::uint32_t> givenUp;
    for (std::size_t i = 0; i < count; ++i) {
      const unsigned choice = below(10);
      EditStep step{EditStep::Kind::add, 0, content()};
      const bool adds = choice < 4 || after.empty();
      if (!givenUp.empty() && below(4) == 0) {
        std::swap(givenUp[below(static_cast<unsigned>(givenUp.size()))], givenUp.back());
        step.content.number = givenUp.back();
        if (adds || choice < 7) givenUp.pop_back();
      }
      if (adds) {
        step.id = freeID(model, after);
      } else {
        step.kind = choice >= 7 ? EditStep::Kind::erase : EditStep::Kind::rewrite;
        step.id = pick(after);
        givenUp.push_back(after.at(step.id).number);
      }
      applyStep(after, step);
      steps.push_back(step);
    }
    return steps;
  }
  unsigned below(unsigned limit) {
    return std::uniform_int_distribution<unsigned>(0, limit - 1)(random_);
  }

 private:
  Content content() {
    Content out;
    out.number = ++numbers_;
    if (!form_.fixed) out.text.assign(below(8) == 0 ? below(3000) : below(60), 'a');
    for (char& c : out.text) c = static_cast<char>('a' + below(26));
    return out;
  }
  std::uint64_t pick(const Model& model) {
    auto it = model.begin();
    std::advance(it, below(static_cast<unsigned>(model.size())));
    return it->first;
  }
  /// Mostly a low one, now and then one far above all.
  std::uint64_t freeID(const Model& before, const Model& after) {
    const std::uint64_t top = after.empty() ? 0 : after.rbegin()->first;
    std::uint64_t id = 1 + below(static_cast<unsigned>(top) + (below(6) == 0 ? 120 : 3));
    while (before.count(id) != 0 || after.count(id) != 0) ++id;
    return id;
  }

  std::mt19937 random_;
  TableForm form_;
  std::uint32_t numbers_ = 0;
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_SUPPORT_EDIT_SESSION_H
