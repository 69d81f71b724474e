#include "support/FakeNetworkInterfaces.h"

#include <algorithm>
#include <stdexcept>

#include "zel/OrvaCtlException.h"

namespace zel {
namespace test {

void FakeNetworkInterfaces::Set(const std::string& name, platform::NokNicState state,
                                const std::string& ipv4, const std::string& ipv6) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (Nic* nic = Find(name)) {
    *nic = Nic{name, state, ipv4, ipv6};
  } else {
    nics_.push_back(Nic{name, state, ipv4, ipv6});
  }
}

void FakeNetworkInterfaces::SetState(const std::string& name, platform::NokNicState state) {
  std::lock_guard<std::mutex> guard(mutex_);
  Nic* nic = Find(name);
  if (nic == nullptr) throw std::logic_error("no fake interface " + name);
  nic->state = state;
}

void FakeNetworkInterfaces::SetAddresses(const std::string& name, const std::string& ipv4,
                                         const std::string& ipv6) {
  std::lock_guard<std::mutex> guard(mutex_);
  Nic* nic = Find(name);
  if (nic == nullptr) throw std::logic_error("no fake interface " + name);
  nic->ipv4 = ipv4;
  nic->ipv6 = ipv6;
}

void FakeNetworkInterfaces::Remove(const std::string& name) {
  std::lock_guard<std::mutex> guard(mutex_);
  nics_.erase(
      std::remove_if(nics_.begin(), nics_.end(), [&](const Nic& nic) { return nic.name == name; }),
      nics_.end());
}

void FakeNetworkInterfaces::FailListing(const std::string& message) {
  std::lock_guard<std::mutex> guard(mutex_);
  listingFault_ = message;
}

std::vector<std::string> FakeNetworkInterfaces::GetNokKernelNicNames() {
  std::lock_guard<std::mutex> guard(mutex_);
  ThrowIfFailing();
  std::vector<std::string> names;
  for (const Nic& nic : nics_) names.push_back(nic.name);
  return names;
}

platform::NokNicState FakeNetworkInterfaces::GetNokKernelNicState(const std::string& name) {
  std::lock_guard<std::mutex> guard(mutex_);
  const Nic* nic = Find(name);
  return nic != nullptr ? nic->state : platform::NOKNIC_NONE;
}

void FakeNetworkInterfaces::GetPreferredZelNetworkAddressForNokNic(const std::string& name,
                                                                   std::string* ipv4,
                                                                   std::string* ipv6) {
  std::lock_guard<std::mutex> guard(mutex_);
  ThrowIfFailing();
  const Nic* nic = Find(name);
  *ipv4 = nic != nullptr ? nic->ipv4 : "";
  *ipv6 = nic != nullptr ? nic->ipv6 : "";
}

FakeNetworkInterfaces::Nic* FakeNetworkInterfaces::Find(const std::string& name) {
  auto found =
      std::find_if(nics_.begin(), nics_.end(), [&](const Nic& nic) { return nic.name == name; });
  return found != nics_.end() ? &*found : nullptr;
}

void FakeNetworkInterfaces::ThrowIfFailing() const {
  if (!listingFault_.empty()) throw HostCtl::Lib::Orva::OrvaCtlException(listingFault_);
}

}  // namespace test
}  // namespace zel
