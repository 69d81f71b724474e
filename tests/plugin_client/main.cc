// A stand-in for the management process: public headers only, the library loaded at run time
// and the plug-in entry found by its symbol.
// Usage: zel_plugin_client LIBRARY (targets|target ALIAS)...: a line "alias IQN owner-host" per
// target, on one service object (home from ZEL_HOME). Exit 1 when the service refused a command
// (its message on stderr), 2 when the library or entry cannot be loaded or on wrong usage.
#include <dlfcn.h>

#include <iostream>
#include <memory>
#include <string>

#include "zel/OrvaPlugin.h"

namespace {

using HostCtl::Orva::OrvaAsyncPlugin;
using HostCtl::Orva::IscsiTarget::OrvaIscsiTarget;
using HostCtl::Orva::IscsiTarget::TargetInfo;

// OrvaAsyncPluginFactory::GetAsyncOrvaPlugin(), a static member, by its mangled name.
constexpr char kPluginEntry[] = "_ZN7HostCtl4Orva22OrvaAsyncPluginFactory18GetAsyncOrvaPluginEv";
using PluginEntry = OrvaAsyncPlugin* (*)();

void Print(const TargetInfo& target) {
  std::cout << target.alias << ' ' << target.iqn << ' ' << target.ownerHostUuid << '\n';
}

int Fail(const std::string& text) {
  std::cerr << text << '\n';
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return Fail(std::string("usage: ") + argv[0] + " LIBRARY (targets|target ALIAS)...");
  void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  auto entry = library ? reinterpret_cast<PluginEntry>(dlsym(library, kPluginEntry)) : nullptr;
  if (entry == nullptr) return Fail(dlerror());
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
          code = Fail("unknown command " + command);
        }
      } catch (const HostCtl::Lib::Orva::OrvaCtlException& e) {  // thrown inside the library
        std::cerr << e.GetMessage() << '\n';
        code = 1;
      }
    }
  }
  return dlclose(library) != 0 ? Fail(dlerror()) : code;
}
