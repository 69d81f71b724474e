// The network interfaces of a Linux host: names and addresses from
// getifaddrs, states from sysfs (/sys/class/net/<name>/...).
//
// State of an interface, decided in this order:
//   no directory <root>/<name>                     NOKNIC_NONE
//   a bridge (<name>/bridge) or bond (<name>/bonding) with no lower
//   interface (no <name>/lower_* entry, nothing in <name>/brif)
//                                                  NOKNIC_NO_UPLINKS
//   operstate "down"                               NOKNIC_DOWN
//   operstate "lowerlayerdown", "dormant" or "notpresent", or carrier "0"
//                                                  NOKNIC_NO_CARRIER
//   otherwise ("up" or "unknown" with carrier 1)   NOKNIC_UP
// A bridge or bond without ports is checked before operstate because the
// kernel reports such a master "down" merely for lacking ports: it is a
// host configuration without physical uplinks, not a failed link, and the
// service must not move targets off it as it would off a link that went down.
//
// Listing names or addresses throws OrvaCtlException when getifaddrs fails:
// an empty answer would read as "this host has no interfaces" and withdraw
// every published one. Thread-safe: no mutable state.
#pragma once

#include <ifaddrs.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/HostConfig.h"
#include "platform/NetworkInterfaces.h"

namespace zel {
namespace platform {

constexpr const char* kSysClassNet = "/sys/class/net";

class LocalNetworkInterfaces final : public NetworkInterfaces {
 public:
  // `sysfsRoot` holds one directory per interface, as /sys/class/net does.
  // With `offerLoopback` the loopback interface comes first among the
  // names (an embedded host serves on it); without, it is left out.
  explicit LocalNetworkInterfaces(std::string sysfsRoot = kSysClassNet,
                                  bool offerLoopback = false);

  std::vector<std::string> GetNokKernelNicNames() override;
  NokNicState GetNokKernelNicState(const std::string& name) override;
  void GetPreferredZelNetworkAddressForNokNic(const std::string& name, std::string* ipv4,
                                              std::string* ipv6) override;

 private:
  const std::string sysfsRoot_;
  const bool offerLoopback_;
};

// The interfaces `config` gives the host: those it declares ("nics"), in
// their declared states and with their declared addresses; else the
// machine's, loopback first in the embedded profile. SetDeclaredNics
// follows a later edit of the declaration, either way round. Thread-safe.
std::unique_ptr<NetworkInterfaces> NewLocalNetworkInterfaces(const HostConfig& config);

// The two choices made on a getifaddrs list, apart from the system call.
// Every interface, each once, in first-seen order (getifaddrs names an
// interface once per address family); loopback interfaces first with
// `offerLoopback`, else none of them.
std::vector<std::string> ListNokNicNames(const struct ifaddrs* list, bool offerLoopback = false);
// The first IPv4 address of `name`, and its first IPv6 address that is not
// link-local, or its first link-local one when it has no other; empty texts
// when it has none.
void PickPreferredAddresses(const struct ifaddrs* list, const std::string& name, std::string* ipv4,
                            std::string* ipv6);

}  // namespace platform
}  // namespace zel
