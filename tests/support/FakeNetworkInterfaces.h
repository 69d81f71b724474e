// An in-memory host's network interfaces: the names, states and addresses a
// test sets, in the order the names were first added. Install it with
// CurrentHost().SetNics(...) and keep the raw pointer to change it while the
// code under test runs; every method is thread-safe, so a control thread may
// read it meanwhile.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "platform/NetworkInterfaces.h"

namespace zel {
namespace test {

class FakeNetworkInterfaces final : public platform::NetworkInterfaces {
 public:
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

  std::vector<std::string> GetNokKernelNicNames() override;
  platform::NokNicState GetNokKernelNicState(const std::string& name) override;
  void GetPreferredZelNetworkAddressForNokNic(const std::string& name, std::string* ipv4,
                                              std::string* ipv6) override;

 private:
  struct Nic {
    std::string name;
    platform::NokNicState state;
    std::string ipv4;
    std::string ipv6;
  };
  // REQUIRES: mutex_ held. Null when absent.
  Nic* Find(const std::string& name);
  void ThrowIfFailing() const;

  mutable std::mutex mutex_;
  std::vector<Nic> nics_;
  std::string listingFault_;
};

}  // namespace test
}  // namespace zel
