#include "model/random_work.h"

namespace zelta::testing {

// -- Contents -------------------------------------------------------------------------------------

std::string RandomThings::text() {
  std::string out(chance(3) ? below(1500) : below(8), 'a');
  for (char& c : out) c = static_cast<char>('a' + below(4));
  return out;
}

std::vector<ThingRow> RandomThings::rows() {
  std::vector<ThingRow> out(chance(2) ? below(40) : below(4));
  for (ThingRow& row : out) {
    row.code = static_cast<std::uint16_t>(below(std::min(10 * crowd_, 60000u)));
    row.text = text();
  }
  return out;
}

Thing RandomThings::thing() {
  Thing out;
  out.number = below(2 * crowd_ + 2);
  out.weight = static_cast<std::int32_t>(below(40)) - 20;
  out.stamp = (std::uint64_t{below(4)} << 40) + below(2 * crowd_);
  if (shape_.texts) out.text = text();
  if (shape_.rows) out.rows = rows();
  return out;
}

Thing RandomThings::changed(const Thing& from) {
  Thing out = thing();
  if (chance(50)) out.number = from.number;
  if (chance(50)) out.weight = from.weight;
  if (chance(50)) out.stamp = from.stamp;
  if (chance(50)) out.text = from.text;
  if (chance(50)) out.rows = from.rows;
  if (chance(20) && !out.rows.empty()) out.rows.pop_back();
  return out;
}

// -- Transactions ---------------------------------------------------------------------------------

void RandomWorker::step() {
  ++operations_;
  const ModelSession& model = handle_.model();
  if (!model.active()) return beginSome();
  if (left_ == 0) return endSome();
  --left_;
  if (random_.chance(1)) return handle_.reopenTable();
  if (model.mayWrite() && random_.chance(60)) return write();
  read();
}

void RandomWorker::rest() {
  if (handle_.model().active()) handle_.end();
  left_ = 0;
}

void RandomWorker::beginSome() {
  const unsigned dice = random_.below(20);
  CZELTA::Mode mode = dice == 0   ? CZELTA::TransactionExclusive
                      : dice <= 2 ? CZELTA::TransactionRead
                      : dice == 3 ? CZELTA::TransactionExclusiveRead
                                  : CZELTA::TransactionShared;
  // It would keep out handles of its own thread only when they end.
  if (mode == CZELTA::TransactionExclusiveRead && table_.sessions().size() > 1) {
    mode = CZELTA::TransactionRead;
  }
  handle_.begin(mode);
  left_ = random_.below(random_.chance(10) ? 300 : 40);
}

void RandomWorker::endSome() {
  const unsigned dice = random_.below(10);
  if (dice < 5) {
    handle_.commit(random_.chance(50));
  } else if (dice < 7) {
    handle_.abort(random_.chance(50));
  } else {
    handle_.end();
    return;
  }
  left_ = random_.below(30);
}

// -- Operations -----------------------------------------------------------------------------------

void RandomWorker::write() {
  const std::size_t size = table_.objects().size() + handle_.model().added().size();
  const unsigned adds = size < random_.crowd() ? 45 : 20;
  const unsigned dice = random_.below(100);
  if (dice < adds) return add();
  if (dice < adds + 15) return restore();
  if (dice < adds + 30) return erase();
  const std::optional<Version>& buffer = handle_.model().buffer();
  const bool mayFit = handle_.model().current() != 0 || random_.chance(10);
  if (!buffer || !mayFit) return read();
  handle_.rewrite(random_.changed(buffer->thing));
}

void RandomWorker::add() {
  std::uint64_t id = 0;
  if (random_.chance(20)) {
    id = 1 + random_.below(static_cast<unsigned>(table_.highest()) + random_.below(200) + 1);
    // The library waits for whoever has the object of this ID.
    if (handle_.model().lockedElsewhere(id)) id = 0;
  }
  handle_.add(random_.chance(30) ? givenUp() : random_.thing(), id, !random_.chance(10));
}

/// Content with keys that the transaction has taken from another object, if there is one.
Thing RandomWorker::givenUp() {
  const ModelSession& model = handle_.model();
  std::uint64_t id = 0;
  if (!model.deleted().empty()) {
    id = *model.deleted().begin();
  } else if (!model.edited().empty()) {
    id = model.edited().begin()->first;
  }
  return id == 0 ? random_.thing() : random_.changed(table_.objects().at(id).thing);
}

/// Mostly an object that there is.
std::uint64_t RandomWorker::someId() {
  const ModelSession& model = handle_.model();
  const Versions* sets[] = {&table_.objects(), &table_.objects(), &model.added(), &model.edited()};
  const Versions& set = *sets[random_.below(4)];
  if (set.empty() || random_.chance(10)) {
    return 1 + random_.below(static_cast<unsigned>(table_.highest()) + 5);
  }
  const std::uint64_t about = 1 + random_.below(static_cast<unsigned>(set.rbegin()->first));
  return set.lower_bound(about)->first;
}

void RandomWorker::restore() {
  const ModelSession& model = handle_.model();
  std::uint64_t id = random_.chance(30) ? 0 : someId();
  if (!model.deleted().empty() && random_.chance(40)) {
    const auto found = model.deleted().lower_bound(someId());
    id = found == model.deleted().end() ? *model.deleted().begin() : *found;
  }
  handle_.restore(id, random_.chance(50));
}

/// A request by any mode, by ID or through an index; the key is mostly one that there is.
Request RandomWorker::request(std::string* image) {
  const TableShape& shape = table_.shape();
  Request out;
  out.mode = static_cast<CZELTA::Mode>(CZELTA::ReadEqual + random_.below(9));
  out.noLock = random_.chance(20);
  out.index = random_.below(static_cast<unsigned>(shape.indexes.size()) + 1);
  if (out.index == 0) {
    out.id = someId();
    *image = Packed().number(out.id);
    return out;
  }
  const std::uint64_t id = someId();
  const auto found = table_.objects().find(id);
  const Thing thing =
      found == table_.objects().end() || random_.chance(20) ? random_.thing() : found->second.thing;
  Thing known = thing;
  if (known.rows.empty())
    known.rows.push_back({static_cast<std::uint16_t>(random_.below(100)), ""});
  const std::uint32_t entry = random_.below(static_cast<unsigned>(known.rows.size()));
  out.key = shape.key(out.index - 1, known, id, entry);
  *image = shape.image(out.index - 1, known, id, entry);
  return out;
}

void RandomWorker::search() {
  const auto count = static_cast<unsigned>(table_.shape().searches().size());
  const Shapes like = random_.chance(2) ? Shapes::everything() : Shapes(random_.thing().stamp);
  handle_.search(random_.below(count), like);
}

void RandomWorker::read() {
  if (table_.shape().shaped && random_.chance(15)) return search();
  std::string image;
  const Request wanted = request(&image);
  handle_.read(wanted, image);
}

void RandomWorker::erase() {
  if (random_.chance(30)) {
    handle_.eraseCurrent();
    return;
  }
  std::string image;
  Request wanted = request(&image);
  wanted.noLock = false;
  handle_.erase(wanted, image);
}

}  // namespace zelta::testing
