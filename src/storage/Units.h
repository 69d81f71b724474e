// Byte multiples by unit name, as the configuration layer counts them:
// binary throughout, like the k/m/g/t suffixes of expand_number, so "mb"
// and "mib" are both 2^20. (LUN size strings from callers are parsed by
// their own rules, where "MB" is decimal.)
#pragma once

#include <cstdint>
#include <string>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

// Bytes per `unit` ("b", "kb"/"kib", "mb"/"mib", "gb"/"gib", "tb"/"tib",
// matched without regard to case), or 0 for a unit not in the table, so that
// a caller can tell "unknown" from any real multiple.
uint64_t GetUnitValueFromString(const std::string& unit);

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
