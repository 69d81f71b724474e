// The service's configuration namespace on the datastore.
#pragma once

#include <string>

namespace HostCtl {
namespace Orva {
namespace IscsiTarget {

struct NamespaceInfo {
  std::string uuid;  // empty when the namespace could not be read
  std::string policy;
  bool policyCompliant = false;
};

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace HostCtl
