#include "support/HostDoubles.h"

#include <future>

namespace zel {
namespace test {

using platform::DirectoryEntry;

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

int CommandRunnerDouble::Exec(const std::vector<std::string>& argv) {
  std::string arguments;
  for (size_t i = 1; i < argv.size(); ++i) arguments += (i > 1 ? " " : "") + argv[i];
  const std::string program = argv.empty() ? "" : argv[0];
  if (auto fault = argv.size() > 1 ? Enter(program, arguments) : Enter(program)) {
    return fault->code;
  }
  return target_->Exec(argv);
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
