// Sizes as callers write them: a whole decimal number and one of six units,
// matched without regard to case. "MB", "GB" and "TB" are decimal, "MiB",
// "GiB" and "TiB" binary. The disks count in 512-byte sectors.
#pragma once

#include <cstdint>
#include <string>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

// Bytes per `unit`; throws OrvaCtlException "Invalid unit : <unit>" for a
// unit not in the table.
uint64_t GetUnitValueFromString(const std::string& unit);

namespace Util {

// The sectors that `size` ("10GB", "1gib") asks for: the number times the
// unit rounded up to whole sectors. Throws OrvaCtlException for an unknown
// unit (naming the six, and refusing fractions), a number that does not
// convert, a size of 0, and a sector count that does not fit 64 bits,
// which is refused rather than wrapped.
uint64_t GetLunSizeInSectors(const std::string& size);

// GetLunSizeInSectors for a LUN's requested size, its refusal given as
// "Failed to validate LUN size: <message>".
uint64_t GetValidatedLunSize(const std::string& size);

// `sectors` as a size string that reads back to the same sectors: in the
// largest binary, else decimal, unit that holds it exactly ("10GiB",
// "10GB"), else as "<n> sectors".
std::string LunSizeText(uint64_t sectors);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
