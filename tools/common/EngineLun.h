// The LUN number an initiator sees. The iSCSI engine keeps LUN 0 of every
// target for itself (its controller), so zeld serves the LUN numbered n in
// zel.conf as LUN n + 1; zelctl reports that number beside the LUN's own.
#pragma once

#include <cstdint>

namespace zeltools {

constexpr uint32_t kEngineLunOffset = 1;

}  // namespace zeltools
