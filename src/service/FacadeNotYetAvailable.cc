// Operations of the interface whose machinery (storage, enablement,
// editing, placement) this version of the library does not carry yet. They
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

void OrvaIscsiTargetImpl::AddTarget(Api::TargetCreateParam&) { NotAvailable("AddTarget"); }
void OrvaIscsiTargetImpl::AddLun(Api::LunInfo&) { NotAvailable("AddLun"); }
void OrvaIscsiTargetImpl::RemoveLun(unsigned, const std::string&) { NotAvailable("RemoveLun"); }
void OrvaIscsiTargetImpl::UpdateLun(Api::LunInfo&, int, const std::string&, bool) {
  NotAvailable("UpdateLun");
}
void OrvaIscsiTargetImpl::RemoveTarget(const std::string&) { NotAvailable("RemoveTarget"); }
void OrvaIscsiTargetImpl::UpdateTargetConfig(Api::TargetCreateParam&) {
  NotAvailable("UpdateTargetConfig");
}
void OrvaIscsiTargetImpl::AddInitiatorgroup(const std::string&) {
  NotAvailable("AddInitiatorgroup");
}
void OrvaIscsiTargetImpl::RemoveInitiatorgroup(const std::string&, bool) {
  NotAvailable("RemoveInitiatorgroup");
}
void OrvaIscsiTargetImpl::AddInitiatorsToInitiatorgroup(const std::string&,
                                                        const std::vector<std::string>&) {
  NotAvailable("AddInitiatorsToInitiatorgroup");
}
void OrvaIscsiTargetImpl::RemoveInitiatorsFromInitiatorgroup(const std::string&,
                                                             const std::vector<std::string>&) {
  NotAvailable("RemoveInitiatorsFromInitiatorgroup");
}
void OrvaIscsiTargetImpl::TransferTargetsOwner(std::vector<Api::TargetInfo>&, int) {
  NotAvailable("TransferTargetsOwner");
}
void OrvaIscsiTargetImpl::TransferLocalTargets(int) { NotAvailable("TransferLocalTargets"); }

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
