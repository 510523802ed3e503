// Opens a damaged database, works on it, and opens it once more, as the next process would.

#include <cstddef>
#include <cstdint>

#include "fuzz/archive.h"
#include "fuzz/session.h"
#include "fuzz/steering.h"
#include "fuzz/work.h"
#include "fuzz/world.h"

using namespace zelta::fuzz;

namespace {

void workOn(Steering& steering) {
  static const std::u16string path = World::path("db.zlc");
  CZELTA handle;
  if (watch(handle, [&] { return handle.OpenDatabase(path.c_str()); }) == 0) {
    Work(handle, steering).run();
  }
  watch(handle, [&] { return handle.CloseDatabase(); });
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  World::get();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Archive archive = unpack(data, size);
  beginInput();
  World::get().lay(archive);
  Steering steering(archive.steering);
  workOn(steering);
  Steering again(archive.steering);
  workOn(again);
  World::get().check();
  return 0;
}
