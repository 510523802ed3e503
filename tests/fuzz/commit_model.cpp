#include "fuzz/commit_model.h"

namespace zelta::fuzz {

bool CommitModel::isAway(std::size_t handle) const {
  const auto away = away_.find(handle);
  return away != away_.end() && away->second;
}

bool CommitModel::knows(std::size_t handle, unsigned int table) const {
  return tables_.count(table) != 0 && !isAway(handle);
}

void CommitModel::create(std::size_t handle, unsigned int table) {
  if (!isAway(handle)) tables_[table] = {};
}

void CommitModel::giveUp(std::size_t handle, unsigned int table) {
  if (!isAway(handle)) forget(table);
}

void CommitModel::forget(unsigned int table) {
  tables_.erase(table);
  for (auto& [handle, tables] : pending_) tables.erase(table);
}

void CommitModel::put(std::size_t handle, unsigned int table, long long id,
                      const std::string& bytes) {
  if (knows(handle, table)) pending_[handle][table][id] = bytes;
}

void CommitModel::erase(std::size_t handle, unsigned int table, long long id) {
  if (!knows(handle, table)) return;
  // What was added in the same transaction is nobody's again.
  if (tables_[table].count(id) == 0) return restore(handle, table, id);
  pending_[handle][table][id] = std::nullopt;
}

void CommitModel::restore(std::size_t handle, unsigned int table, long long id) {
  if (knows(handle, table)) pending_[handle][table].erase(id);
}

void CommitModel::commit(std::size_t handle) {
  for (const auto& [table, changes] : pending_[handle]) {
    Objects& objects = tables_[table];
    for (const auto& [id, bytes] : changes) {
      if (bytes) {
        objects[id] = *bytes;
      } else {
        objects.erase(id);
      }
    }
  }
  drop(handle);
}

void CommitModel::commitFailed(std::size_t handle) {
  const auto pending = pending_[handle];
  for (const auto& [table, changes] : pending) {
    if (!changes.empty()) forget(table);
  }
  drop(handle);
}

const std::string* CommitModel::seenBy(std::size_t handle, unsigned int table, long long id) const {
  if (const auto changed = pending_.find(handle); changed != pending_.end()) {
    if (const auto changes = changed->second.find(table); changes != changed->second.end()) {
      if (const auto change = changes->second.find(id); change != changes->second.end()) {
        return change->second ? &*change->second : nullptr;
      }
    }
  }
  const Objects& objects = tables_.at(table);
  const auto object = objects.find(id);
  return object == objects.end() ? nullptr : &object->second;
}

}  // namespace zelta::fuzz
