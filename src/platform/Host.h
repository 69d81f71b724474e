// The host object: one backend per host service, selected once when a
// process starts (the local Linux backends by default, the fault-injecting
// host in tests). Call sites reach it through the service's own operation
// names, never directly through a backend.
#pragma once

#include <memory>

#include "platform/Clock.h"
#include "platform/ClusterFacts.h"
#include "platform/ConfigStore.h"
#include "platform/Directory.h"
#include "platform/DiskLibrary.h"
#include "platform/FileIO.h"
#include "platform/HostConfig.h"
#include "platform/HostControl.h"
#include "platform/Log.h"
#include "platform/Namespaces.h"
#include "platform/NetworkInterfaces.h"
#include "platform/ObjectManager.h"
#include "platform/PolicyService.h"

namespace zel {
namespace platform {

class Host {
 public:
  Host(HostConfig config, std::unique_ptr<Clock> clock, std::unique_ptr<LogSink> log,
       std::unique_ptr<FileSystem> files);
  ~Host();

  const HostConfig& Config() const { return config_; }
  Clock& GetClock() { return *clock_; }
  LogSink& GetLog() { return *log_; }
  FileSystem& Files() { return *files_; }

  // Services a process may do without (a tool that only reads files);
  // reaching one that was never set throws OrvaCtlException.
  Directory& GetDirectory();
  ClusterFacts& Cluster();
  ConfigStore& Store();
  PolicyService& Policies();
  DiskLibrary& Disks();
  Namespaces& GetNamespaces();
  NetworkInterfaces& Nics();
  CommandRunner& Commands();
  KernelModules& Modules();
  Firewall& GetFirewall();
  KernelOptions& Options();
  LegacyConfigFile& LegacyConfig();
  ObjectManager& Objects();

  void SetDirectory(std::unique_ptr<Directory> directory);
  void SetCluster(std::unique_ptr<ClusterFacts> cluster);
  void SetStore(std::unique_ptr<ConfigStore> store);
  void SetPolicies(std::unique_ptr<PolicyService> policies);
  void SetDisks(std::unique_ptr<DiskLibrary> disks);
  void SetNamespaces(std::unique_ptr<Namespaces> namespaces);
  void SetNics(std::unique_ptr<NetworkInterfaces> nics);
  void SetCommands(std::unique_ptr<CommandRunner> commands);
  void SetModules(std::unique_ptr<KernelModules> modules);
  void SetFirewall(std::unique_ptr<Firewall> firewall);
  void SetOptions(std::unique_ptr<KernelOptions> options);
  void SetLegacyConfig(std::unique_ptr<LegacyConfigFile> legacyConfig);
  void SetObjects(std::unique_ptr<ObjectManager> objects);

  // Reads the interfaces host.json declares now into the network
  // interfaces (Config() keeps what the process started with). True when
  // they changed; throws OrvaCtlException, changing nothing, when host.json
  // cannot be read.
  bool ReloadDeclaredNics();

 private:
  HostConfig config_;
  std::unique_ptr<Clock> clock_;
  std::unique_ptr<LogSink> log_;
  std::unique_ptr<FileSystem> files_;
  // Declared before the services that use it, so it outlives them.
  std::unique_ptr<Directory> directory_;
  std::unique_ptr<ClusterFacts> cluster_;
  std::unique_ptr<ConfigStore> store_;
  std::unique_ptr<PolicyService> policies_;
  std::unique_ptr<DiskLibrary> disks_;
  std::unique_ptr<Namespaces> namespaces_;
  std::unique_ptr<NetworkInterfaces> nics_;
  std::unique_ptr<CommandRunner> commands_;
  std::unique_ptr<KernelModules> modules_;
  std::unique_ptr<Firewall> firewall_;
  std::unique_ptr<KernelOptions> options_;
  std::unique_ptr<LegacyConfigFile> legacyConfig_;
  std::unique_ptr<ObjectManager> objects_;
};

// The local clock, file layer and a standard-error log up to `maxLevel`:
// enough for tools that only read and write configuration files.
std::unique_ptr<Host> NewLocalHost(HostConfig config, LogLevel maxLevel);

// NewLocalHost plus the local backends of every other service under
// `config`: the SQLite directory, cluster facts, configuration store,
// policies and disks.
std::unique_ptr<Host> NewLocalServiceHost(HostConfig config, LogLevel maxLevel);

// The same two with `log` as the host's log, for a program that shows log
// lines its own way.
std::unique_ptr<Host> NewLocalHost(HostConfig config, std::unique_ptr<LogSink> log);
std::unique_ptr<Host> NewLocalServiceHost(HostConfig config, std::unique_ptr<LogSink> log);

// The selected host. Before any selection it is the local service host of
// the home ResolveHome("") (falling back, with a warning, to file access
// only when that home cannot be used), logging warnings and errors.
Host& CurrentHost();

// The selected host's log, or, before any host exists, a standard-error
// log of warnings and errors. Logging never creates the default host, so
// loading the library or logging from a tool touches no host state.
LogSink& CurrentLogSink();

// Replaces the selected host and returns the previous one. Meant for the
// start of a process (or of a test), not while other threads use the host.
std::unique_ptr<Host> SelectHost(std::unique_ptr<Host> host);

std::unique_ptr<FileSystem> NewPosixFileSystem();

}  // namespace platform
}  // namespace zel
