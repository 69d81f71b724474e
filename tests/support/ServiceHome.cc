#include "support/ServiceHome.h"

#include <filesystem>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "cache/ConfigCache.h"
#include "directory/DirectoryEntries.h"
#include "platform/EntryMarshal.h"
#include "platform/local/AtomicFile.h"
#include "platform/local/JsonConfigStore.h"
#include "platform/local/LocalClusterFacts.h"
#include "platform/local/LocalDiskLibrary.h"
#include "platform/local/LocalKernelOptions.h"
#include "platform/local/LocalNamespaces.h"
#include "platform/local/LocalObjectManager.h"
#include "platform/local/LocalPolicyService.h"
#include "platform/local/SqliteDirectory.h"

namespace zel::test {

using NokCtl::Orva::IscsiTarget::ConfigCache;

const char* const kStandardConf =
    "generation 7\n"
    "initiator-group finance-hosts {\n"
    "\t initiator iqn.2024-01.org.example:finance-db1 \n"
    "\t initiator iqn.2024-01.org.example:finance-db2 \n"
    "}\n"
    "auth-group default {\n"
    "\t chap-mutual \"defuser\" \"RGVmYXVsdCNTZWNyZXQx\" \"defmutual\" \"TXV0dWFsI1NlY3JldDIy\"\n"
    "}\n"
    "auth-group 3fb2b402-cfcb-4738-9622-3a566bb58dbf {\n"
    "\t chap \"finance\" \"RmluYW5jZSNTZWNyZXQx\" \n"
    "\t initiator-group finance-hosts\n"
    "\t initiator-name iqn.2024-01.org.example:backup1\n"
    "}\n"
    "auth-group 1d327651-d329-4d7e-ba75-059ffaab473e {\n"
    "\t chap-mutual \"lab\" \"TGFiI091dGdvaW5nMQ==\" \"labtarget\" \"TGFiI0luY29taW5nMg==\"\n"
    "}\n"
    "portal-group default {\n"
    "\t discovery-auth-group default\n"
    "\t listen nok0:3260\n"
    "}\n"
    "target iqn.2026-11.local.zel:finance {\n"
    "\talias \"finance\"\n"
    "\tportal-group default\n"
    "\tauth-group 3fb2b402-cfcb-4738-9622-3a566bb58dbf\n"
    "\toption uuid 3fb2b402-cfcb-4738-9622-3a566bb58dbf\n"
    "\toption owner-id 3fb2b402-cfcb-4738-9622-3a566bb58dbf\n"
    "\tlun 0 {\n"
    "\t\tbackend block\n"
    "\t\tpath 3fb2b402-cfcb-4738-9622-3a566bb58dbf/fc23b305-508a-41d5-8ec0-0f8d6c85fa1b.qdsk\n"
    "\t\tsize 2097152\n"
    "\t\toption lun-alias \"ledger\"\n"
    "\t}\n"
    "\tlun 1 {\n"
    "\t\tbackend block\n"
    "\t\tpath 3fb2b402-cfcb-4738-9622-3a566bb58dbf/389d5864-56e1-4397-abfe-eefb6e129194.qdsk\n"
    "\t\tsize 204800\n"
    "\t\toption status \"offline\"\n"
    "\t}\n"
    "}\n"
    "target iqn.2026-11.local.zel:lab {\n"
    "\talias \"lab\"\n"
    "\tportal-group default\n"
    "\tauth-group 1d327651-d329-4d7e-ba75-059ffaab473e\n"
    "\toption uuid 1d327651-d329-4d7e-ba75-059ffaab473e\n"
    "\toption owner-id 1d327651-d329-4d7e-ba75-059ffaab473e\n"
    "}\n";

namespace {

std::unique_ptr<platform::Directory> OpenDirectory(const platform::HostConfig& config) {
  std::unique_ptr<platform::Directory> directory =
      platform::NewSqliteDirectory(config.directoryPath);
  if (!directory) throw std::runtime_error("cannot open directory " + config.directoryPath);
  return directory;
}

// Puts the configuration cache back into its empty state, as at start.
void ResetConfigCache() {
  ConfigCache::UnsubscribeBrix();
  ConfigCache::CleanupCachedConfig();
  // No subscription is left to race with: the notice can no longer run.
  ConfigCache::SetZelConfDirty(false);
  ConfigCache::SetZelConfBrixEntryExists(false, true);
  ZeldClearConfigEntryNeedsRepublish();
}

}  // namespace

ServiceHome::ServiceHome() {
  const platform::HostConfig config = platform::LoadHostConfig(Path());
  hostUuid_ = config.hostUuid;
  SetServiceEnabled(true);

  std::filesystem::create_directories(NamespaceDir() + "/etc");
  std::filesystem::create_directories(NamespaceDir() + "/targets");
  // Relative, as the platform makes it.
  std::filesystem::create_directory_symlink(kNamespaceUuid,
                                            config.datastoreRoot + "/.iSCSI-CONFIG");
  WriteConf(kStandardConf);

  platform::HostConfig peer = config;
  peer.hostUuid = kPeerHostUuid;
  peer.hostName = kPeerHostName;
  peer.clusterMember = true;
  if (platform::LocalClusterFacts(peer, *OpenDirectory(peer)).Announce() != NOK_OK) {
    throw std::runtime_error("cannot announce the peer");
  }
  AnnounceObject(kNamespaceUuid, hostUuid_, "namespace-policy");
  AnnounceObject(kFinanceUuid, hostUuid_, "finance-policy");
  AnnounceObject(kLedgerUuid, hostUuid_, "ledger-policy");
  AnnounceObject(kArchiveUuid, hostUuid_, "archive-policy");
  AnnounceObject(kLabUuid, kPeerHostUuid, "lab-policy");
}

ServiceHome::~ServiceHome() {
  // The subscription lives in the directory of the host about to go.
  if (testHost_ || localHost_) ResetConfigCache();
}

std::string ServiceHome::NamespaceDir() const {
  return Path() + "/datastore/" + kNamespaceUuid;
}

std::string ServiceHome::ConfPath() const { return NamespaceDir() + "/etc/zel.conf"; }

void ServiceHome::SetHostSetting(const std::string& key, const nlohmann::json& value) {
  const std::string path = Path() + "/host.json";
  nlohmann::json document;
  platform::ReadJsonFile(path, "Host configuration", &document);
  document[key] = value;
  platform::WriteJsonFileAtomically(path, document, 0644);
}

void ServiceHome::SetServiceEnabled(bool enabled) {
  platform::JsonConfigStore(platform::LoadHostConfig(Path()).configStorePath)
      .SetOrvaIscsiServiceEnabled(enabled);
}

void ServiceHome::SetStoredDefaults(const HostCtl::Orva::IscsiTarget::DefaultInfo& defaults) {
  platform::JsonConfigStore(platform::LoadHostConfig(Path()).configStorePath)
      .SetOrvaIscsiDefaultConfig(defaults);
}

void ServiceHome::WriteConf(const std::string& text) { WriteFile(ConfPath(), text, 0600); }

void ServiceHome::RemoveNamespaceLink() {
  std::filesystem::remove(Path() + "/datastore/.iSCSI-CONFIG");
}

void ServiceHome::AnnounceObject(const std::string& uuid, const std::string& ownerHost,
                                 const std::string& policy) {
  platform::DirectoryEntry entry;
  entry.type = BRIX_TYPE_STORAGE_OBJECT;
  entry.key = uuid;
  entry.entryId = uuid;
  entry.ownerHost = ownerHost;
  if (platform::MarshalStorageObjectRecord({ownerHost, policy}, &entry.payload) != NOK_OK) {
    throw std::runtime_error("cannot marshal storage object " + uuid);
  }
  if (PublishAndWait(*OpenDirectory(platform::LoadHostConfig(Path())), entry) != NOK_OK) {
    throw std::runtime_error("cannot publish storage object " + uuid);
  }
}

TestServices ServiceHome::InstallTestHost() {
  ResetConfigCache();
  localHost_.reset();
  testHost_.reset();
  testHost_ = std::make_unique<ScopedTestHost>(platform::LoadHostConfig(Path()));
  journal_ = std::make_unique<Journal>();
  ScopedTestHost& host = *testHost_;
  const platform::HostConfig& config = host.Config();
  TestServices services = host.Services();
  services.journal = journal_.get();
  // Every double records into the journal from its first call on.
  auto install = [&](auto target) -> auto& {
    using Double = typename std::remove_reference_t<decltype(*target)>;
    auto& installed = host.Install<Double>(std::move(target));
    installed.JournalInto(journal_.get());
    return installed;
  };
  services.directory = &install(std::make_unique<DirectoryDouble>(OpenDirectory(config)));
  auto cluster = std::make_unique<platform::LocalClusterFacts>(config, *services.directory);
  if (cluster->Announce() != NOK_OK) throw std::runtime_error("cannot announce this host");
  install(std::make_unique<ClusterFactsDouble>(std::move(cluster)));
  services.store = &install(std::make_unique<ConfigStoreDouble>(
      std::make_unique<platform::JsonConfigStore>(config.configStorePath)));
  install(std::make_unique<PolicyServiceDouble>(
      std::make_unique<platform::LocalPolicyService>(*services.directory, config.hostUuid)));
  services.disks = &install(std::make_unique<DiskLibraryDouble>(
      std::make_unique<platform::LocalDiskLibrary>(config.datastoreRoot, config.hostUuid)));
  install(std::make_unique<NamespacesDouble>(platform::NewLocalNamespaces(config)));
  install(std::make_unique<KernelOptionsDouble>(platform::NewLocalKernelOptions(config)));
  services.objects =
      &install(std::make_unique<ObjectManagerDouble>(platform::NewLocalObjectManager(config.hostUuid)));
  return services;
}

void ServiceHome::InstallLocalServiceHost(platform::LogLevel maxLevel) {
  ResetConfigCache();
  testHost_.reset();
  localHost_.reset();
  localHost_ = std::make_unique<HostSelection>(
      platform::NewLocalServiceHost(platform::LoadHostConfig(Path()), maxLevel));
}

}  // namespace zel::test
