// One LUN of a target as the service reports it, and as a caller describes
// a LUN to create or change.
#pragma once

#include <cstdint>
#include <string>

namespace HostCtl {
namespace Orva {
namespace IscsiTarget {

struct LunInfo {
  // A negative id asks the service to choose the lowest free number, which
  // is what a freshly made record requests.
  int32_t id = -1;
  std::string alias;
  // Layout version of the record; records read from the configuration carry
  // 1. Callers describing a LUN leave it alone.
  int32_t recordVersion = 0;
  std::string uuid;  // identity of the backing object
  std::string path;  // absolute path of the backing disk descriptor
  // The size as the caller writes it ("10GiB"); records read back give
  // sizeSectors in the largest unit that holds it exactly.
  std::string size;
  uint64_t sizeMiB = 0;      // 0 when the unit table could not resolve MiB
  uint64_t sizeSectors = 0;  // 512-byte sectors, as stored in the configuration
  // Holds its place in the declared field order; nothing fills it.
  std::string reserved;
  std::string target;  // alias of the holding target
  std::string policy;
  bool policyCompliant = false;
  std::string status;  // "online" or "offline"
  std::string naa;
};

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace HostCtl
