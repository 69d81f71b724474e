// One double per host service: each forwards every call to a target (a local
// backend or an in-memory fake below), records it as one line "Call arg ..."
// (in its own list, and in a Journal shared by several doubles when a test
// wants the order across services) and answers scripted faults instead of
// the target: "the next 2 calls of Delete fail with NOK_IO_ERROR". A fault is
// keyed by a call name ("ModuleLoad") or a whole line ("ModuleLoad zel"); a
// whole line wins. A fault scripted with a message throws it as
// OrvaCtlException; one scripted with a code is the call's result (a void
// call just returns, an update completes with it, a call returning neither a
// number nor a status throws the code's text). A test overrides other calls
// by a Before hook. Attach (or ScopedTestHost::Install) puts a double into a
// host. Thread-safe.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/Host.h"

namespace zel::test {

struct Fault {
  int code = 0;
  std::string message;
  [[noreturn]] void Throw() const;
};

class CallScript {
 public:
  static constexpr int kAlways = -1;
  // The next `times` calls matching `key` (every one with kAlways) answer
  // the fault without reaching the target; later calls go through.
  void FailNext(const std::string& key, int code, int times = 1) { Script(key, {code, ""}, times); }
  void FailNext(const std::string& key, const std::string& message, int times = 1) {
    Script(key, {0, message}, times);
  }
  // Drops the faults still pending for `key`.
  void Heal(const std::string& key);
  // Every later call matching `key` answers `code`; 0 lets them through.
  void AnswerAlways(const std::string& key, int code) {
    Heal(key);
    if (code != 0) FailNext(key, code, kAlways);
  }
  // The `n`th call recorded from now on (1: the next), whatever its name,
  // answers `code`: a sweep fails each call of an operation in turn. Set on
  // a journal, it counts and fails the calls of every double writing to it.
  void FailCallNumber(int n, int code) {
    std::lock_guard<std::mutex> guard(mutex_);
    failAt_ = static_cast<int>(calls_.size()) + n;
    failCode_ = code;
  }
  // Runs `hook` at every later call named `call`, before its fault or target.
  void Before(const std::string& call, std::function<void()> hook);
  // Every call so far, in order; how many were named `call`.
  std::vector<std::string> Calls() const;
  int Count(const std::string& call) const;
  // Records every later call in `journal` too (its Calls() give the order
  // across several doubles).
  void JournalInto(CallScript* journal);

 protected:
  // Records the call and returns the fault that answers it, if any.
  template <typename... Args>
  std::optional<Fault> Enter(const std::string& call, const Args&... args) {
    std::ostringstream line;
    line << std::boolalpha << call;
    ((line << ' ' << args), ...);
    return Record(call, line.str());
  }
  template <typename R>
  static R Answer(const Fault& fault) {
    if constexpr (std::is_void_v<R>) {
      if (fault.message.empty()) return;
    } else if constexpr (std::is_arithmetic_v<R> || std::is_enum_v<R>) {
      if (fault.message.empty()) return static_cast<R>(fault.code);
    } else if constexpr (std::is_same_v<R, platform::DiskError>) {
      if (fault.message.empty()) {
        return {static_cast<platform::DiskErrorCode>(fault.code), "Scripted disk failure"};
      }
    }
    fault.Throw();
  }

 private:
  std::optional<Fault> Record(const std::string& call, const std::string& line);
  void Script(const std::string& key, const Fault& fault, int times);

  mutable std::mutex mutex_;
  std::vector<std::pair<std::string, std::string>> calls_;  // (name, line)
  std::map<std::string, std::deque<Fault>> pending_;
  std::map<std::string, Fault> always_;
  std::map<std::string, std::function<void()>> hooks_;
  CallScript* journal_ = nullptr;
  int failAt_ = 0;  // the number of the call FailCallNumber fails; 0: none
  int failCode_ = 0;
};

using Journal = CallScript;

// The base of the doubles: `Setter` puts the service into a Host.
template <typename S, void (platform::Host::*Setter)(std::unique_ptr<S>)>
class Forwarding : public S, public CallScript {
 public:
  using Service = S;
  static constexpr auto kSetter = Setter;
  explicit Forwarding(std::unique_ptr<S> target) : target_(std::move(target)) {}
  S& Target() { return *target_; }

 protected:
  std::unique_ptr<S> target_;
};

// Puts `double_` into `host` as its service and returns it.
template <typename Double>
Double& Attach(platform::Host& host, std::unique_ptr<Double> double_) {
  Double& attached = *double_;
  (host.*Double::kSetter)(std::move(double_));
  return attached;
}

// A forwarding method; the arguments after `Args` are the ones recorded.
#define ZEL_FORWARD(Ret, Name, Params, Args, ...)                              \
  Ret Name Params override {                                                  \
    if (auto fault = Enter(#Name, ##__VA_ARGS__)) return Answer<Ret>(*fault); \
    return target_->Name Args;                                                \
  }
#define ZEL_DOUBLE(Double, Service, Setter)                                       \
  class Double : public Forwarding<platform::Service, &platform::Host::Setter> { \
   public:                                                                        \
    using Forwarding::Forwarding;
using Str = const std::string&;

ZEL_DOUBLE(DirectoryDouble, Directory, SetDirectory)
  using Entries = std::vector<platform::DirectoryEntry>;
  ZEL_FORWARD(NOK_ReturnStatus, Query, (uint32_t type, Str key, Entries* out), (type, key, out),
              type, key)
  ZEL_FORWARD(NOK_ReturnStatus, QueryByHost, (uint32_t type, Str host, Entries* out),
              (type, host, out), type, host)
  ZEL_FORWARD(NOK_ReturnStatus, Delete, (uint32_t type, Str key, Str id), (type, key, id), type,
              key, id)
  ZEL_FORWARD(SubscriptionHandle, Subscribe, (uint32_t type, Str key, Callback callback),
              (type, key, std::move(callback)), type, key)
  ZEL_FORWARD(void, Unsubscribe, (SubscriptionHandle handle), (handle), handle)
  ZEL_FORWARD(NOK_ReturnStatus, GrantLease, (int ttl, LeaseId* lease), (ttl, lease), ttl)
  ZEL_FORWARD(NOK_ReturnStatus, RenewLease, (LeaseId lease), (lease), lease)
  ZEL_FORWARD(NOK_ReturnStatus, RevokeLease, (LeaseId lease), (lease), lease)
  void AsyncUpdate(const platform::DirectoryEntry& entry, UpdatePredicate accept,
                   Completion done) override;
};

ZEL_DOUBLE(ClusterFactsDouble, ClusterFacts, SetCluster)
  ZEL_FORWARD(std::string, LocalHostUuid, (), ())
  ZEL_FORWARD(NOK_ReturnStatus, GetClusterInfo, (platform::ClusterInfo * info), (info))
  ZEL_FORWARD(NOK_ReturnStatus, SetMaintenance, (bool maintenance), (maintenance), maintenance)
  ZEL_FORWARD(NOK_ReturnStatus, RenewMembership, (int ttl), (ttl), ttl)
  ZEL_FORWARD(NOK_ReturnStatus, GetPreferredFaultDomain, (std::string * name), (name))
  ZEL_FORWARD(NOK_ReturnStatus, SetPreferredFaultDomain, (Str name), (name), name)
};

ZEL_DOUBLE(ConfigStoreDouble, ConfigStore, SetStore)
  using DefaultInfo = HostCtl::Orva::IscsiTarget::DefaultInfo;
  ZEL_FORWARD(bool, GetOrvaIscsiServiceEnabled, (bool* enabled), (enabled))
  ZEL_FORWARD(void, SetOrvaIscsiServiceEnabled, (bool enabled), (enabled), enabled)
  ZEL_FORWARD(bool, GetOrvaIscsiDefaultConfig, (DefaultInfo * info), (info))
  ZEL_FORWARD(void, SetOrvaIscsiDefaultConfig, (const DefaultInfo& info), (info),
              info.networkInterface)
};

ZEL_DOUBLE(PolicyServiceDouble, PolicyService, SetPolicies)
  ZEL_FORWARD(NOK_ReturnStatus, Init, (), ())
  ZEL_FORWARD(void, Deinit, (), ())
  ZEL_FORWARD(platform::PolicyStatus, GetObjectPolicyStatus, (Str uuid), (uuid), uuid)
};

// A fault scripted with a code answers a DiskError of that DiskErrorCode.
ZEL_DOUBLE(DiskLibraryDouble, DiskLibrary, SetDisks)
  using Handle = std::unique_ptr<platform::DiskHandle>;
  using DiskError = platform::DiskError;
  ZEL_FORWARD(NOK_ReturnStatus, Init, (), ())
  ZEL_FORWARD(void, Exit, (), ())
  ZEL_FORWARD(void, CreateVirtualDisk, (Str path, uint64_t sectors, Str policy),
              (path, sectors, policy), path, sectors, policy)
  ZEL_FORWARD(void, RemoveVirtualDisk, (Str path), (path), path)
  ZEL_FORWARD(void, UpdateVirtualDiskPolicy, (Str path, Str policy), (path, policy), path, policy)
  ZEL_FORWARD(DiskError, Open, (Str path, uint32_t flags, Handle* handle, platform::DiskInfo* info),
              (path, flags, handle, info), path, flags)
  ZEL_FORWARD(DiskError, Rename, (Str from, Str to), (from, to), from, to)
  ZEL_FORWARD(DiskError, Grow, (Str path, uint64_t sectors), (path, sectors), path, sectors)
  ZEL_FORWARD(DiskError, GetExtParam, (Str path, Str name, std::string* value),
              (path, name, value), path, name)
  ZEL_FORWARD(DiskError, SetExtParam, (Str path, Str name, Str value), (path, name, value), path,
              name, value)
};

ZEL_DOUBLE(NamespacesDouble, Namespaces, SetNamespaces)
  ZEL_FORWARD(std::string, CreateNamespace, (Str root, Str name, Str policy, uint64_t size),
              (root, name, policy, size), name, policy)
  ZEL_FORWARD(void, DeleteNamespace, (Str root, Str name), (root, name), name)
  ZEL_FORWARD(void, UpdateNamespace, (Str root, Str name, Str policy), (root, name, policy), name,
              policy)
};

ZEL_DOUBLE(NetworkInterfacesDouble, NetworkInterfaces, SetNics)
  ZEL_FORWARD(std::vector<std::string>, GetNokKernelNicNames, (), ())
  ZEL_FORWARD(platform::NokNicState, GetNokKernelNicState, (Str name), (name), name)
  ZEL_FORWARD(void, GetPreferredZelNetworkAddressForNokNic,
              (Str name, std::string * ipv4, std::string * ipv6), (name, ipv4, ipv6), name)
};

// A call is named by its program (argv[0]) and recorded as its command line.
ZEL_DOUBLE(CommandRunnerDouble, CommandRunner, SetCommands)
  int Exec(const std::vector<std::string>& argv) override;
};

ZEL_DOUBLE(KernelModulesDouble, KernelModules, SetModules)
  ZEL_FORWARD(bool, ModuleIsLoaded, (Str name), (name), name)
  ZEL_FORWARD(NOK_ReturnStatus, ModuleLoad, (Str name), (name), name)
  ZEL_FORWARD(NOK_ReturnStatus, ModuleUnload, (Str name), (name), name)
};

ZEL_DOUBLE(FirewallDouble, Firewall, SetFirewall)
  ZEL_FORWARD(NOK_ReturnStatus, FirewallRulesetSetStatus, (Str ruleset, bool enabled),
              (ruleset, enabled), ruleset, enabled)
};

ZEL_DOUBLE(KernelOptionsDouble, KernelOptions, SetOptions)
  ZEL_FORWARD(NOK_ReturnStatus, GetIntOption, (Str component, Str field, int* value),
              (component, field, value), component, field)
};

ZEL_DOUBLE(LegacyConfigDouble, LegacyConfigFile, SetLegacyConfig)
  ZEL_FORWARD(bool, HasValue, (Str key), (key), key)
  ZEL_FORWARD(bool, GetBool, (Str key), (key), key)
  ZEL_FORWARD(void, SetBool, (Str key, bool value), (key, value), key, value)
};

ZEL_DOUBLE(ObjectManagerDouble, ObjectManager, SetObjects)
  ZEL_FORWARD(NOK_ReturnStatus, TransferOwnership, (Str object, Str from, Str to),
              (object, from, to), object, from, to)
};

#undef ZEL_FORWARD
#undef ZEL_DOUBLE

// Every call fails with `status`, as a directory whose connection is gone.
class UnreachableDirectory final : public DirectoryDouble {
 public:
  explicit UnreachableDirectory(NOK_ReturnStatus status);
};

// Writes `entry` unconditionally and returns the completion's status.
NOK_ReturnStatus PublishAndWait(platform::Directory& directory,
                                const platform::DirectoryEntry& entry);

// ---- In-memory targets --------------------------------------------------

// Unscripted commands exit 0; Calls() and CommandLines() give each command
// line run. SetExitCode: every later run of `command` (a whole line or a
// program) exits with `code`.
class ScriptedCommandRunner final : public CommandRunnerDouble {
 public:
  ScriptedCommandRunner();
  void SetExitCode(const std::string& command, int code) { AnswerAlways(command, code); }
  std::vector<std::string> CommandLines() const { return Calls(); }
};

// Names switched on and off: loaded modules, enabled rulesets (false when
// never set); they change only when a call succeeds.
struct Switches final : platform::KernelModules, platform::Firewall {
  bool Get(const std::string& name) {
    std::lock_guard<std::mutex> guard(mutex);
    return on[name];
  }
  NOK_ReturnStatus Set(const std::string& name, bool value) {
    std::lock_guard<std::mutex> guard(mutex);
    on[name] = value;
    return NOK_OK;
  }
  bool ModuleIsLoaded(Str name) override { return Get(name); }
  NOK_ReturnStatus ModuleLoad(Str name) override { return Set(name, true); }
  NOK_ReturnStatus ModuleUnload(Str name) override { return Set(name, false); }
  NOK_ReturnStatus FirewallRulesetSetStatus(Str name, bool enabled) override {
    return Set(name, enabled);
  }

  std::mutex mutex;
  std::map<std::string, bool> on;
};

class FakeKernelModules final : public KernelModulesDouble {
 public:
  FakeKernelModules() : KernelModulesDouble(std::make_unique<Switches>()) {}
  void SetLoaded(Str name, bool loaded) { static_cast<Switches&>(Target()).Set(name, loaded); }
  // Later loads (unloads) of `name` answer `status`.
  void SetLoadResult(Str name, NOK_ReturnStatus status) { AnswerAlways("ModuleLoad " + name, status); }
  void SetUnloadResult(Str name, NOK_ReturnStatus status) {
    AnswerAlways("ModuleUnload " + name, status);
  }
};

class FakeFirewall final : public FirewallDouble {
 public:
  FakeFirewall() : FirewallDouble(std::make_unique<Switches>()) {}
  void SetResult(NOK_ReturnStatus status) { AnswerAlways("FirewallRulesetSetStatus", status); }
  bool IsEnabled(Str ruleset) { return static_cast<Switches&>(Target()).Get(ruleset); }
};

struct FakeHostControl {
  ScriptedCommandRunner* commands;
  FakeKernelModules* modules;
  FakeFirewall* firewall;
};

// Installs the three on the selected host, which owns them.
FakeHostControl InstallFakeHostControl();

// The host's interfaces as a table in the order their names were first
// added. An interface that is not there is listed nowhere, NOKNIC_NONE and
// without addresses.
class FakeNetworkInterfaces final : public NetworkInterfacesDouble {
 public:
  FakeNetworkInterfaces();
  // Adds `name` or replaces its state and addresses in its place.
  void Set(Str name, platform::NokNicState state, Str ipv4 = "", Str ipv6 = "");
  // REQUIRES: `name` was added.
  void SetState(Str name, platform::NokNicState state);
  void SetAddresses(Str name, Str ipv4, Str ipv6);
  void Remove(Str name);
  // While set, listing the names or addresses throws `message`, as the local
  // backend does when the system refuses the list; "" lifts the fault.
  void FailListing(Str message);
};

// Installs a FakeNetworkInterfaces on the selected host, which owns it.
FakeNetworkInterfaces* InstallFakeNetworkInterfaces();

// A cluster of which this host (`hostUuid`) is a member; GetClusterInfo
// answers `info`.
struct FixedCluster final : platform::ClusterFacts {
  explicit FixedCluster(std::string uuid = "11111111-2222-4333-8444-555555555555")
      : hostUuid(std::move(uuid)) {
    info.isMember = true;
  }
  // `count` members, the first `sited` of them in a named fault domain.
  void SetMembers(int count, int sited = 0) {
    info.members.clear();
    for (int i = 0; i < count; ++i) {
      info.members.push_back({"host-" + std::to_string(i), "h" + std::to_string(i),
                              i < sited ? "Preferred" : ""});
    }
  }
  std::string LocalHostUuid() override { return hostUuid; }
  NOK_ReturnStatus GetClusterInfo(platform::ClusterInfo* answer) override {
    *answer = info;
    return NOK_OK;
  }
  NOK_ReturnStatus SetMaintenance(bool maintenance) override {
    for (platform::ClusterMember& member : info.members) {
      if (member.hostUuid == hostUuid) member.maintenance = maintenance;
    }
    return NOK_OK;
  }
  NOK_ReturnStatus RenewMembership(int) override {
    for (platform::ClusterMember& member : info.members) {
      if (member.hostUuid == hostUuid) member.alive = true;
    }
    return NOK_OK;
  }
  NOK_ReturnStatus GetPreferredFaultDomain(std::string* name) override {
    *name = preferredFaultDomain;
    return NOK_OK;
  }
  NOK_ReturnStatus SetPreferredFaultDomain(const std::string& name) override {
    preferredFaultDomain = name;
    return NOK_OK;
  }

  std::string hostUuid;
  platform::ClusterInfo info;
  std::string preferredFaultDomain;
};

// Compliant objects with the policies by object UUID; an unknown object throws.
struct FixedPolicies final : platform::PolicyService {
  explicit FixedPolicies(std::map<std::string, std::string> byObject)
      : policies(std::move(byObject)) {}
  NOK_ReturnStatus Init() override { return NOK_OK; }
  void Deinit() override {}
  platform::PolicyStatus GetObjectPolicyStatus(Str uuid) override {
    return {policies.at(uuid), platform::Compliance::Compliant, ""};
  }

  std::map<std::string, std::string> policies;
};

}  // namespace zel::test
