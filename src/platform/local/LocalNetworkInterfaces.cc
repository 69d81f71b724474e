#include "platform/local/LocalNetworkInterfaces.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <system_error>

#include "zel/OrvaCtlException.h"

namespace zel {
namespace platform {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;

// The host's interface list, freed on scope exit.
class IfAddrs {
 public:
  IfAddrs() {
    if (::getifaddrs(&list_) != 0) {
      throw OrvaCtlException(std::string("Failed to list the network interfaces of this host: ") +
                             std::strerror(errno));
    }
  }
  ~IfAddrs() { ::freeifaddrs(list_); }
  IfAddrs(const IfAddrs&) = delete;
  IfAddrs& operator=(const IfAddrs&) = delete;

  const struct ifaddrs* Get() const { return list_; }

 private:
  struct ifaddrs* list_ = nullptr;
};

bool IsDirectory(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// The first line of a sysfs attribute, or "" when it cannot be read (the
// kernel refuses to read "carrier" of an interface that is down, for one).
std::string ReadAttribute(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  if (!in || !std::getline(in, line)) return "";
  while (!line.empty() && (line.back() == '\n' || line.back() == ' ')) line.pop_back();
  return line;
}

// True when `dir` has an entry for which `wanted` holds.
template <typename Wanted>
bool HasEntry(const std::string& dir, Wanted wanted) {
  std::error_code error;
  for (std::filesystem::directory_iterator it(dir, error), end; !error && it != end;
       it.increment(error)) {
    if (wanted(it->path().filename().string())) return true;
  }
  return false;
}

bool IsMasterWithoutUplinks(const std::string& dir) {
  if (!IsDirectory(dir + "/bridge") && !IsDirectory(dir + "/bonding")) return false;
  const bool hasLower =
      HasEntry(dir, [](const std::string& entry) { return entry.rfind("lower_", 0) == 0; });
  const bool hasPort = HasEntry(dir + "/brif", [](const std::string&) { return true; });
  return !hasLower && !hasPort;
}

bool NamedAs(const struct ifaddrs* entry, const std::string& name) {
  return entry->ifa_name != nullptr && name == entry->ifa_name;
}

// Interfaces a host declares, in the state and with the addresses it
// declares (a demonstration takes one down by editing host.json), else the
// machine's own. The declaration may change while other threads read it.
class DeclaredNetworkInterfaces final : public NetworkInterfaces {
 public:
  DeclaredNetworkInterfaces(std::map<std::string, DeclaredNic> nics,
                            std::unique_ptr<NetworkInterfaces> machine)
      : nics_(std::move(nics)), machine_(std::move(machine)) {}

  std::vector<std::string> GetNokKernelNicNames() override {
    std::unique_lock<std::mutex> guard(mutex_);
    if (nics_.empty()) {
      guard.unlock();
      return machine_->GetNokKernelNicNames();
    }
    std::vector<std::string> names;
    for (const auto& nic : nics_) names.push_back(nic.first);
    return names;
  }
  NokNicState GetNokKernelNicState(const std::string& name) override {
    std::unique_lock<std::mutex> guard(mutex_);
    if (nics_.empty()) {
      guard.unlock();
      return machine_->GetNokKernelNicState(name);
    }
    const auto nic = nics_.find(name);
    if (nic == nics_.end()) return NOKNIC_NONE;
    if (nic->second.state == "down") return NOKNIC_DOWN;
    return nic->second.state == "no-uplinks" ? NOKNIC_NO_UPLINKS : NOKNIC_UP;
  }
  void GetPreferredZelNetworkAddressForNokNic(const std::string& name, std::string* ipv4,
                                              std::string* ipv6) override {
    std::unique_lock<std::mutex> guard(mutex_);
    if (nics_.empty()) {
      guard.unlock();
      machine_->GetPreferredZelNetworkAddressForNokNic(name, ipv4, ipv6);
      return;
    }
    const auto nic = nics_.find(name);
    *ipv4 = nic == nics_.end() ? "" : nic->second.ipv4;
    *ipv6 = nic == nics_.end() ? "" : nic->second.ipv6;
  }
  bool SetDeclaredNics(const std::map<std::string, DeclaredNic>& nics) override {
    std::lock_guard<std::mutex> guard(mutex_);
    if (nics == nics_) return false;
    nics_ = nics;
    return true;
  }

 private:
  std::mutex mutex_;
  std::map<std::string, DeclaredNic> nics_;  // guarded by mutex_
  const std::unique_ptr<NetworkInterfaces> machine_;
};

}  // namespace

LocalNetworkInterfaces::LocalNetworkInterfaces(std::string sysfsRoot, bool offerLoopback)
    : sysfsRoot_(std::move(sysfsRoot)), offerLoopback_(offerLoopback) {}

std::vector<std::string> LocalNetworkInterfaces::GetNokKernelNicNames() {
  IfAddrs list;
  return ListNokNicNames(list.Get(), offerLoopback_);
}

NokNicState LocalNetworkInterfaces::GetNokKernelNicState(const std::string& name) {
  const std::string dir = sysfsRoot_ + "/" + name;
  if (name.empty() || name.find('/') != std::string::npos || !IsDirectory(dir)) {
    return NOKNIC_NONE;
  }
  if (IsMasterWithoutUplinks(dir)) return NOKNIC_NO_UPLINKS;
  const std::string operstate = ReadAttribute(dir + "/operstate");
  if (operstate == "down") return NOKNIC_DOWN;
  if (operstate == "lowerlayerdown" || operstate == "dormant" || operstate == "notpresent") {
    return NOKNIC_NO_CARRIER;
  }
  return ReadAttribute(dir + "/carrier") == "0" ? NOKNIC_NO_CARRIER : NOKNIC_UP;
}

void LocalNetworkInterfaces::GetPreferredZelNetworkAddressForNokNic(const std::string& name,
                                                                    std::string* ipv4,
                                                                    std::string* ipv6) {
  IfAddrs list;
  PickPreferredAddresses(list.Get(), name, ipv4, ipv6);
}

std::unique_ptr<NetworkInterfaces> NewLocalNetworkInterfaces(const HostConfig& config) {
  return std::make_unique<DeclaredNetworkInterfaces>(
      config.nics,
      std::make_unique<LocalNetworkInterfaces>(kSysClassNet, config.profile == Profile::Embedded));
}

std::vector<std::string> ListNokNicNames(const struct ifaddrs* list, bool offerLoopback) {
  std::vector<std::string> names;
  // Loopback interfaces in a first pass, the others in a second.
  for (const bool loopbackPass : {true, false}) {
    if (loopbackPass && !offerLoopback) continue;
    for (const struct ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
      if (entry->ifa_name == nullptr || ((entry->ifa_flags & IFF_LOOPBACK) != 0) != loopbackPass) {
        continue;
      }
      if (std::find(names.begin(), names.end(), entry->ifa_name) == names.end()) {
        names.emplace_back(entry->ifa_name);
      }
    }
  }
  return names;
}

void PickPreferredAddresses(const struct ifaddrs* list, const std::string& name, std::string* ipv4,
                            std::string* ipv6) {
  ipv4->clear();
  ipv6->clear();
  // A link-local IPv6 address is usable only with its scope, which the
  // published entry cannot carry: it is the last resort.
  bool ipv6LinkLocal = false;
  for (const struct ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (!NamedAs(entry, name) || entry->ifa_addr == nullptr) continue;
    const int family = entry->ifa_addr->sa_family;
    if (family == AF_INET && ipv4->empty()) {
      char text[INET_ADDRSTRLEN];
      const auto* address = reinterpret_cast<const struct sockaddr_in*>(entry->ifa_addr);
      if (::inet_ntop(AF_INET, &address->sin_addr, text, sizeof text) != nullptr) *ipv4 = text;
    } else if (family == AF_INET6 && (ipv6->empty() || ipv6LinkLocal)) {
      const auto* address = reinterpret_cast<const struct sockaddr_in6*>(entry->ifa_addr);
      const bool linkLocal = IN6_IS_ADDR_LINKLOCAL(&address->sin6_addr);
      if (!ipv6->empty() && linkLocal) continue;
      char text[INET6_ADDRSTRLEN];
      if (::inet_ntop(AF_INET6, &address->sin6_addr, text, sizeof text) != nullptr) {
        *ipv6 = text;
        ipv6LinkLocal = linkLocal;
      }
    }
  }
}

}  // namespace platform
}  // namespace zel
