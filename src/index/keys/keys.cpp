#include "index/keys/keys.h"

#include "index/kinds.h"

namespace zelta {

Result extractKey(Table& table, std::uint32_t index, const KeySource& from,
                  std::uint32_t** keyOut) {
  *keyOut = nullptr;
  KeySource source = from;
  if (source.object.data == nullptr) source.object = {table.objectData, table.objectLength};
  const KeyMaker* maker = keyMaker(table, index);
  if (source.object.data == nullptr || source.object.length < table.fixedAreaSize ||
      maker == nullptr) {
    return reportError(&table.metaData, Own::noObject);
  }
  return maker->ofObject(table, index, source, keyOut);
}

Result buildSearchKey(Table& table, std::uint32_t index, const void* image,
                      std::uint32_t** keyOut) {
  *keyOut = nullptr;
  if (image == nullptr) return reportError(&table.metaData, Own::parameter, table.cName());
  const KeyMaker* maker = keyMaker(table, index);
  if (maker == nullptr) return reportError(&table.metaData, Own::noObject);
  return maker->ofValues(table, index, image, keyOut);
}

}  // namespace zelta
