// The double of the host's network interfaces over an in-memory table: the
// names, states and addresses a test sets, in the order the names were
// first added. Keep the raw pointer to change it while the code under test
// runs; every method is thread-safe.
#pragma once

#include <string>

#include "support/HostDoubles.h"

namespace zel {
namespace test {

class FakeNetworkInterfaces final : public NetworkInterfacesDouble {
 public:
  FakeNetworkInterfaces();
  // Adds interface `name`, or replaces its state and addresses keeping its
  // place in the order.
  void Set(const std::string& name, platform::NokNicState state, const std::string& ipv4 = "",
           const std::string& ipv6 = "");
  // REQUIRES: `name` was added.
  void SetState(const std::string& name, platform::NokNicState state);
  void SetAddresses(const std::string& name, const std::string& ipv4, const std::string& ipv6);
  // The host loses the interface: it is no longer listed, its state is
  // NOKNIC_NONE and it has no addresses.
  void Remove(const std::string& name);
  // While set, listing the names or addresses throws OrvaCtlException with
  // `message`, as the local backend does when the system refuses the list.
  // An empty message lifts the fault.
  void FailListing(const std::string& message);
};

// Installs a FakeNetworkInterfaces on the selected host, which owns it.
FakeNetworkInterfaces* InstallFakeNetworkInterfaces();

}  // namespace test
}  // namespace zel
