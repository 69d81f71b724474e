// Parameters of creating or reconfiguring the configuration namespace.
#pragma once

#include <string>

namespace HostCtl {
namespace Orva {
namespace IscsiTarget {

struct NamespaceCreateParam {
  // Storage policy text for the namespace object; empty leaves the policy as
  // it is, and a reconfiguration with it does nothing.
  std::string policy;
};

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace HostCtl
