// A prepared home of one service host, all real so that a forked child,
// zelctl or the plug-in client sees what this process sees: host.json, the
// store with the service enabled, the datastore's ".iSCSI-CONFIG" link to the
// configuration namespace with etc/zel.conf (kStandardConf) and targets/, and
// the storage objects' directory entries. Target "finance" (kFinanceUuid, this
// host's): group "finance-hosts", one initiator by name, CHAP user "finance",
// LUN 0 "ledger" (kLedgerUuid), LUN 1 offline (kArchiveUuid); target "lab"
// (kLabUuid, of the peer kPeerHostUuid "peer-host"): CHAP-Mutual, no LUN;
// defaults: CHAP user "defuser", kDefaultSecret, "nok0:3260" (the store's copy
// has kStoreSecret).
#pragma once

#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/Host.h"
#include "support/TestHost.h"
#include "zel/DefaultInfo.h"

namespace zel::test {

constexpr const char* kNamespaceUuid = "5e0c2a7d-8f41-4b6e-9d3a-2c7b1e0f4a58";
constexpr const char* kFinanceUuid = "3fb2b402-cfcb-4738-9622-3a566bb58dbf";
constexpr const char* kLabUuid = "1d327651-d329-4d7e-ba75-059ffaab473e";
constexpr const char* kLedgerUuid = "fc23b305-508a-41d5-8ec0-0f8d6c85fa1b";
constexpr const char* kArchiveUuid = "389d5864-56e1-4397-abfe-eefb6e129194";
constexpr const char* kPeerHostUuid = "7a1e9c44-0b2d-4f6a-8e3c-5d9b2a7f1c06";
constexpr const char* kPeerHostName = "peer-host";
// The secrets in the clear; the files hold them Base64-encoded.
constexpr const char* kDefaultSecret = "Default#Secret1";
constexpr const char* kDefaultMutualSecret = "Mutual#Secret22";
constexpr const char* kStoreSecret = "Store#Secret333";
constexpr const char* kFinanceSecret = "Finance#Secret1";

// zel.conf of the standard preparation, generation 7.
extern const char* const kStandardConf;

class ServiceHome {
 public:
  // The standard preparation in a fresh temporary home. No host is selected
  // yet: call one of the Install functions.
  ServiceHome();
  // Drops the configuration cache's subscription and graph, and puts back
  // the host that was selected before Install.
  ~ServiceHome();
  ServiceHome(const ServiceHome&) = delete;
  ServiceHome& operator=(const ServiceHome&) = delete;

  const std::string& Path() const { return home_.Path(); }
  const std::string& HostUuid() const { return hostUuid_; }
  // The namespace's own directory, where etc/zel.conf really lives.
  std::string NamespaceDir() const;
  std::string ConfPath() const;

  // Sets `key` of host.json ("clusterMember", "faultDomain", "options", ...);
  // the next Install reads it.
  void SetHostSetting(const std::string& key, const nlohmann::json& value);

  // The configuration store.
  void SetServiceEnabled(bool enabled);
  void SetStoredDefaults(const HostCtl::Orva::IscsiTarget::DefaultInfo& defaults);

  // Replaces zel.conf (mode 0600).
  void WriteConf(const std::string& text);
  // Removes the ".iSCSI-CONFIG" link: a datastore without the namespace.
  void RemoveNamespaceLink();

  // Publishes storage object `uuid` owned by `ownerHost` in the directory.
  void AnnounceObject(const std::string& uuid, const std::string& ownerHost,
                      const std::string& policy = "");
  // Selects a ScopedTestHost of this home with the local directory, cluster
  // facts, store, policies, disks, namespaces, kernel options and object
  // manager attached, each inside its double (HostDoubles.h), all recording
  // into one journal.
  TestServices InstallTestHost();
  // Selects the local service host of this home, as zelctl does.
  void InstallLocalServiceHost(platform::LogLevel maxLevel = platform::LogLevel::Warning);

 private:
  TempHome home_;
  std::string hostUuid_;
  std::unique_ptr<Journal> journal_;  // outlives the doubles writing to it
  // At most one is set; a second install replaces this home's earlier host.
  std::unique_ptr<ScopedTestHost> testHost_;
  std::unique_ptr<HostSelection> localHost_;
};

}  // namespace zel::test
