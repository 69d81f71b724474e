#include "storage/Units.h"

#include <strings.h>

#include <cerrno>
#include <cstdlib>
#include <limits>

#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {

constexpr uint64_t kSectorBytes = 512;

struct Unit {
  const char* name;
  uint64_t bytes;
};

// In the order the refusal lists them.
constexpr Unit kUnits[] = {
    {"MB", 1000ull * 1000},
    {"GB", 1000ull * 1000 * 1000},
    {"TB", 1000ull * 1000 * 1000 * 1000},
    {"MiB", 1ull << 20},
    {"GiB", 1ull << 30},
    {"TiB", 1ull << 40},
};

// A unit in whole sectors, rounded up: n units are n times this.
uint64_t SectorsPerUnit(const Unit& unit) { return (unit.bytes + kSectorBytes - 1) / kSectorBytes; }

const Unit* FindUnit(const std::string& name) {
  for (const Unit& unit : kUnits) {
    if (strcasecmp(name.c_str(), unit.name) == 0) return &unit;
  }
  return nullptr;
}

std::string UnitNames() {
  std::string names;
  for (const Unit& unit : kUnits) {
    if (!names.empty()) names += ", ";
    names += unit.name;
  }
  return names;
}

}  // namespace

uint64_t GetUnitValueFromString(const std::string& unit) {
  const Unit* found = FindUnit(unit);
  if (found == nullptr) throw OrvaCtlException("Invalid unit : " + unit);
  return found->bytes;
}

namespace Util {

uint64_t GetLunSizeInSectors(const std::string& size) {
  const size_t split = size.find_first_not_of("0123456789");
  const std::string number = size.substr(0, split);
  const std::string unitText = split == std::string::npos ? std::string() : size.substr(split);

  const Unit* unit = FindUnit(unitText);
  if (unit == nullptr) {
    std::string message = "Invalid size unit: " + unitText + ". Valid units: " + UnitNames();
    if (!unitText.empty() && unitText[0] == '.') message += ". Fractional sizes not permitted.";
    throw OrvaCtlException(message);
  }
  const uint64_t sectorsPerUnit = SectorsPerUnit(*unit);

  const std::string unconvertible = "Failed to process size string: " + size;
  if (number.empty()) throw OrvaCtlException(unconvertible);
  errno = 0;
  const unsigned long long count = std::strtoull(number.c_str(), nullptr, 10);
  if (errno != 0 || count > std::numeric_limits<uint64_t>::max() / sectorsPerUnit) {
    throw OrvaCtlException(unconvertible);
  }
  const uint64_t sectors = count * sectorsPerUnit;
  if (sectors == 0) throw OrvaCtlException("LUN size must be greater than 0.");
  return sectors;
}

uint64_t GetValidatedLunSize(const std::string& size) {
  try {
    return GetLunSizeInSectors(size);
  } catch (const OrvaCtlException& e) {
    throw OrvaCtlException("Failed to validate LUN size: " + e.GetMessage());
  }
}

std::string LunSizeText(uint64_t sectors) {
  // Binary units first: a size given in them is usually meant that way.
  for (const char* name : {"TiB", "GiB", "MiB", "TB", "GB", "MB"}) {
    const uint64_t perUnit = SectorsPerUnit(*FindUnit(name));
    // GetLunSizeInSectors gives n units n × perUnit sectors, so this text
    // reads back to exactly `sectors`.
    if (sectors != 0 && sectors % perUnit == 0) {
      return std::to_string(sectors / perUnit) + name;
    }
  }
  return std::to_string(sectors) + " sectors";
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
