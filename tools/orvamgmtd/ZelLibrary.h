// libzel as the agent holds it: loaded with dlopen, as a management process
// loads its plug-ins, and reached only through entries resolved by name.
// Loading runs the library's ZelNokCtlInit, which registers its cluster
// event handlers; unloading runs ZelNokCtlFini (at the latest when the
// process ends, if the library cannot be unloaded earlier).
#pragma once

#include <string>

#include "zel/AgentEntry.h"
#include "zel/OrvaPlugin.h"

namespace orvamgmtd {

class ZelLibrary {
 public:
  // Throws std::runtime_error with the loader's message.
  explicit ZelLibrary(const std::string& path);
  // dlclose.
  ~ZelLibrary();
  ZelLibrary(const ZelLibrary&) = delete;
  ZelLibrary& operator=(const ZelLibrary&) = delete;

  HostCtl::Orva::OrvaAsyncPlugin* (*getAsyncOrvaPlugin)();
  decltype(&ZelSelectHostForHome) selectHostForHome;
  decltype(&ZelFireNokNicChange) fireNokNicChange;
  decltype(&ZelFireClusterLeave) fireClusterLeave;
  decltype(&ZelFireOrvaSystemRefresh) fireOrvaSystemRefresh;
  decltype(&ZelWatchLocalMembership) watchLocalMembership;
  decltype(&ZelUnwatchLocalMembership) unwatchLocalMembership;
  decltype(&ZelHoldLocalMembership) holdLocalMembership;
  decltype(&ZelReleaseLocalMembership) releaseLocalMembership;
  decltype(&ZelFireHostEnterMaintenanceMode) fireHostEnterMaintenanceMode;
  decltype(&ZelWatchLocalMaintenance) watchLocalMaintenance;
  decltype(&ZelUnwatchLocalMaintenance) unwatchLocalMaintenance;
  decltype(&ZelReloadDeclaredNics) reloadDeclaredNics;
  decltype(&ZelInit) zelInit;
  decltype(&ZelDeinit) zelDeinit;

 private:
  // The address of `name`; throws when the library lacks it.
  void* Resolve(const char* name);

  const std::string path_;
  void* handle_;
};

}  // namespace orvamgmtd
