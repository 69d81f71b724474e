#include "support/HostDoubles.h"

#include <future>

namespace zel {
namespace test {

using platform::DirectoryEntry;
using HostCtl::Orva::IscsiTarget::DefaultInfo;

NOK_ReturnStatus DirectoryDouble::Query(uint32_t type, const std::string& key,
                                        std::vector<DirectoryEntry>* entries) {
  if (auto fault = Enter("Query", type, key)) return entries->clear(), fault->code;
  return target_->Query(type, key, entries);
}

NOK_ReturnStatus DirectoryDouble::QueryByHost(uint32_t type, const std::string& host,
                                              std::vector<DirectoryEntry>* entries) {
  if (auto fault = Enter("QueryByHost", type, host)) return entries->clear(), fault->code;
  return target_->QueryByHost(type, host, entries);
}

void DirectoryDouble::AsyncUpdate(const DirectoryEntry& entry, UpdatePredicate accept,
                                  Completion done) {
  if (auto fault = Enter("AsyncUpdate", entry.type, entry.key, entry.entryId)) {
    if (done) done(fault->code, nullptr);
    return;
  }
  target_->AsyncUpdate(entry, std::move(accept), std::move(done));
}

NOK_ReturnStatus DirectoryDouble::Delete(uint32_t type, const std::string& key,
                                         const std::string& entryId) {
  if (auto fault = Enter("Delete", type, key, entryId)) return fault->code;
  return target_->Delete(type, key, entryId);
}

platform::Directory::SubscriptionHandle DirectoryDouble::Subscribe(uint32_t type,
                                                                   const std::string& key,
                                                                   Callback callback) {
  if (Enter("Subscribe", type, key)) return 1;
  return target_->Subscribe(type, key, std::move(callback));
}

void DirectoryDouble::Unsubscribe(SubscriptionHandle handle) {
  if (!Enter("Unsubscribe", handle)) target_->Unsubscribe(handle);
}

UnreachableDirectory::UnreachableDirectory(NOK_ReturnStatus status) : DirectoryDouble(nullptr) {
  for (const char* call :
       {"Query", "QueryByHost", "AsyncUpdate", "Delete", "Subscribe", "Unsubscribe"}) {
    FailNext(call, static_cast<int>(status), kAlways);
  }
}

NOK_ReturnStatus PublishAndWait(platform::Directory& directory, const DirectoryEntry& entry) {
  std::promise<NOK_ReturnStatus> completed;
  std::future<NOK_ReturnStatus> result = completed.get_future();
  directory.AsyncUpdate(entry, nullptr, [&completed](NOK_ReturnStatus status,
                                                     const DirectoryEntry*) {
    completed.set_value(status);
  });
  return result.get();
}

std::string ClusterFactsDouble::LocalHostUuid() {
  Enter("LocalHostUuid");
  return target_->LocalHostUuid();
}

NOK_ReturnStatus ClusterFactsDouble::GetClusterInfo(platform::ClusterInfo* info) {
  if (auto fault = Enter("GetClusterInfo")) return fault->code;
  return target_->GetClusterInfo(info);
}

bool ConfigStoreDouble::GetOrvaIscsiServiceEnabled(bool* enabled) {
  if (auto fault = Enter("GetOrvaIscsiServiceEnabled")) fault->Throw();
  return target_->GetOrvaIscsiServiceEnabled(enabled);
}

void ConfigStoreDouble::SetOrvaIscsiServiceEnabled(bool enabled) {
  if (auto fault = Enter("SetOrvaIscsiServiceEnabled", enabled)) fault->Throw();
  target_->SetOrvaIscsiServiceEnabled(enabled);
}

bool ConfigStoreDouble::GetOrvaIscsiDefaultConfig(DefaultInfo* info) {
  if (auto fault = Enter("GetOrvaIscsiDefaultConfig")) fault->Throw();
  return target_->GetOrvaIscsiDefaultConfig(info);
}

void ConfigStoreDouble::SetOrvaIscsiDefaultConfig(const DefaultInfo& info) {
  if (auto fault = Enter("SetOrvaIscsiDefaultConfig", info.networkInterface)) fault->Throw();
  target_->SetOrvaIscsiDefaultConfig(info);
}

NOK_ReturnStatus PolicyServiceDouble::Init() {
  if (auto fault = Enter("Init")) return fault->code;
  return target_->Init();
}

void PolicyServiceDouble::Deinit() {
  if (!Enter("Deinit")) target_->Deinit();
}

platform::PolicyStatus PolicyServiceDouble::GetObjectPolicyStatus(const std::string& objectUuid) {
  if (auto fault = Enter("GetObjectPolicyStatus", objectUuid)) fault->Throw();
  return target_->GetObjectPolicyStatus(objectUuid);
}

NOK_ReturnStatus DiskLibraryDouble::Init() {
  if (auto fault = Enter("Init")) return fault->code;
  return target_->Init();
}

void DiskLibraryDouble::Exit() {
  if (!Enter("Exit")) target_->Exit();
}

std::string NamespacesDouble::CreateNamespace(const std::string& root, const std::string& name,
                                              const std::string& policy, uint64_t size) {
  if (auto fault = Enter("CreateNamespace", name, policy)) fault->Throw();
  return target_->CreateNamespace(root, name, policy, size);
}

void NamespacesDouble::DeleteNamespace(const std::string& root, const std::string& name) {
  if (auto fault = Enter("DeleteNamespace", name)) fault->Throw();
  target_->DeleteNamespace(root, name);
}

void NamespacesDouble::UpdateNamespace(const std::string& root, const std::string& name,
                                       const std::string& policy) {
  if (auto fault = Enter("UpdateNamespace", name, policy)) fault->Throw();
  target_->UpdateNamespace(root, name, policy);
}

std::vector<std::string> NetworkInterfacesDouble::GetNokKernelNicNames() {
  if (auto fault = Enter("GetNokKernelNicNames")) fault->Throw();
  return target_->GetNokKernelNicNames();
}

platform::NokNicState NetworkInterfacesDouble::GetNokKernelNicState(const std::string& name) {
  if (auto fault = Enter("GetNokKernelNicState", name)) {
    return static_cast<platform::NokNicState>(fault->code);
  }
  return target_->GetNokKernelNicState(name);
}

void NetworkInterfacesDouble::GetPreferredZelNetworkAddressForNokNic(const std::string& name,
                                                                     std::string* ipv4,
                                                                     std::string* ipv6) {
  if (auto fault = Enter("GetPreferredZelNetworkAddressForNokNic", name)) fault->Throw();
  target_->GetPreferredZelNetworkAddressForNokNic(name, ipv4, ipv6);
}

int CommandRunnerDouble::Exec(const std::vector<std::string>& argv) {
  std::string arguments;
  for (size_t i = 1; i < argv.size(); ++i) arguments += (i > 1 ? " " : "") + argv[i];
  const std::string program = argv.empty() ? "" : argv[0];
  if (auto fault = argv.size() > 1 ? Enter(program, arguments) : Enter(program)) {
    return fault->code;
  }
  return target_->Exec(argv);
}

bool KernelModulesDouble::ModuleIsLoaded(const std::string& name) {
  if (Enter("ModuleIsLoaded", name)) return false;
  return target_->ModuleIsLoaded(name);
}

NOK_ReturnStatus KernelModulesDouble::ModuleLoad(const std::string& name) {
  if (auto fault = Enter("ModuleLoad", name)) return fault->code;
  return target_->ModuleLoad(name);
}

NOK_ReturnStatus KernelModulesDouble::ModuleUnload(const std::string& name) {
  if (auto fault = Enter("ModuleUnload", name)) return fault->code;
  return target_->ModuleUnload(name);
}

NOK_ReturnStatus FirewallDouble::FirewallRulesetSetStatus(const std::string& ruleset,
                                                          bool enabled) {
  if (auto fault = Enter("FirewallRulesetSetStatus", ruleset, enabled)) return fault->code;
  return target_->FirewallRulesetSetStatus(ruleset, enabled);
}

NOK_ReturnStatus KernelOptionsDouble::GetIntOption(const std::string& component,
                                                   const std::string& field, int* value) {
  if (auto fault = Enter("GetIntOption", component, field)) return fault->code;
  return target_->GetIntOption(component, field, value);
}

bool LegacyConfigDouble::HasValue(const std::string& key) {
  if (auto fault = Enter("HasValue", key)) fault->Throw();
  return target_->HasValue(key);
}

bool LegacyConfigDouble::GetBool(const std::string& key) {
  if (auto fault = Enter("GetBool", key)) fault->Throw();
  return target_->GetBool(key);
}

void LegacyConfigDouble::SetBool(const std::string& key, bool value) {
  if (auto fault = Enter("SetBool", key, value)) fault->Throw();
  target_->SetBool(key, value);
}

#define ZEL_ATTACH(Service, Setter)                                              \
  void Attach(platform::Host& host, std::unique_ptr<platform::Service> service) { \
    host.Setter(std::move(service));                                             \
  }
ZEL_ATTACH(Directory, SetDirectory)
ZEL_ATTACH(ClusterFacts, SetCluster)
ZEL_ATTACH(ConfigStore, SetStore)
ZEL_ATTACH(PolicyService, SetPolicies)
ZEL_ATTACH(DiskLibrary, SetDisks)
ZEL_ATTACH(Namespaces, SetNamespaces)
ZEL_ATTACH(NetworkInterfaces, SetNics)
ZEL_ATTACH(CommandRunner, SetCommands)
ZEL_ATTACH(KernelModules, SetModules)
ZEL_ATTACH(Firewall, SetFirewall)
ZEL_ATTACH(KernelOptions, SetOptions)
ZEL_ATTACH(LegacyConfigFile, SetLegacyConfig)
#undef ZEL_ATTACH

}  // namespace test
}  // namespace zel
