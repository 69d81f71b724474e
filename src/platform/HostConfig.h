// Where this host keeps its state. Everything the service touches on a host
// lives under the home (--home / ZEL_HOME) in the embedded profile; the
// real-host profile keeps the service's fixed system paths.
#pragma once

#include <string>

namespace zel {
namespace platform {

enum class Profile { Embedded, RealHost };

struct HostConfig {
  Profile profile = Profile::Embedded;
  std::string home;           // state root of this host
  std::string datastoreRoot;  // the shared datastore as mounted on this host
  std::string backupConfPath; // the local backup copy of zel.conf
};

// The home named by `explicitHome`, else ZEL_HOME, else "/var/lib/zel".
std::string ResolveHome(const std::string& explicitHome);

// The embedded profile's layout under `home`.
HostConfig EmbeddedHostConfig(const std::string& home);

}  // namespace platform
}  // namespace zel
