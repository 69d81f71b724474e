// One double per host service, after the pattern of an environment wrapper:
// each forwards every call to a target (a local backend or an in-memory
// fake), records it and answers scripted faults (CallScript). A test
// overrides only the calls it cares about, by a subclass or a Before hook;
// ScopedTestHost::Install puts a double into the test host. A faulted call
// never reaches the target: a status call returns the fault's code, a
// throwing call throws its message, an update completes with the code, a
// faulted Subscribe returns handle 1 and a faulted ModuleIsLoaded false.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/Host.h"
#include "support/CallScript.h"

namespace zel {
namespace test {

template <typename S>
class Forwarding : public S, public CallScript {
 public:
  using Service = S;
  explicit Forwarding(std::unique_ptr<S> target) : target_(std::move(target)) {}
  S& Target() { return *target_; }

 protected:
  std::unique_ptr<S> target_;
};

#define ZEL_STATUS(call, ...) \
  if (auto fault = Enter(#call, ##__VA_ARGS__)) return fault->code
#define ZEL_THROW(call, ...) \
  if (auto fault = Enter(#call, ##__VA_ARGS__)) fault->Throw()

class DirectoryDouble : public Forwarding<platform::Directory> {
 public:
  using Forwarding::Forwarding;
  using Entries = std::vector<platform::DirectoryEntry>;
  NOK_ReturnStatus Query(uint32_t type, const std::string& key, Entries* entries) override {
    if (auto fault = Enter("Query", type, key)) return entries->clear(), fault->code;
    return target_->Query(type, key, entries);
  }
  NOK_ReturnStatus QueryByHost(uint32_t type, const std::string& host, Entries* entries) override {
    if (auto fault = Enter("QueryByHost", type, host)) return entries->clear(), fault->code;
    return target_->QueryByHost(type, host, entries);
  }
  void AsyncUpdate(const platform::DirectoryEntry& entry, UpdatePredicate accept,
                   Completion done) override {
    if (auto fault = Enter("AsyncUpdate", entry.type, entry.key, entry.entryId)) {
      if (done) done(fault->code, nullptr);
      return;
    }
    target_->AsyncUpdate(entry, std::move(accept), std::move(done));
  }
  NOK_ReturnStatus Delete(uint32_t type, const std::string& key, const std::string& id) override {
    ZEL_STATUS(Delete, type, key, id);
    return target_->Delete(type, key, id);
  }
  SubscriptionHandle Subscribe(uint32_t type, const std::string& key, Callback callback) override {
    if (Enter("Subscribe", type, key)) return 1;
    return target_->Subscribe(type, key, std::move(callback));
  }
  void Unsubscribe(SubscriptionHandle handle) override {
    if (!Enter("Unsubscribe", handle)) target_->Unsubscribe(handle);
  }
};

// Every call fails with `status`, as a directory whose connection is gone.
class UnreachableDirectory final : public DirectoryDouble {
 public:
  explicit UnreachableDirectory(NOK_ReturnStatus status);
};

// Writes `entry` unconditionally and returns the completion's status.
NOK_ReturnStatus PublishAndWait(platform::Directory& directory,
                                const platform::DirectoryEntry& entry);

class ClusterFactsDouble : public Forwarding<platform::ClusterFacts> {
 public:
  using Forwarding::Forwarding;
  std::string LocalHostUuid() override { return Enter("LocalHostUuid"), target_->LocalHostUuid(); }
  NOK_ReturnStatus GetClusterInfo(platform::ClusterInfo* info) override {
    ZEL_STATUS(GetClusterInfo);
    return target_->GetClusterInfo(info);
  }
};

class ConfigStoreDouble : public Forwarding<platform::ConfigStore> {
 public:
  using Forwarding::Forwarding;
  using DefaultInfo = HostCtl::Orva::IscsiTarget::DefaultInfo;
  bool GetOrvaIscsiServiceEnabled(bool* enabled) override {
    ZEL_THROW(GetOrvaIscsiServiceEnabled);
    return target_->GetOrvaIscsiServiceEnabled(enabled);
  }
  void SetOrvaIscsiServiceEnabled(bool enabled) override {
    ZEL_THROW(SetOrvaIscsiServiceEnabled, enabled);
    target_->SetOrvaIscsiServiceEnabled(enabled);
  }
  bool GetOrvaIscsiDefaultConfig(DefaultInfo* info) override {
    ZEL_THROW(GetOrvaIscsiDefaultConfig);
    return target_->GetOrvaIscsiDefaultConfig(info);
  }
  void SetOrvaIscsiDefaultConfig(const DefaultInfo& info) override {
    ZEL_THROW(SetOrvaIscsiDefaultConfig, info.networkInterface);
    target_->SetOrvaIscsiDefaultConfig(info);
  }
};

class PolicyServiceDouble : public Forwarding<platform::PolicyService> {
 public:
  using Forwarding::Forwarding;
  NOK_ReturnStatus Init() override { ZEL_STATUS(Init); return target_->Init(); }
  void Deinit() override { if (!Enter("Deinit")) target_->Deinit(); }
  platform::PolicyStatus GetObjectPolicyStatus(const std::string& uuid) override {
    ZEL_THROW(GetObjectPolicyStatus, uuid);
    return target_->GetObjectPolicyStatus(uuid);
  }
};

class DiskLibraryDouble : public Forwarding<platform::DiskLibrary> {
 public:
  using Forwarding::Forwarding;
  NOK_ReturnStatus Init() override { ZEL_STATUS(Init); return target_->Init(); }
  void Exit() override { if (!Enter("Exit")) target_->Exit(); }
};

class NamespacesDouble : public Forwarding<platform::Namespaces> {
 public:
  using Forwarding::Forwarding;
  std::string CreateNamespace(const std::string& root, const std::string& name,
                              const std::string& policy, uint64_t size) override {
    ZEL_THROW(CreateNamespace, name, policy);
    return target_->CreateNamespace(root, name, policy, size);
  }
  void DeleteNamespace(const std::string& root, const std::string& name) override {
    ZEL_THROW(DeleteNamespace, name);
    target_->DeleteNamespace(root, name);
  }
  void UpdateNamespace(const std::string& root, const std::string& name,
                       const std::string& policy) override {
    ZEL_THROW(UpdateNamespace, name, policy);
    target_->UpdateNamespace(root, name, policy);
  }
};

class NetworkInterfacesDouble : public Forwarding<platform::NetworkInterfaces> {
 public:
  using Forwarding::Forwarding;
  std::vector<std::string> GetNokKernelNicNames() override {
    ZEL_THROW(GetNokKernelNicNames);
    return target_->GetNokKernelNicNames();
  }
  platform::NokNicState GetNokKernelNicState(const std::string& name) override {
    if (auto fault = Enter("GetNokKernelNicState", name)) {
      return static_cast<platform::NokNicState>(fault->code);
    }
    return target_->GetNokKernelNicState(name);
  }
  void GetPreferredZelNetworkAddressForNokNic(const std::string& name, std::string* ipv4,
                                              std::string* ipv6) override {
    ZEL_THROW(GetPreferredZelNetworkAddressForNokNic, name);
    target_->GetPreferredZelNetworkAddressForNokNic(name, ipv4, ipv6);
  }
};

// A call is named by its program (argv[0]) and recorded as its command line.
class CommandRunnerDouble : public Forwarding<platform::CommandRunner> {
 public:
  using Forwarding::Forwarding;
  int Exec(const std::vector<std::string>& argv) override;
};

class KernelModulesDouble : public Forwarding<platform::KernelModules> {
 public:
  using Forwarding::Forwarding;
  bool ModuleIsLoaded(const std::string& name) override {
    return !Enter("ModuleIsLoaded", name) && target_->ModuleIsLoaded(name);
  }
  NOK_ReturnStatus ModuleLoad(const std::string& name) override {
    ZEL_STATUS(ModuleLoad, name);
    return target_->ModuleLoad(name);
  }
  NOK_ReturnStatus ModuleUnload(const std::string& name) override {
    ZEL_STATUS(ModuleUnload, name);
    return target_->ModuleUnload(name);
  }
};

class FirewallDouble : public Forwarding<platform::Firewall> {
 public:
  using Forwarding::Forwarding;
  NOK_ReturnStatus FirewallRulesetSetStatus(const std::string& ruleset, bool enabled) override {
    ZEL_STATUS(FirewallRulesetSetStatus, ruleset, enabled);
    return target_->FirewallRulesetSetStatus(ruleset, enabled);
  }
};

class KernelOptionsDouble : public Forwarding<platform::KernelOptions> {
 public:
  using Forwarding::Forwarding;
  NOK_ReturnStatus GetIntOption(const std::string& component, const std::string& field,
                                int* value) override {
    ZEL_STATUS(GetIntOption, component, field);
    return target_->GetIntOption(component, field, value);
  }
};

class LegacyConfigDouble : public Forwarding<platform::LegacyConfigFile> {
 public:
  using Forwarding::Forwarding;
  bool HasValue(const std::string& key) override {
    ZEL_THROW(HasValue, key);
    return target_->HasValue(key);
  }
  bool GetBool(const std::string& key) override {
    ZEL_THROW(GetBool, key);
    return target_->GetBool(key);
  }
  void SetBool(const std::string& key, bool value) override {
    ZEL_THROW(SetBool, key, value);
    target_->SetBool(key, value);
  }
};

#undef ZEL_STATUS
#undef ZEL_THROW

// Puts a service into `host`, one overload per service.
void Attach(platform::Host& host, std::unique_ptr<platform::Directory> service);
void Attach(platform::Host& host, std::unique_ptr<platform::ClusterFacts> service);
void Attach(platform::Host& host, std::unique_ptr<platform::ConfigStore> service);
void Attach(platform::Host& host, std::unique_ptr<platform::PolicyService> service);
void Attach(platform::Host& host, std::unique_ptr<platform::DiskLibrary> service);
void Attach(platform::Host& host, std::unique_ptr<platform::Namespaces> service);
void Attach(platform::Host& host, std::unique_ptr<platform::NetworkInterfaces> service);
void Attach(platform::Host& host, std::unique_ptr<platform::CommandRunner> service);
void Attach(platform::Host& host, std::unique_ptr<platform::KernelModules> service);
void Attach(platform::Host& host, std::unique_ptr<platform::Firewall> service);
void Attach(platform::Host& host, std::unique_ptr<platform::KernelOptions> service);
void Attach(platform::Host& host, std::unique_ptr<platform::LegacyConfigFile> service);

}  // namespace test
}  // namespace zel
