#include "storage/Units.h"

#include <strings.h>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

namespace {

struct Unit {
  const char* name;
  uint64_t bytes;
};

constexpr Unit kUnits[] = {
    {"b", 1},
    {"kb", uint64_t{1} << 10}, {"kib", uint64_t{1} << 10},
    {"mb", uint64_t{1} << 20}, {"mib", uint64_t{1} << 20},
    {"gb", uint64_t{1} << 30}, {"gib", uint64_t{1} << 30},
    {"tb", uint64_t{1} << 40}, {"tib", uint64_t{1} << 40},
};

}  // namespace

uint64_t GetUnitValueFromString(const std::string& unit) {
  for (const Unit& entry : kUnits) {
    if (strcasecmp(unit.c_str(), entry.name) == 0) return entry.bytes;
  }
  return 0;
}

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
