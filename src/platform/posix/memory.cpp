#include "platform/memory.h"

namespace zelta::platform {

bool isReadable(const void* /*address*/) { return true; }

}  // namespace zelta::platform
