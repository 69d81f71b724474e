// One initiator group and the targets that admit it.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace HostCtl {
namespace Orva {
namespace IscsiTarget {

struct InitiatorgroupInfo {
  std::string name;
  std::vector<std::string> initiators;  // IQNs, configuration order
  // Alias to IQN of every target whose auth group refers to the group. Keyed
  // by alias, so two targets sharing an alias are reported once.
  std::map<std::string, std::string> targets;
};

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace HostCtl
