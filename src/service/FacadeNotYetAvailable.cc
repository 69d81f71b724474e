// Operations of the interface whose machinery (storage, enablement,
// placement) this version of the library does not carry yet. They
// refuse plainly instead of pretending to succeed.
#include "service/OrvaIscsiTargetImpl.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

namespace {
[[noreturn]] void NotAvailable(const char* operation) {
  throw HostCtl::Lib::Orva::OrvaCtlException(std::string(operation) +
                                             " is not available in this version of the service");
}
}  // namespace

void OrvaIscsiTargetImpl::TransferTargetsOwner(std::vector<Api::TargetInfo>&, int) {
  NotAvailable("TransferTargetsOwner");
}
void OrvaIscsiTargetImpl::TransferLocalTargets(int) { NotAvailable("TransferLocalTargets"); }

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
