// A stand-in for the management process: it knows the service only through
// its public headers, loads the library at run time and finds the plug-in
// entry by its symbol, as a program built apart from the library does.
//
// Usage: zel_plugin_client LIBRARY COMMAND [ARG]
//   targets        one line per target: alias, IQN, owner host
//   target ALIAS   the same line for one target
// The home is the library's own choice (ZEL_HOME). Exit 0 on success, 1 when
// the service refused (its message on stderr), 2 when the library or its
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

int Run(OrvaIscsiTarget& service, const std::string& command, const std::string& argument) {
  if (command == "targets") {
    for (const TargetInfo& target : service.GetTargets(false, false)) Print(target);
    return 0;
  }
  if (command == "target" && !argument.empty()) {
    Print(service.GetTargetInfo(argument));
    return 0;
  }
  std::cerr << "unknown command " << command << '\n';
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: " << argv[0] << " LIBRARY targets|target ALIAS\n";
    return 2;
  }
  void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    std::cerr << dlerror() << '\n';
    return 2;
  }
  auto entry = reinterpret_cast<PluginEntry>(dlsym(library, kPluginEntry));
  if (entry == nullptr) {
    std::cerr << dlerror() << '\n';
    return 2;
  }

  int code;
  {
    std::unique_ptr<OrvaAsyncPlugin> plugin(entry());
    std::unique_ptr<OrvaIscsiTarget> service(plugin->GetOrvaIscsiTarget());
    try {
      code = Run(*service, argv[2], argc > 3 ? argv[3] : "");
    } catch (const HostCtl::Lib::Orva::OrvaCtlException& e) {
      // Thrown inside the library, caught here by the public type.
      std::cerr << e.GetMessage() << '\n';
      code = 1;
    }
  }
  if (dlclose(library) != 0) {
    std::cerr << dlerror() << '\n';
    return 2;
  }
  return code;
}
