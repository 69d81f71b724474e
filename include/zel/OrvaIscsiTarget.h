// The public interface of the iSCSI target service on one host. Obtain an
// instance through the plug-in entry (zel/OrvaPlugin.h); every instance
// shares the host's configuration, locks and daemon, so several may be used
// at once from several threads.
//
// Every failure is thrown as HostCtl::Lib::Orva::OrvaCtlException whose
// message is meant to be shown to an operator unchanged. Operations that
// need the service enabled on this host throw the not-enabled message while
// it is disabled.
//
// The operations are in slot order; the order is part of the binary
// interface between the library and the management process.
#pragma once

#include <string>
#include <vector>

#include "zel/DefaultInfo.h"
#include "zel/InitiatorgroupInfo.h"
#include "zel/LunInfo.h"
#include "zel/NamespaceCreateParam.h"
#include "zel/NamespaceInfo.h"
#include "zel/OrvaCtlException.h"
#include "zel/TargetCreateParam.h"
#include "zel/TargetInfo.h"

namespace HostCtl {
namespace Orva {
namespace IscsiTarget {

class OrvaIscsiTarget {
 public:
  virtual ~OrvaIscsiTarget() = default;

  // Enables or disables the service on this host. Asking for the current
  // state throws when failIfSame is true and does nothing otherwise.
  virtual void SetIscsiTargetStatus(bool enable, bool failIfSame) = 0;
  // Re-reads the persisted enabled state of this host.
  virtual bool GetIscsiTargetStatus(bool takeLock) = 0;

  // An empty iqn is replaced by a generated one, written back into param;
  // param.uuid receives the new target namespace's identity.
  virtual void AddTarget(TargetCreateParam& param) = 0;
  // A negative lun.id lets the service choose the number; lun.path and
  // lun.uuid receive the new backing disk's path and identity.
  virtual void AddLun(LunInfo& lun) = 0;
  virtual void RemoveLun(unsigned lunId, const std::string& target) = 0;
  // newId -1 keeps the number and an empty newTarget keeps the target.
  // takeLock is false only for a caller that already holds the service's
  // configuration lock.
  virtual void UpdateLun(LunInfo& lun, int newId, const std::string& newTarget,
                         bool takeLock) = 0;
  // Refused while the target still has LUNs.
  virtual void RemoveTarget(const std::string& alias) = 0;
  // The configured targets as they are, without the service check and
  // without owner or policy enrichment.
  virtual std::vector<TargetInfo> GetTargetsInternal() = 0;
  virtual TargetInfo GetTargetInfo(const std::string& alias) = 0;
  // localOnly keeps only the targets that this host owns.
  virtual std::vector<TargetInfo> GetTargets(bool withCompliance, bool localOnly) = 0;
  virtual void GetLuns(std::string target, std::vector<LunInfo>& luns,
                       bool withCompliance) = 0;
  virtual LunInfo GetLunInfo(const std::string& target, int lunId) = 0;
  // Re-establishes an enabled service after a restart of the host or of
  // the management process, without changing the persisted state.
  virtual void Restore() = 0;
  virtual void UpdateTargetConfig(TargetCreateParam& param) = 0;

  virtual void UpdateDefaultConfig(const DefaultInfo& defaults) = 0;
  virtual DefaultInfo GetDefaultInfo() = 0;

  virtual void DeleteNamespace() = 0;
  virtual void CreateNamespace(const NamespaceCreateParam& param,
                               const DefaultInfo& defaults) = 0;
  virtual void UpdateNamespaceConfig(const NamespaceCreateParam& param) = 0;
  // With throwOnError false a failure gives an empty record instead.
  virtual NamespaceInfo GetNamespaceInfo(bool throwOnError) = 0;

  virtual void AddInitiatorgroup(const std::string& name) = 0;
  virtual void RemoveInitiatorgroup(const std::string& name, bool force) = 0;
  virtual std::vector<InitiatorgroupInfo> GetInitiatorgroups() = 0;
  virtual InitiatorgroupInfo GetInitiatorgroupInfo(const std::string& name) = 0;
  virtual void AddInitiatorsToInitiatorgroup(const std::string& name,
                                             const std::vector<std::string>& initiators) = 0;
  virtual void RemoveInitiatorsFromInitiatorgroup(
      const std::string& name, const std::vector<std::string>& initiators) = 0;

  // Re-reads the enabled state and drops the cached configuration.
  virtual void Refresh() = 0;
  // Throws the not-enabled message unless the service is enabled; with
  // quiet true a disabled service returns without error.
  virtual void CheckIscsiServiceStatus(bool quiet) = 0;
  // Moves the given targets to other hosts of the cluster, retrying the
  // ones that stayed while retries last.
  virtual void TransferTargetsOwner(std::vector<TargetInfo>& targets, int retries) = 0;
  // TransferTargetsOwner on the targets that this host owns.
  virtual void TransferLocalTargets(int retries) = 0;
  virtual NamespaceInfo GetNamespaceInternal() = 0;
  virtual void LoadConfig() = 0;
};

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace HostCtl
