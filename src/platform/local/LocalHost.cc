// The local backends of every host service, assembled into one host.
#include <filesystem>
#include <memory>

#include "platform/Host.h"
#include "platform/local/JsonConfigStore.h"
#include "platform/local/LocalClusterFacts.h"
#include "platform/local/LocalCommandRunner.h"
#include "platform/local/LocalDiskLibrary.h"
#include "platform/local/LocalHostControl.h"
#include "platform/local/LocalKernelOptions.h"
#include "platform/local/LocalLegacyConfig.h"
#include "platform/local/LocalNamespaces.h"
#include "platform/local/LocalNetworkInterfaces.h"
#include "platform/local/LocalObjectManager.h"
#include "platform/local/LocalPolicyService.h"
#include "platform/local/EtcdDirectory.h"
#include "platform/local/SqliteDirectory.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace platform {

using HostCtl::Lib::Orva::OrvaCtlException;

std::unique_ptr<Host> NewLocalServiceHost(HostConfig config, LogLevel maxLevel) {
  return NewLocalServiceHost(std::move(config), NewStderrLogSink(maxLevel));
}

namespace {

// The backend host.json names: "etcd", else "sqlite".
std::unique_ptr<Directory> OpenDirectory(const HostConfig& config) {
  if (config.directoryBackend == "etcd") {
    std::unique_ptr<Directory> directory =
        NewEtcdDirectory(config.directoryEndpoints, config.directoryPrefix);
    if (!directory) throw OrvaCtlException("The etcd cluster directory names no endpoint");
    return directory;
  }
  std::unique_ptr<Directory> directory = NewSqliteDirectory(config.directoryPath);
  if (!directory) {
    throw OrvaCtlException("Failed to open the cluster directory " + config.directoryPath);
  }
  return directory;
}

}  // namespace

std::unique_ptr<Host> NewLocalServiceHost(HostConfig config, std::unique_ptr<LogSink> log) {
  // The identity keys this host's directory entries; an empty one would
  // make the directory invent a different one on every start.
  if (config.hostUuid.empty()) {
    throw OrvaCtlException("The host configuration under " + config.home + " has no host identity");
  }
  if (config.directoryBackend != "sqlite" && config.directoryBackend != "etcd") {
    throw OrvaCtlException("Unsupported directory backend '" + config.directoryBackend +
                           "' in the host configuration under " + config.home);
  }
  // The embedded profile keeps the datastore inside the home; a real host
  // mounts it, and a missing mount must stay visible as such.
  if (config.profile == Profile::Embedded) {
    FileIO_CreateOwnerOnlyDirectories(config.datastoreRoot);
  }
  std::unique_ptr<Directory> directory = OpenDirectory(config);

  std::unique_ptr<Host> host = NewLocalHost(std::move(config), std::move(log));
  const HostConfig& settled = host->Config();
  Directory& shared = *directory;
  host->SetDirectory(std::move(directory));

  auto cluster = std::make_unique<LocalClusterFacts>(settled, shared);
  const NOK_ReturnStatus announced = cluster->Announce();
  if (announced != NOK_OK) {
    throw OrvaCtlException(
        std::string("Failed to ") + (settled.clusterMember ? "register" : "unregister") + " host " +
        settled.hostUuid + " as a cluster member: " + NOK_ReturnStatusToString(announced));
  }
  ClusterFacts& facts = *cluster;
  host->SetCluster(std::move(cluster));
  host->SetStore(std::make_unique<JsonConfigStore>(settled.configStorePath));
  host->SetPolicies(std::make_unique<LocalPolicyService>(shared, settled.hostUuid, &facts));
  host->SetDisks(std::make_unique<LocalDiskLibrary>(settled.datastoreRoot, settled.hostUuid));
  host->SetNamespaces(NewLocalNamespaces(settled));
  host->SetNics(NewLocalNetworkInterfaces(settled));
  host->SetCommands(NewLocalCommandRunner(settled));
  host->SetModules(NewLocalKernelModules(settled));
  host->SetFirewall(NewLocalFirewall(settled));
  host->SetOptions(NewLocalKernelOptions(settled));
  host->SetLegacyConfig(NewLocalLegacyConfigFile(settled));
  host->SetObjects(NewLocalObjectManager(settled.hostUuid));
  return host;
}

}  // namespace platform
}  // namespace zel
