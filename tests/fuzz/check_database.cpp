// The offline checker on a damaged database: it ends, and changes no byte.

#include <cstddef>
#include <cstdint>

#include "check/check.h"
#include "fuzz/archive.h"
#include "fuzz/found.h"
#include "fuzz/quick_clock.h"
#include "fuzz/world.h"

using namespace zelta::fuzz;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  World::get();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::u16string path = World::path("db.zlc");
  const Archive archive = unpack(data, size);
  beginInput();
  World::get().lay(archive);
  const auto before = World::get().files();
  zelta::CheckOptions options;
  options.remains = !archive.steering.empty() && (archive.steering[0] & 1) != 0;
  zelta::CheckCounts counts;
  const auto findings = zelta::checkDatabase(path, options, &counts);
  expect(findings.size() <= options.maximumFindings, "more findings than were asked for");
  for (const zelta::CheckFinding& finding : findings) {
    expect(!zelta::describe(finding).empty(), "a finding without a text");
  }
  expect(World::get().files() == before, "the checker changed a file");
  World::get().check();
  return 0;
}
