// The checks on a LUN that reaches the service from outside, and the
// choice of a new LUN's number.
#pragma once

#include "conf/conf.h"
#include "zel/LunInfo.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// Checks `lun`'s alias, id and policy, and completes a new LUN (`isNew`)
// that names no policy with the datastore's default. A given policy is
// verified and tested against the target's location. Throws
// OrvaCtlException; writes nothing.
void VerifyLunParams(HostCtl::Orva::IscsiTarget::LunInfo& lun, bool isNew);

// The lowest LUN number that `target` leaves free. Throws "Can not add more
// than 256 LUNs to target <alias>" when there is none.
int GenerateLunIdForTarget(const struct target* target);

// Throws unless `id` is a LUN number a target can hold (0 to 255).
void VerifyLunId(int id);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
