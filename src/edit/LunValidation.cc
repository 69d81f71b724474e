#include "edit/LunValidation.h"

#include "edit/Validation.h"
#include "placement/Affinity.h"
#include "platform/Log.h"
#include "storage/Policy.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

using HostCtl::Lib::Orva::OrvaCtlException;

void VerifyLunParams(HostCtl::Orva::IscsiTarget::LunInfo& lun, bool isNew) {
  VerifyNoQuote(lun.alias, "alias");
  if (isNew && lun.id >= 0) VerifyLunId(lun.id);
  if (lun.policy.empty()) {
    // A new LUN takes the default as it stands; a changed one keeps its own.
    if (isNew) lun.policy = GetDatastoreDefaultPolicy();
    return;
  }
  VerifyPolicy(lun.policy);
  VerifyLunPolicyAndAffinity(lun);
}

int GenerateLunIdForTarget(const struct target* target) {
  // The slots are indexed by number, so the first empty one is the lowest
  // free number.
  int id = 0;
  while (id < ZELD_MAX_LUNS && target->t_luns[id] != nullptr) ++id;
  ZEL_LOG_INFO("%s: generated lun ID %d\n", "Util", id);
  if (id >= ZELD_MAX_LUNS) {
    throw OrvaCtlException("Can not add more than " + std::to_string(ZELD_MAX_LUNS) +
                           " LUNs to target " + std::string(target->t_alias ? target->t_alias : ""));
  }
  return id;
}

void VerifyLunId(int id) {
  if (id < 0 || id >= ZELD_MAX_LUNS) {
    throw OrvaCtlException("Invalid LUN id " + std::to_string(id) + ". LUN ids are 0 to " +
                           std::to_string(ZELD_MAX_LUNS - 1) + ".");
  }
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
