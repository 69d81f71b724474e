// Storage policies and compliance of the datastore's objects (namespaces
// and LUN disks). Call sites use OrvaCompliance_Init/_Deinit and the Util
// policy operations.
#pragma once

#include <string>

#include "platform/NokStatus.h"

namespace zel {
namespace platform {

enum class Compliance { Compliant, NonCompliant, Unknown };

struct PolicyStatus {
  std::string policy;                        // the object's policy text; empty when none
  Compliance compliance = Compliance::Unknown;
  std::string reason;  // why it does not comply, or cannot be judged; empty when it complies
};

class PolicyService {
 public:
  virtual ~PolicyService() = default;

  // Opens a compliance session; NOK_OK or the failure.
  virtual NOK_ReturnStatus Init() = 0;
  virtual void Deinit() = 0;

  // The policy of the storage object and whether it complies, as far as
  // the cluster can tell. Throws OrvaCtlException when the object is
  // unknown or cannot be read.
  virtual PolicyStatus GetObjectPolicyStatus(const std::string& objectUuid) = 0;
};

}  // namespace platform
}  // namespace zel
