// The service facade: every request of the management process enters here.
// It checks that the service is enabled, takes the process-wide locks,
// validates, edits the configuration through Parser and ConfHandle and
// creates or deletes datastore objects. It owns no configuration data: that
// lives in zel.conf and the process-wide ConfigCache.
//
// Locks, process-wide and shared by every instance: configAccessMutex
// (shared by configuration operations, exclusive for enable/disable and
// destruction) is always taken before serviceStatusMutex (upgrade lock for
// the service check and lazy library start-up). _singletonMutex is never
// held while either is taken.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <boost/thread/shared_mutex.hpp>
#include <boost/thread/thread.hpp>

#include "platform/HostServices.h"
#include "zel/OrvaIscsiTarget.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

namespace Api = HostCtl::Orva::IscsiTarget;

class OrvaIscsiTargetImpl : public virtual Api::OrvaIscsiTarget {
 public:
  OrvaIscsiTargetImpl();
  ~OrvaIscsiTargetImpl() override;
  OrvaIscsiTargetImpl(const OrvaIscsiTargetImpl&) = delete;
  OrvaIscsiTargetImpl& operator=(const OrvaIscsiTargetImpl&) = delete;

  // The instance of the event handlers and the control thread, created on
  // first use.
  static void GetOrvaIscsiTargetImpl(std::shared_ptr<OrvaIscsiTargetImpl>& impl);
  // Lets go of that instance; the next GetOrvaIscsiTargetImpl makes a new
  // one: for a process that replaces its host, whose handles it holds.
  static void DropSingleton();

  // Cluster-event handlers, registered with the platform when the library
  // is loaded. They work on the singleton and never let an exception out.
  static void ZelOnClusterLeave();
  static void ZelOnNokNicChange();
  static void ZelOnOrvaSystemRefresh();
  static void ZelOnLocalHostEnterMaintenanceMode(unsigned nodeCount);

  // The control thread, when "zelNokNicCtlEnable" is non-zero: a pass every
  // tick (host.json "controlTickSeconds", 15 by default) that republishes a
  // missing generation entry, backs up zel.conf and checks the
  // configuration's consistency every 40th pass, re-checks target affinity,
  // balances, mirrors the defaults into the store and moves targets off
  // interfaces that are down. A pass that fails is logged and repeated.
  static void ZelInit();
  static void ZelDeinit();
  static void ZelStartControlThread();
  static void ZelStopControlThread();
  // Moves every target this host owns to other hosts, once the host is
  // decommissioned; nothing with fewer than 2 nodes. Never throws.
  static void TransferAllLocalTargets(void* nodeCount, Api::OrvaIscsiTarget* target);
  // This host's targets that listen on one of `nics`, and those that
  // listen on none of them.
  static std::vector<Api::TargetInfo> ZelFindLocalTargetsByNokNics(
      const std::vector<std::string>& nics, Api::OrvaIscsiTarget* target);
  static std::vector<Api::TargetInfo> ZelFindLocalTargetsNotBindOnNokNics(
      const std::vector<std::string>& nics, Api::OrvaIscsiTarget* target);

  void SetIscsiTargetStatus(bool enable, bool failIfSame) override;
  bool GetIscsiTargetStatus(bool takeLock) override;
  void AddTarget(Api::TargetCreateParam& param) override;
  void AddLun(Api::LunInfo& lun) override;
  void RemoveLun(unsigned lunId, const std::string& target) override;
  void UpdateLun(Api::LunInfo& lun, int newId, const std::string& newTarget,
                 bool takeLock) override;
  void RemoveTarget(const std::string& alias) override;
  std::vector<Api::TargetInfo> GetTargetsInternal() override;
  Api::TargetInfo GetTargetInfo(const std::string& alias) override;
  std::vector<Api::TargetInfo> GetTargets(bool withCompliance, bool localOnly) override;
  void GetLuns(std::string target, std::vector<Api::LunInfo>& luns, bool withCompliance) override;
  Api::LunInfo GetLunInfo(const std::string& target, int lunId) override;
  void Restore() override;
  void UpdateTargetConfig(Api::TargetCreateParam& param) override;
  void UpdateDefaultConfig(const Api::DefaultInfo& defaults) override;
  Api::DefaultInfo GetDefaultInfo() override;
  void DeleteNamespace() override;
  void CreateNamespace(const Api::NamespaceCreateParam& param,
                       const Api::DefaultInfo& defaults) override;
  void UpdateNamespaceConfig(const Api::NamespaceCreateParam& param) override;
  Api::NamespaceInfo GetNamespaceInfo(bool throwOnError) override;
  void AddInitiatorgroup(const std::string& name) override;
  void RemoveInitiatorgroup(const std::string& name, bool force) override;
  std::vector<Api::InitiatorgroupInfo> GetInitiatorgroups() override;
  Api::InitiatorgroupInfo GetInitiatorgroupInfo(const std::string& name) override;
  void AddInitiatorsToInitiatorgroup(const std::string& name,
                                     const std::vector<std::string>& initiators) override;
  void RemoveInitiatorsFromInitiatorgroup(const std::string& name,
                                          const std::vector<std::string>& initiators) override;
  void Refresh() override;
  void CheckIscsiServiceStatus(bool quiet) override;
  void TransferTargetsOwner(std::vector<Api::TargetInfo>& targets, int retries) override;
  void TransferLocalTargets(int retries) override;
  Api::NamespaceInfo GetNamespaceInternal() override;
  void LoadConfig() override;

 private:
  // Each is idempotent. REQUIRES: serviceStatusMutex held (upgrade or
  // exclusive).
  void initVolLib();
  void initComplianceLib();
  void deinitVolLib();
  void deinitComplianceLib();
  void deinitLibs();

  // Subscribes the configuration cache when it is not; a failure is only
  // logged, since queries then read the file.
  void _CheckZelConfigSubscription();
  // Ends the subscription; a failure is only logged.
  void _UnsubscribeZelConfig();

  // Read by every checked operation and written by every status read, on
  // any thread and under a shared lock at most.
  std::atomic<bool> _isEnabled{false};
  bool _volLibInitialized = false;
  bool _lunNaaEnabled = false;
  OrvaComplianceHandle* _complianceHandle = nullptr;

  static boost::shared_mutex configAccessMutex;
  static boost::shared_mutex serviceStatusMutex;
  static std::shared_ptr<OrvaIscsiTargetImpl> _singleton;
  static boost::shared_mutex _singletonMutex;

  static void ZelControlThreadWorker();
  static void ZelCheckConfigBrixEntry();
  static boost::thread ZelControlThread;
  static boost::shared_mutex ZelControlThreadMutex;
  static bool IsZelControlThreadEnabled;            // guarded by ZelControlThreadMutex
  static std::atomic<bool> ZelOrvaInfoRequireRefresh;  // set by the refresh event
};

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
