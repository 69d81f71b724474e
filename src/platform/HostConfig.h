// Where this host keeps its state and who it is. Everything the service
// touches on a host lives under the home (--home / ZEL_HOME) in the embedded
// profile; the real-host profile keeps the service's fixed system paths.
// The host configuration file is "host.json" in the home.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace zel {
namespace platform {

// The newest on-disk format of virtual disks this build writes. A host
// declares the format it has reached in host.json ("diskFormatVersion",
// 1 to 255) and publishes it with its membership; the cluster uses a format
// only once every member has reached it (OrvaUtil::GetMaxDiskVersionInCluster).
constexpr int kCurrentDiskFormatVersion = 11;

// The company identifier of the NAA names this host gives LUNs: six hex
// digits. The default is locally administered (no vendor's registration).
constexpr const char* kDefaultNaaCompanyId = "0A7E15";

enum class Profile { Embedded, RealHost };

// An iSCSI interface a host declares instead of the machine's own: several
// hosts on one machine, each with its own loopback address.
struct DeclaredNic {
  std::string ipv4;  // empty when the interface has none
  std::string ipv6;
  std::string state = "up";  // "up", "down" or "no-uplinks", as the host declares it
};

inline bool operator==(const DeclaredNic& a, const DeclaredNic& b) {
  return a.ipv4 == b.ipv4 && a.ipv6 == b.ipv6 && a.state == b.state;
}
inline bool operator!=(const DeclaredNic& a, const DeclaredNic& b) { return !(a == b); }

struct HostConfig {
  Profile profile = Profile::Embedded;
  std::string home;             // state root of this host
  std::string hostUuid;         // created once on first use and kept
  std::string hostName;
  std::string faultDomain;      // this host's site; empty outside stretched clusters
  bool clusterMember = true;    // a one-host cluster by default
  std::string datastoreRoot;    // the shared datastore as mounted on this host
  std::string backupConfPath;   // the local backup copy of zel.conf
  // "directory": where the hosts of the cluster meet. "sqlite" (the
  // default): one database file that every process of one machine opens;
  // "etcd": an etcd cluster shared by hosts on several machines.
  std::string directoryBackend;
  std::string directoryPath;    // the embedded directory database
  std::vector<std::string> directoryEndpoints;  // etcd: "http://HOST:PORT" of its members
  std::string directoryPrefix = "/zel/cluster";  // etcd: the cluster's keys live under it
  // A host's agent holds its membership under a lease of this many seconds:
  // a host whose agent dies leaves the member list within it.
  int memberLeaseSeconds = 10;
  std::string configStorePath;  // the host configuration store (JSON)
  std::string defaultPolicy;    // the datastore's default storage policy
  // Naming authority of the target IQNs this host generates, in forward
  // form ("storage.example.net"); empty derives it from the host's domain.
  std::string iqnDomain;
  int diskFormatVersion = kCurrentDiskFormatVersion;
  // Seconds between two passes of the control thread; shorter for
  // demonstrations and tests. Counts of passes keep their meaning in passes.
  int controlTickSeconds = 15;
  std::string naaCompanyId = kDefaultNaaCompanyId;  // six upper-case hex digits
  std::map<std::string, int> options;         // kernel options, "GROUP.name" -> value
  // "nics": the host's iSCSI interfaces by name, in name order; empty: the
  // machine's own.
  std::map<std::string, DeclaredNic> nics;
  std::map<std::string, std::string> commands; // command overrides by name
};

// The home named by `explicitHome`, else ZEL_HOME, else "/var/lib/zel".
std::string ResolveHome(const std::string& explicitHome);

// The embedded profile's layout under `home`, without reading or writing
// anything (the identity is left empty).
HostConfig EmbeddedHostConfig(const std::string& home);

// True when `domain` can name the authority of a target IQN: labels of
// letters, digits and '-' joined by single dots, at most 100 bytes in all so
// that a generated IQN keeps room for the target's alias.
bool IsValidIqnDomain(const std::string& domain);

// Reads `home`/host.json over the embedded defaults, creating the home and
// the file with a fresh host identity on first use (safe against other
// processes doing the same). Throws OrvaCtlException with a readable message
// when the file cannot be read, parsed or created.
HostConfig LoadHostConfig(const std::string& home);

// The interfaces `home`/host.json declares now ("nics"; empty: none), for a
// running process to follow an edit. The whole file is checked as
// LoadHostConfig checks it, so that a file the next start would refuse is
// refused now too; nothing is created. Throws OrvaCtlException as
// LoadHostConfig does, and when the file is missing.
std::map<std::string, DeclaredNic> ReadDeclaredNics(const std::string& home);

}  // namespace platform
}  // namespace zel
