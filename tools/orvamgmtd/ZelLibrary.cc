#include "ZelLibrary.h"

#include <dlfcn.h>

#include <stdexcept>

namespace orvamgmtd {
namespace {

// OrvaAsyncPluginFactory::GetAsyncOrvaPlugin() by its mangled name: the
// plug-in entry is a static member function, not a plain-name symbol.
constexpr char kPluginEntry[] = "_ZN7HostCtl4Orva22OrvaAsyncPluginFactory18GetAsyncOrvaPluginEv";

template <typename Function>
Function As(void* address) {
  return reinterpret_cast<Function>(address);
}

}  // namespace

ZelLibrary::ZelLibrary(const std::string& path)
    : path_(path), handle_(::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
  if (handle_ == nullptr) throw std::runtime_error(std::string("Failed to load ") + ::dlerror());
  try {
    getAsyncOrvaPlugin = As<decltype(getAsyncOrvaPlugin)>(Resolve(kPluginEntry));
    selectHostForHome = As<decltype(selectHostForHome)>(Resolve("ZelSelectHostForHome"));
    fireNokNicChange = As<decltype(fireNokNicChange)>(Resolve("ZelFireNokNicChange"));
    fireClusterLeave = As<decltype(fireClusterLeave)>(Resolve("ZelFireClusterLeave"));
    fireOrvaSystemRefresh =
        As<decltype(fireOrvaSystemRefresh)>(Resolve("ZelFireOrvaSystemRefresh"));
    watchLocalMembership = As<decltype(watchLocalMembership)>(Resolve("ZelWatchLocalMembership"));
    unwatchLocalMembership =
        As<decltype(unwatchLocalMembership)>(Resolve("ZelUnwatchLocalMembership"));
    holdLocalMembership = As<decltype(holdLocalMembership)>(Resolve("ZelHoldLocalMembership"));
    releaseLocalMembership =
        As<decltype(releaseLocalMembership)>(Resolve("ZelReleaseLocalMembership"));
    fireHostEnterMaintenanceMode =
        As<decltype(fireHostEnterMaintenanceMode)>(Resolve("ZelFireHostEnterMaintenanceMode"));
    watchLocalMaintenance =
        As<decltype(watchLocalMaintenance)>(Resolve("ZelWatchLocalMaintenance"));
    unwatchLocalMaintenance =
        As<decltype(unwatchLocalMaintenance)>(Resolve("ZelUnwatchLocalMaintenance"));
    reloadDeclaredNics = As<decltype(reloadDeclaredNics)>(Resolve("ZelReloadDeclaredNics"));
    zelInit = As<decltype(zelInit)>(Resolve("ZelInit"));
    zelDeinit = As<decltype(zelDeinit)>(Resolve("ZelDeinit"));
  } catch (...) {
    ::dlclose(handle_);
    throw;
  }
}

ZelLibrary::~ZelLibrary() { ::dlclose(handle_); }

void* ZelLibrary::Resolve(const char* name) {
  ::dlerror();
  void* address = ::dlsym(handle_, name);
  if (address == nullptr) {
    throw std::runtime_error("Entry " + std::string(name) + " not found in " + path_);
  }
  return address;
}

}  // namespace orvamgmtd
