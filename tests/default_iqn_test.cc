// The IQN of a target created without one: pattern, readable unique part
// from the alias, naming authority from the configuration or the domain.
#include <gtest/gtest.h>

#include <boost/regex.hpp>
#include <string>

#include "edit/DefaultIqn.h"
#include "edit/NamePatterns.h"
#include "support/TestHost.h"

namespace NokCtl::Orva::IscsiTarget::Util {
namespace {

using zel::platform::HostConfig;
using zel::test::TempHome;

using ScopedHostWith = zel::test::ScopedTestHost;

HostConfig ConfigNamed(const TempHome& home, const std::string& hostName) {
  HostConfig config = zel::platform::EmbeddedHostConfig(home.Path());
  config.hostName = hostName;
  return config;
}

// The IQN generated for `alias`, checked against the target pattern and the
// expected text before the random part.
void ExpectIqn(const std::string& alias, const std::string& expectedBeforeRandom) {
  const std::string iqn = GetDefautltIQN(alias);
  EXPECT_TRUE(boost::regex_match(iqn, GetNamePatterns().targetIqn)) << iqn;
  ASSERT_EQ(expectedBeforeRandom.size() + 8, iqn.size()) << alias << " -> " << iqn;
  EXPECT_EQ(expectedBeforeRandom, iqn.substr(0, expectedBeforeRandom.size()));
  EXPECT_TRUE(boost::regex_match(iqn.substr(expectedBeforeRandom.size()),
                                 boost::regex("[0-9a-f]{8}")))
      << iqn;
}

TEST(DefaultIqn, AliasIsShownReadablyOrLeftOutWhenNothingOfItFits) {
  TempHome home;
  ScopedHostWith host(ConfigNamed(home, "node-1"));
  ExpectIqn("Web Server #1", "iqn.1998-01.local.zel:web-server-1-");
  ExpectIqn("..--db.v2--..", "iqn.1998-01.local.zel:db.v2-");
  ExpectIqn("caf\xc3\xa9 \xe6\x95\xb0\xe6\x8d\xae", "iqn.1998-01.local.zel:caf-");
  ExpectIqn("\xe6\x95\xb0\xe6\x8d\xae\xe5\xba\x93", "iqn.1998-01.local.zel:");
  ExpectIqn("\"quoted\":\t\x01", "iqn.1998-01.local.zel:quoted-");
  ExpectIqn(std::string(200, 'Q'), "iqn.1998-01.local.zel:" + std::string(64, 'q') + "-");
  // Shortening never leaves a separator in front of the random part.
  ExpectIqn(std::string(63, 'a') + "-.b", "iqn.1998-01.local.zel:" + std::string(63, 'a') + "-");
  // Two targets with the same alias get different names.
  EXPECT_NE(GetDefautltIQN("data"), GetDefautltIQN("data"));
}

// The configured domain is reversed in lower case; without one the host's
// own domain is, unless it could not name an IQN authority.
TEST(DefaultIqn, NamingAuthorityIsTheConfiguredDomainOrTheHostsOwn) {
  TempHome home;
  {
    ScopedHostWith host(ConfigNamed(home, "node-1.Lab.Example.org."));
    ExpectIqn("db", "iqn.1998-01.org.example.lab:db-");
  }
  {
    ScopedHostWith host(ConfigNamed(home, "node-1.lab_2.example.org"));
    ExpectIqn("db", "iqn.1998-01.local.zel:db-");
  }
  zel::test::WriteFile(
      home.Path() + "/host.json",
      R"({"hostName": "node-1.lab.example.org", "iqnDomain": "Storage.Example.NET"})");
  ScopedHostWith host(zel::platform::LoadHostConfig(home.Path()));
  ExpectIqn("db", "iqn.1998-01.net.example.storage:db-");
}

}  // namespace
}  // namespace NokCtl::Orva::IscsiTarget::Util
