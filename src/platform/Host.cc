#include "platform/Host.h"

#include <mutex>

#include "zel/OrvaCtlException.h"

namespace zel {
namespace platform {
namespace {

// Never destroyed: the library's unload hook and late threads may still log
// while the process's static objects are being torn down.
std::unique_ptr<Host>& Selected() {
  static auto* host = new std::unique_ptr<Host>();
  return *host;
}

std::once_flag& DefaultOnce() {
  static std::once_flag once;
  return once;
}

}  // namespace

Host::Host(HostConfig config, std::unique_ptr<Clock> clock, std::unique_ptr<LogSink> log,
           std::unique_ptr<FileSystem> files)
    : config_(std::move(config)),
      clock_(std::move(clock)),
      log_(std::move(log)),
      files_(std::move(files)) {}

Host::~Host() = default;

namespace {

template <typename Service>
Service& Required(const std::unique_ptr<Service>& service, const char* name) {
  if (!service) {
    throw HostCtl::Lib::Orva::OrvaCtlException(std::string("The host service '") + name +
                                               "' is not available in this process");
  }
  return *service;
}

}  // namespace

Directory& Host::GetDirectory() { return Required(directory_, "directory"); }
ClusterFacts& Host::Cluster() { return Required(cluster_, "cluster"); }
ConfigStore& Host::Store() { return Required(store_, "configuration store"); }
PolicyService& Host::Policies() { return Required(policies_, "policies"); }
DiskLibrary& Host::Disks() { return Required(disks_, "disks"); }
Namespaces& Host::GetNamespaces() { return Required(namespaces_, "namespaces"); }
NetworkInterfaces& Host::Nics() { return Required(nics_, "network interfaces"); }
CommandRunner& Host::Commands() { return Required(commands_, "commands"); }
KernelModules& Host::Modules() { return Required(modules_, "kernel modules"); }
Firewall& Host::GetFirewall() { return Required(firewall_, "firewall"); }
KernelOptions& Host::Options() { return Required(options_, "kernel options"); }
LegacyConfigFile& Host::LegacyConfig() { return Required(legacyConfig_, "legacy configuration"); }
ObjectManager& Host::Objects() { return Required(objects_, "object manager"); }

void Host::SetDirectory(std::unique_ptr<Directory> directory) { directory_ = std::move(directory); }
void Host::SetCluster(std::unique_ptr<ClusterFacts> cluster) { cluster_ = std::move(cluster); }
void Host::SetStore(std::unique_ptr<ConfigStore> store) { store_ = std::move(store); }
void Host::SetPolicies(std::unique_ptr<PolicyService> policies) { policies_ = std::move(policies); }
void Host::SetDisks(std::unique_ptr<DiskLibrary> disks) { disks_ = std::move(disks); }
void Host::SetNamespaces(std::unique_ptr<Namespaces> namespaces) {
  namespaces_ = std::move(namespaces);
}
void Host::SetNics(std::unique_ptr<NetworkInterfaces> nics) { nics_ = std::move(nics); }
void Host::SetCommands(std::unique_ptr<CommandRunner> commands) { commands_ = std::move(commands); }
void Host::SetModules(std::unique_ptr<KernelModules> modules) { modules_ = std::move(modules); }
void Host::SetFirewall(std::unique_ptr<Firewall> firewall) { firewall_ = std::move(firewall); }
void Host::SetOptions(std::unique_ptr<KernelOptions> options) { options_ = std::move(options); }
void Host::SetLegacyConfig(std::unique_ptr<LegacyConfigFile> legacyConfig) {
  legacyConfig_ = std::move(legacyConfig);
}
void Host::SetObjects(std::unique_ptr<ObjectManager> objects) { objects_ = std::move(objects); }

bool Host::ReloadDeclaredNics() { return Nics().SetDeclaredNics(ReadDeclaredNics(config_.home)); }

std::unique_ptr<Host> NewLocalHost(HostConfig config, LogLevel maxLevel) {
  return NewLocalHost(std::move(config), NewStderrLogSink(maxLevel));
}

std::unique_ptr<Host> NewLocalHost(HostConfig config, std::unique_ptr<LogSink> log) {
  return std::make_unique<Host>(std::move(config), NewSystemClock(), std::move(log),
                                NewPosixFileSystem());
}

Host& CurrentHost() {
  std::call_once(DefaultOnce(), [] {
    if (Selected()) return;
    const std::string home = ResolveHome("");
    try {
      Selected() = NewLocalServiceHost(LoadHostConfig(home), LogLevel::Warning);
    } catch (const HostCtl::Lib::HostCtlException& e) {
      CurrentLogSink().Write(LogLevel::Warning,
                             "Host: cannot use home " + home + ": " + e.GetMessage());
      Selected() = NewLocalHost(EmbeddedHostConfig(home), LogLevel::Warning);
    }
  });
  return *Selected();
}

LogSink& CurrentLogSink() {
  static auto* fallback = NewStderrLogSink(LogLevel::Warning).release();
  return Selected() ? Selected()->GetLog() : *fallback;
}

std::unique_ptr<Host> SelectHost(std::unique_ptr<Host> host) {
  // A selection settles the default: a later first use must not replace it.
  std::call_once(DefaultOnce(), [] {});
  if (!host) host = NewLocalHost(EmbeddedHostConfig(ResolveHome("")), LogLevel::Warning);
  std::unique_ptr<Host> previous = std::move(Selected());
  Selected() = std::move(host);
  return previous;
}

}  // namespace platform
}  // namespace zel
