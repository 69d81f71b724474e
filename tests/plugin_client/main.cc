// A stand-in for the management process: it knows the service only through
// its public headers, loads the library at run time and finds the plug-in
// entry by its symbol, as a program built apart from the library does.
//
// Usage: zel_plugin_client LIBRARY COMMAND...
//   targets        one line per target: alias, IQN, owner host
//   target ALIAS   the same line for one target
// The commands run in order on one service object; the home is the
// library's own choice (ZEL_HOME). Exit 0 on success, 1 when the service
// refused any command (its message on stderr), 2 when the library or its
// entry cannot be loaded or the usage is wrong.
#include <dlfcn.h>

#include <iostream>
#include <memory>
#include <string>

#include "zel/OrvaPlugin.h"

namespace {

using HostCtl::Orva::OrvaAsyncPlugin;
using HostCtl::Orva::IscsiTarget::OrvaIscsiTarget;
using HostCtl::Orva::IscsiTarget::TargetInfo;

// OrvaAsyncPluginFactory::GetAsyncOrvaPlugin() by its mangled name: the
// entry is a static member function, not a plain-name symbol.
constexpr char kPluginEntry[] = "_ZN7HostCtl4Orva22OrvaAsyncPluginFactory18GetAsyncOrvaPluginEv";
using PluginEntry = OrvaAsyncPlugin* (*)();

void Print(const TargetInfo& target) {
  std::cout << target.alias << ' ' << target.iqn << ' ' << target.ownerHostUuid << '\n';
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: " << argv[0] << " LIBRARY (targets|target ALIAS)...\n";
    return 2;
  }
  void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  auto entry = library ? reinterpret_cast<PluginEntry>(dlsym(library, kPluginEntry)) : nullptr;
  if (entry == nullptr) {
    std::cerr << dlerror() << '\n';
    return 2;
  }
  int code = 0;
  {
    std::unique_ptr<OrvaAsyncPlugin> plugin(entry());
    std::unique_ptr<OrvaIscsiTarget> service(plugin->GetOrvaIscsiTarget());
    for (int i = 2; i < argc && code != 2; ++i) {
      const std::string command = argv[i];
      try {
        if (command == "targets") {
          for (const TargetInfo& target : service->GetTargets(false, false)) Print(target);
        } else if (command == "target" && i + 1 < argc) {
          Print(service->GetTargetInfo(argv[++i]));
        } else {
          std::cerr << "unknown command " << command << '\n';
          code = 2;
        }
      } catch (const HostCtl::Lib::Orva::OrvaCtlException& e) {
        // Thrown inside the library, caught here by the public type.
        std::cerr << e.GetMessage() << '\n';
        code = 1;
      }
    }
  }
  if (dlclose(library) != 0) {
    std::cerr << dlerror() << '\n';
    return 2;
  }
  return code;
}
