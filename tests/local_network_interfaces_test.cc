// The network interfaces of a Linux host: the state of an interface read
// from a sysfs tree (a fake one under a temporary directory, laid out as
// /sys/class/net is), the names and preferred addresses chosen from
// getifaddrs lists built by hand, and the same calls on this machine.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <deque>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "platform/local/LocalNetworkInterfaces.h"
#include "support/TestHost.h"

namespace zel {
namespace platform {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

// A fake /sys/class/net: one directory per interface.
class LocalNicStateTest : public ::testing::Test {
 protected:
  std::string Root() const { return home_.Path() + "/class/net"; }

  // An interface with its operstate and, unless empty, its carrier, each
  // written as the kernel does, with a line end.
  void Nic(const std::string& name, const std::string& operstate, const std::string& carrier) {
    fs::create_directories(Root() + "/" + name);
    test::WriteFile(Root() + "/" + name + "/operstate", operstate + "\n", 0444);
    if (!carrier.empty()) test::WriteFile(Root() + "/" + name + "/carrier", carrier + "\n", 0444);
  }
  void Make(const std::string& relative) { fs::create_directories(Root() + "/" + relative); }

  NokNicState State(const std::string& name) {
    return LocalNetworkInterfaces(Root()).GetNokKernelNicState(name);
  }

  test::TempHome home_;
};

TEST_F(LocalNicStateTest, StateFollowsOperstateThenCarrier) {
  Nic("eth0", "up", "1");
  Nic("eth1", "up", "0");
  // The kernel refuses to read the carrier of an interface that is down.
  Nic("eth2", "down", "");
  Nic("eth3", "down", "1");
  Nic("tun0", "unknown", "1");
  Nic("tun1", "unknown", "0");
  Nic("vlan10", "lowerlayerdown", "0");
  Nic("wlan0", "dormant", "1");

  EXPECT_EQ(NOKNIC_UP, State("eth0"));
  EXPECT_EQ(NOKNIC_NO_CARRIER, State("eth1"));
  EXPECT_EQ(NOKNIC_DOWN, State("eth2"));
  EXPECT_EQ(NOKNIC_DOWN, State("eth3"));
  EXPECT_EQ(NOKNIC_UP, State("tun0"));
  EXPECT_EQ(NOKNIC_NO_CARRIER, State("tun1"));
  EXPECT_EQ(NOKNIC_NO_CARRIER, State("vlan10"));
  EXPECT_EQ(NOKNIC_NO_CARRIER, State("wlan0"));
  EXPECT_EQ(NOKNIC_NONE, State("eth9"));
  EXPECT_EQ(NOKNIC_NONE, State(""));
  // A name is one path component: nothing outside the tree is read.
  EXPECT_EQ(NOKNIC_NONE, State("../net/eth0"));
}

TEST_F(LocalNicStateTest, BridgeOrBondWithoutLowerInterfaceHasNoUplinksWhateverItsOperstate) {
  // The kernel reports a bridge without ports "down"; it has no uplinks
  // rather than a failed link.
  Nic("br0", "down", "");
  Make("br0/bridge");
  Make("br0/brif");
  Nic("bond0", "up", "0");
  Make("bond0/bonding");
  // With a lower interface, a master's own link decides.
  Nic("br1", "up", "1");
  Make("br1/bridge");
  Make("br1/brif/eth0");
  Nic("br2", "up", "0");
  Make("br2/bridge");
  Make("br2/lower_eth1");
  Nic("bond1", "down", "");
  Make("bond1/bonding");
  Make("bond1/lower_eth2");
  // A VLAN has a lower interface too, but is no master.
  Nic("vlan10", "up", "1");
  Make("vlan10/lower_eth0");

  EXPECT_EQ(NOKNIC_NO_UPLINKS, State("br0"));
  EXPECT_EQ(NOKNIC_NO_UPLINKS, State("bond0"));
  EXPECT_EQ(NOKNIC_UP, State("br1"));
  EXPECT_EQ(NOKNIC_NO_CARRIER, State("br2"));
  EXPECT_EQ(NOKNIC_DOWN, State("bond1"));
  EXPECT_EQ(NOKNIC_UP, State("vlan10"));
}

// A getifaddrs list built by hand; entries live as long as the list.
class IfaddrsList {
 public:
  // An entry of `name` without an address (as getifaddrs gives for the link
  // layer), or with `address` of `family`.
  void Add(const std::string& name, unsigned flags, int family = AF_UNSPEC,
           const char* address = nullptr) {
    Entry& entry = entries_.emplace_back();
    entry.name = name;
    entry.ifa.ifa_flags = flags;
    if (family == AF_INET) {
      auto* in = reinterpret_cast<struct sockaddr_in*>(&entry.address);
      in->sin_family = AF_INET;
      EXPECT_EQ(1, ::inet_pton(AF_INET, address, &in->sin_addr));
      entry.ifa.ifa_addr = reinterpret_cast<struct sockaddr*>(&entry.address);
    } else if (family == AF_INET6) {
      auto* in6 = reinterpret_cast<struct sockaddr_in6*>(&entry.address);
      in6->sin6_family = AF_INET6;
      EXPECT_EQ(1, ::inet_pton(AF_INET6, address, &in6->sin6_addr));
      entry.ifa.ifa_addr = reinterpret_cast<struct sockaddr*>(&entry.address);
    }
  }

  const struct ifaddrs* Get() {
    struct ifaddrs* next = nullptr;
    for (auto it = entries_.rbegin(); it != entries_.rend(); ++it) {
      it->ifa.ifa_name = it->name.data();
      it->ifa.ifa_next = next;
      next = &it->ifa;
    }
    return next;
  }

 private:
  struct Entry {
    std::string name;
    struct ifaddrs ifa {};
    struct sockaddr_storage address {};
  };
  std::deque<Entry> entries_;
};

TEST(LocalNicAddressTest, NamesLeaveOutLoopbackAndComeOnceInFirstSeenOrder) {
  IfaddrsList list;
  list.Add("lo", IFF_UP | IFF_LOOPBACK);
  list.Add("eth1", IFF_UP);
  list.Add("eth0", 0);
  list.Add("lo", IFF_UP | IFF_LOOPBACK, AF_INET, "127.0.0.1");
  list.Add("eth0", 0, AF_INET, "10.0.0.1");
  list.Add("br0", IFF_UP, AF_INET6, "fd00::9");
  list.Add("eth1", IFF_UP, AF_INET6, "fd00::1");

  EXPECT_THAT(ListNokNicNames(list.Get()), ElementsAre("eth1", "eth0", "br0"));
}

TEST(LocalNicAddressTest, FirstIpv4AndFirstIpv6BeyondTheLinkArePreferred) {
  IfaddrsList list;
  list.Add("eth0", IFF_UP);
  list.Add("eth1", IFF_UP, AF_INET, "10.0.1.1");
  list.Add("eth0", IFF_UP, AF_INET6, "fe80::1");
  list.Add("eth0", IFF_UP, AF_INET, "10.0.0.1");
  list.Add("eth1", IFF_UP, AF_INET6, "fd00:1::1");
  list.Add("eth0", IFF_UP, AF_INET, "10.0.0.2");
  list.Add("eth0", IFF_UP, AF_INET6, "fe80::2");
  list.Add("eth0", IFF_UP, AF_INET6, "fd00::2");
  list.Add("eth0", IFF_UP, AF_INET6, "fd00::3");

  std::string ipv4 = "stale";
  std::string ipv6 = "stale";
  PickPreferredAddresses(list.Get(), "eth0", &ipv4, &ipv6);

  EXPECT_EQ("10.0.0.1", ipv4);
  EXPECT_EQ("fd00::2", ipv6);
}

TEST(LocalNicAddressTest, LinkLocalIpv6IsTheLastResortAndNoAddressGivesEmptyTexts) {
  IfaddrsList list;
  list.Add("eth0", IFF_UP, AF_INET6, "fe80::1");
  list.Add("eth0", IFF_UP, AF_INET6, "fe80::2");
  list.Add("eth1", IFF_UP);
  list.Add("eth2", IFF_UP, AF_INET, "10.0.2.1");

  std::string ipv4 = "stale";
  std::string ipv6 = "stale";
  PickPreferredAddresses(list.Get(), "eth0", &ipv4, &ipv6);
  EXPECT_EQ("", ipv4);
  EXPECT_EQ("fe80::1", ipv6);

  PickPreferredAddresses(list.Get(), "eth1", &ipv4, &ipv6);
  EXPECT_EQ("", ipv4);
  EXPECT_EQ("", ipv6);
}

TEST(LocalNicThisMachineTest, EveryListedInterfaceHasAKernelStateAndLoopbackIsLeftOut) {
  LocalNetworkInterfaces nics;
  const std::vector<std::string> names = nics.GetNokKernelNicNames();

  EXPECT_EQ(names.size(), std::set<std::string>(names.begin(), names.end()).size());
  EXPECT_EQ(names.end(), std::find(names.begin(), names.end(), "lo"));
  for (const std::string& name : names) EXPECT_NE(NOKNIC_NONE, nics.GetNokKernelNicState(name));
  EXPECT_EQ(NOKNIC_NONE, nics.GetNokKernelNicState("no-such-nic0"));
}

TEST(LocalNicThisMachineTest, LoopbackAddressIsFoundAndAnUnknownInterfaceHasNone) {
  std::unique_ptr<NetworkInterfaces> nics = NewLocalNetworkInterfaces();
  std::string ipv4;
  std::string ipv6;

  nics->GetPreferredZelNetworkAddressForNokNic("lo", &ipv4, &ipv6);
  EXPECT_EQ("127.0.0.1", ipv4);

  nics->GetPreferredZelNetworkAddressForNokNic("no-such-nic0", &ipv4, &ipv6);
  EXPECT_EQ("", ipv4);
  EXPECT_EQ("", ipv6);
}

}  // namespace
}  // namespace platform
}  // namespace zel
