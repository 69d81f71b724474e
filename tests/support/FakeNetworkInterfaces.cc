#include "support/FakeNetworkInterfaces.h"

#include <algorithm>
#include <mutex>
#include <stdexcept>

namespace zel {
namespace test {
namespace {

class NicTable final : public platform::NetworkInterfaces {
 public:
  struct Nic {
    std::string name;
    platform::NokNicState state;
    std::string ipv4;
    std::string ipv6;
  };

  // Runs `change` on the interface; `add` makes a missing one, otherwise it
  // must be there.
  template <typename Change>
  void Edit(const std::string& name, bool add, Change change) {
    std::lock_guard<std::mutex> guard(mutex_);
    auto found = Find(name);
    if (found == nics_.end() && !add) throw std::logic_error("no fake interface " + name);
    change(found != nics_.end() ? *found : nics_.emplace_back(Nic{name, platform::NOKNIC_NONE, "", ""}));
  }
  void Remove(const std::string& name) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (auto found = Find(name); found != nics_.end()) nics_.erase(found);
  }

  std::vector<std::string> GetNokKernelNicNames() override {
    std::lock_guard<std::mutex> guard(mutex_);
    std::vector<std::string> names;
    for (const Nic& nic : nics_) names.push_back(nic.name);
    return names;
  }
  platform::NokNicState GetNokKernelNicState(const std::string& name) override {
    std::lock_guard<std::mutex> guard(mutex_);
    auto found = Find(name);
    return found != nics_.end() ? found->state : platform::NOKNIC_NONE;
  }
  void GetPreferredZelNetworkAddressForNokNic(const std::string& name, std::string* ipv4,
                                              std::string* ipv6) override {
    std::lock_guard<std::mutex> guard(mutex_);
    auto found = Find(name);
    *ipv4 = found != nics_.end() ? found->ipv4 : "";
    *ipv6 = found != nics_.end() ? found->ipv6 : "";
  }

 private:
  std::vector<Nic>::iterator Find(const std::string& name) {
    return std::find_if(nics_.begin(), nics_.end(), [&](const Nic& nic) { return nic.name == name; });
  }

  std::mutex mutex_;
  std::vector<Nic> nics_;
};

NicTable& Table(platform::NetworkInterfaces& target) { return static_cast<NicTable&>(target); }

}  // namespace

FakeNetworkInterfaces::FakeNetworkInterfaces()
    : NetworkInterfacesDouble(std::make_unique<NicTable>()) {}

void FakeNetworkInterfaces::Set(const std::string& name, platform::NokNicState state,
                                const std::string& ipv4, const std::string& ipv6) {
  Table(Target()).Edit(name, true, [&](NicTable::Nic& nic) { nic = {name, state, ipv4, ipv6}; });
}

void FakeNetworkInterfaces::SetState(const std::string& name, platform::NokNicState state) {
  Table(Target()).Edit(name, false, [&](NicTable::Nic& nic) { nic.state = state; });
}

void FakeNetworkInterfaces::SetAddresses(const std::string& name, const std::string& ipv4,
                                         const std::string& ipv6) {
  Table(Target()).Edit(name, false, [&](NicTable::Nic& nic) { nic.ipv4 = ipv4, nic.ipv6 = ipv6; });
}

void FakeNetworkInterfaces::Remove(const std::string& name) { Table(Target()).Remove(name); }

void FakeNetworkInterfaces::FailListing(const std::string& message) {
  for (const char* call : {"GetNokKernelNicNames", "GetPreferredZelNetworkAddressForNokNic"}) {
    Heal(call);
    if (!message.empty()) FailNext(call, message, kAlways);
  }
}

FakeNetworkInterfaces* InstallFakeNetworkInterfaces() {
  auto nics = std::make_unique<FakeNetworkInterfaces>();
  FakeNetworkInterfaces* installed = nics.get();
  platform::CurrentHost().SetNics(std::move(nics));
  return installed;
}

}  // namespace test
}  // namespace zel
