// Site affinity of targets against storage policies: a target placed in one
// site of a stretched cluster must not keep its namespace or LUNs in the
// other. The verifiers run before a change and throw OrvaCtlException with
// the service's message; they change nothing.
#pragma once

#include <string>
#include <vector>

#include "platform/HostServices.h"
#include "zel/LunInfo.h"
#include "zel/TargetCreateParam.h"
#include "zel/TargetInfo.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

enum class PolicyLocality { None, Preferred, NonPreferred };

// The site that a policy text asks for through its locality rule, found by
// the rule's exact text ("locality" "Preferred", one blank). A text naming
// both sites reads as Preferred.
PolicyLocality GetPolicyLocality(const std::string& policy);

// False exactly when `location` ("Preferred" or "NonPreferred") names one
// site and the policy's locality the other. No location, an unknown one or
// a policy without locality is compatible with anything.
bool IsLocationCompatibleWithPolicy(const std::string& location, const std::string& policy);

// Creation: the requested location against the requested namespace policy.
void VerifyNewTargetAffinity(const HostCtl::Orva::IscsiTarget::TargetCreateParam& param);

// Update of `current` by `param`. The location is the requested one, else
// the current one; "None" clears it, which nothing can contradict. It is
// tested against the new namespace policy and against every LUN's policy.
// A LUN whose record carries no policy has it read through `handle`; when
// there is a location to test, a null handle or an unreadable LUN refuses
// the update (the compliance query's exception) rather than pass a policy
// nobody has seen.
void VerifyUpdateTargetAffinity(OrvaComplianceHandle* handle,
                                const HostCtl::Orva::IscsiTarget::TargetCreateParam& param,
                                const HostCtl::Orva::IscsiTarget::TargetInfo& current);

// Setting a location needs the stretched-cluster feature, every host on
// the disk format that placement needs, and a stretched cluster (Sites.h);
// throws the first that is missing.
void ValidateSiteAffinity();

// ValidateSiteAffinity when `location` names a site; clearing a location,
// or a name that is none of the sites (which the editor refuses with its own
// message), asks nothing of the cluster.
void ValidateSiteAffinityFor(const std::string& location);

// A LUN's requested policy against its target's location; a target that
// is not in the configuration has no location to contradict.
void VerifyLunPolicyAndAffinity(const HostCtl::Orva::IscsiTarget::LunInfo& lun);

// A host of site `site` ("Preferred" or "NonPreferred") chosen at random,
// so that several misplaced targets spread over the site; "" when the site
// has none (logged). Hosts in maintenance are not candidates.
std::string SelectHostInFaultDomain(const std::string& site);

// The control thread's check: targets owned here whose location names the
// other site move to a host of that site. Does nothing outside a stretched
// cluster or without the feature "ZelStretchedCluster"; never throws.
void CheckLocalTargetAffinity();
void RefreshLocalTargetAffinity(const std::vector<HostCtl::Orva::IscsiTarget::TargetInfo>& targets);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
