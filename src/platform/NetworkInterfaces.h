// The host's network interfaces (NokCtl::Network::NokKernelNicApi at the
// call sites).
#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/HostConfig.h"

namespace zel {
namespace platform {

// Interface states as the service reads them.
enum NokNicState : int {
  NOKNIC_NONE = 1,         // no such interface
  NOKNIC_DOWN = 2,         // administratively down
  NOKNIC_UP = 3,
  NOKNIC_NO_CARRIER = 4,   // up, but the link is down
  NOKNIC_NO_UPLINKS = 5,   // up, but without physical uplinks
};

class NetworkInterfaces {
 public:
  virtual ~NetworkInterfaces() = default;
  // Every interface of the host, loopback excluded, in a stable order.
  virtual std::vector<std::string> GetNokKernelNicNames() = 0;
  virtual NokNicState GetNokKernelNicState(const std::string& name) = 0;
  // The addresses initiators should use for `name`: its first IPv4 and
  // first IPv6 address as text, each empty when it has none.
  virtual void GetPreferredZelNetworkAddressForNokNic(const std::string& name, std::string* ipv4,
                                                      std::string* ipv6) = 0;

  // Follows an edit of the interfaces the host declares (HostConfig::nics;
  // empty: the machine's own). True when what the host offers changed.
  // Backends that take no declarations ignore it and answer false.
  virtual bool SetDeclaredNics(const std::map<std::string, DeclaredNic>& nics) {
    static_cast<void>(nics);
    return false;
  }
};

}  // namespace platform
}  // namespace zel
