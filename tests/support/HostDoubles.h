// One double per host service, after the pattern of an environment wrapper:
// each forwards every call to a target (usually the local backend or an
// in-memory fake), records it and answers scripted faults (CallScript). A
// test overrides only the calls it cares about, by subclassing or by a
// Before hook. ScopedTestHost::Install puts a double into the test host.
// A faulted call never reaches the target: a status call returns the fault's
// code, a throwing call throws its message, a directory update completes
// with it, and a faulted Subscribe returns handle 1 without subscribing.
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

class DirectoryDouble : public Forwarding<platform::Directory> {
 public:
  using Forwarding::Forwarding;
  NOK_ReturnStatus Query(uint32_t type, const std::string& key,
                         std::vector<platform::DirectoryEntry>* entries) override;
  NOK_ReturnStatus QueryByHost(uint32_t type, const std::string& host,
                               std::vector<platform::DirectoryEntry>* entries) override;
  void AsyncUpdate(const platform::DirectoryEntry& entry, UpdatePredicate accept,
                   Completion done) override;
  NOK_ReturnStatus Delete(uint32_t type, const std::string& key,
                          const std::string& entryId) override;
  SubscriptionHandle Subscribe(uint32_t type, const std::string& key, Callback callback) override;
  void Unsubscribe(SubscriptionHandle handle) override;
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
  std::string LocalHostUuid() override;
  NOK_ReturnStatus GetClusterInfo(platform::ClusterInfo* info) override;
};

class ConfigStoreDouble : public Forwarding<platform::ConfigStore> {
 public:
  using Forwarding::Forwarding;
  bool GetOrvaIscsiServiceEnabled(bool* enabled) override;
  void SetOrvaIscsiServiceEnabled(bool enabled) override;
  bool GetOrvaIscsiDefaultConfig(HostCtl::Orva::IscsiTarget::DefaultInfo* info) override;
  void SetOrvaIscsiDefaultConfig(const HostCtl::Orva::IscsiTarget::DefaultInfo& info) override;
};

class PolicyServiceDouble : public Forwarding<platform::PolicyService> {
 public:
  using Forwarding::Forwarding;
  NOK_ReturnStatus Init() override;
  void Deinit() override;
  platform::PolicyStatus GetObjectPolicyStatus(const std::string& objectUuid) override;
};

class DiskLibraryDouble : public Forwarding<platform::DiskLibrary> {
 public:
  using Forwarding::Forwarding;
  NOK_ReturnStatus Init() override;
  void Exit() override;
};

class NamespacesDouble : public Forwarding<platform::Namespaces> {
 public:
  using Forwarding::Forwarding;
  std::string CreateNamespace(const std::string& root, const std::string& name,
                              const std::string& policy, uint64_t size) override;
  void DeleteNamespace(const std::string& root, const std::string& name) override;
  void UpdateNamespace(const std::string& root, const std::string& name,
                       const std::string& policy) override;
};

class NetworkInterfacesDouble : public Forwarding<platform::NetworkInterfaces> {
 public:
  using Forwarding::Forwarding;
  std::vector<std::string> GetNokKernelNicNames() override;
  platform::NokNicState GetNokKernelNicState(const std::string& name) override;
  void GetPreferredZelNetworkAddressForNokNic(const std::string& name, std::string* ipv4,
                                              std::string* ipv6) override;
};

// A call is named by its program (argv[0]) and recorded as the command line.
class CommandRunnerDouble : public Forwarding<platform::CommandRunner> {
 public:
  using Forwarding::Forwarding;
  int Exec(const std::vector<std::string>& argv) override;
};

class KernelModulesDouble : public Forwarding<platform::KernelModules> {
 public:
  using Forwarding::Forwarding;
  bool ModuleIsLoaded(const std::string& name) override;  // a fault answers "not loaded"
  NOK_ReturnStatus ModuleLoad(const std::string& name) override;
  NOK_ReturnStatus ModuleUnload(const std::string& name) override;
};

class FirewallDouble : public Forwarding<platform::Firewall> {
 public:
  using Forwarding::Forwarding;
  NOK_ReturnStatus FirewallRulesetSetStatus(const std::string& ruleset, bool enabled) override;
};

class KernelOptionsDouble : public Forwarding<platform::KernelOptions> {
 public:
  using Forwarding::Forwarding;
  NOK_ReturnStatus GetIntOption(const std::string& component, const std::string& field,
                                int* value) override;
};

class LegacyConfigDouble : public Forwarding<platform::LegacyConfigFile> {
 public:
  using Forwarding::Forwarding;
  bool HasValue(const std::string& key) override;
  bool GetBool(const std::string& key) override;
  void SetBool(const std::string& key, bool value) override;
};

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
