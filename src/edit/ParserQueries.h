// The configuration's read queries as the facade asks them: public records
// from the configuration cache.
#pragma once

#include <string>
#include <vector>

#include "zel/DefaultInfo.h"
#include "zel/InitiatorgroupInfo.h"
#include "zel/LunInfo.h"
#include "zel/TargetInfo.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Parser {

std::vector<HostCtl::Orva::IscsiTarget::TargetInfo> GetTargets();
HostCtl::Orva::IscsiTarget::DefaultInfo GetDefaultInfo(bool withSecrets);

// The LUNs of the target with this alias; throws when there is none.
void GetLunsForTarget(const std::string& alias,
                      std::vector<HostCtl::Orva::IscsiTarget::LunInfo>& luns);

// The group of that name, or every group for an empty name; an unknown
// name gives an empty list.
std::vector<HostCtl::Orva::IscsiTarget::InitiatorgroupInfo> GetInitiatorgroupsFromConfFile(
    const std::string& name);

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
