// Publication of this host's interfaces into a real SQLite directory: only
// the difference is written under the same identities, a failure ends a pass
// and the next repairs; and which configured interfaces count as down.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "directory/DirectoryEntries.h"
#include "directory/NicPublication.h"
#include "service/DownNics.h"
#include "platform/Host.h"
#include "platform/local/SqliteDirectory.h"
#include "support/FakeNetworkInterfaces.h"
#include "support/Messages.h"
#include "support/ServiceHome.h"
#include "support/TestHost.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl::Orva::IscsiTarget::Util {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using zel::platform::ZelInterfaceRecord;
using zel::platform::CurrentHost;
using zel::platform::Directory;
using zel::platform::DirectoryEntry;
using zel::platform::LogLevel;
using zel::platform::NOKNIC_DOWN;
using zel::platform::NOKNIC_NO_CARRIER;
using zel::platform::NOKNIC_NO_UPLINKS;
using zel::platform::NOKNIC_UP;
using zel::test::FakeNetworkInterfaces;

const std::string kOtherHost = "99999999-8888-4777-8666-555555555555";

struct Published {
  std::string entryId;
  uint64_t version;
  std::string ipv4;
  std::string ipv6;
};

class NicPublicationTest : public ::testing::Test {
 protected:
  int Writes() const { return directory_.Count("AsyncUpdate") + directory_.Count("Delete"); }

  // This host's published interfaces by name, with their addresses as the
  // other hosts' reader gives them.
  std::map<std::string, Published> PublishedNow() {
    std::vector<DirectoryEntry> entries;
    const NOK_ReturnStatus status =
        directory_.Query(BRIX_TYPE_ORVA_ISCSI_INTERFACE_MAP, hostUuid_, &entries);
    EXPECT_TRUE(status == NOK_OK || status == NOK_NOT_FOUND) << status;
    std::map<std::string, Published> byName;
    for (const DirectoryEntry& entry : entries) {
      EXPECT_EQ(hostUuid_, entry.ownerHost);
      ZelInterfaceRecord record;
      EXPECT_EQ(NOK_OK, zel::platform::UnmarshalInterfaceRecord(entry.payload, &record, nullptr));
      Published published{entry.entryId, entry.version, "", ""};
      EXPECT_EQ(NOK_OK, ZeldBrixGetInterfaceAddress(hostUuid_, record.name, &published.ipv4,
                                                    &published.ipv6));
      EXPECT_TRUE(byName.emplace(record.name, published).second) << "twice: " << record.name;
    }
    return byName;
  }
  // "name ipv4 ipv6" of each published interface, "-" for no address.
  static std::string Addresses(const std::map<std::string, Published>& published) {
    std::string text;
    for (const auto& [name, nic] : published) {
      text += (text.empty() ? "" : ", ") + name + " " + (nic.ipv4.empty() ? "-" : nic.ipv4) + " " +
              (nic.ipv6.empty() ? "-" : nic.ipv6);
    }
    return text;
  }
  bool Logged(LogLevel level, const std::string& text) const { return log_->Count(level, text) > 0; }
  // Publishes an interface entry of `host` as written by hand.
  void WriteEntry(const std::string& host, const std::string& payload) {
    const DirectoryEntry entry{BRIX_TYPE_ORVA_ISCSI_INTERFACE_MAP, host, host, "", payload, 0};
    ASSERT_EQ(NOK_OK, zel::test::PublishAndWait(directory_, entry));
  }
  zel::test::TempHome home_;
  zel::test::ScopedTestHost host_{zel::platform::LoadHostConfig(home_.Path())};
  const std::string hostUuid_ = host_.Config().hostUuid;
  zel::test::RecordingLogSink* log_ = &host_.Log();
  zel::test::DirectoryDouble& directory_ = host_.Install<zel::test::DirectoryDouble>(
      zel::platform::NewSqliteDirectory(host_.Config().directoryPath));
  FakeNetworkInterfaces* nics_ = &host_.Install(std::make_unique<FakeNetworkInterfaces>());
};

TEST_F(NicPublicationTest, FirstPassPublishesEveryInterfaceUnderThisHost) {
  nics_->Set("nok0", NOKNIC_UP, "10.0.0.5", "fd00::5");
  nics_->Set("nok1", NOKNIC_DOWN, "192.168.7.1", "");
  nics_->Set("nok2", NOKNIC_UP, "", "");
  nics_->Set("nok3", NOKNIC_UP, "10.0.0.256", "fd00::5::6");  // unparsable: no address
  PublishNokNicsToBrix();
  EXPECT_EQ("nok0 10.0.0.5 fd00::5, nok1 192.168.7.1 -, nok2 - -, nok3 - -",
            Addresses(PublishedNow()));
  for (const std::string line : {"Util: Start to publish noknics to brix",
                                 "Util: Getting nok interface entries from BRIX for this host.",
                                 "Util: Successfully updated BRIX interface entry for nok nic nok2"}) {
    EXPECT_TRUE(Logged(LogLevel::Info, line)) << line;
  }
  EXPECT_THAT(log_->Texts(LogLevel::Warning), IsEmpty());
}

TEST_F(NicPublicationTest, EachPassWritesOnlyTheDifferenceUnderTheSameIdentities) {
  nics_->Set("nok0", NOKNIC_UP, "10.0.0.5", "fd00::5");
  nics_->Set("nok1", NOKNIC_UP, "10.0.1.5", "");
  nics_->Set("nok2", NOKNIC_UP, "10.0.2.5", "fd00:2::5");
  PublishNokNicsToBrix();
  const std::map<std::string, Published> before = PublishedNow();
  const int writes = Writes();
  nics_->SetAddresses("nok0", "10.0.0.6", "fd00::5");
  nics_->SetAddresses("nok1", "10.0.1.5", "fd00:1::7");
  PublishNokNicsToBrix();
  EXPECT_EQ(writes + 2, Writes());
  std::map<std::string, Published> after = PublishedNow();
  EXPECT_EQ("nok0 10.0.0.6 fd00::5, nok1 10.0.1.5 fd00:1::7, nok2 10.0.2.5 fd00:2::5",
            Addresses(after));
  for (const std::string name : {"nok0", "nok1", "nok2"}) {
    EXPECT_EQ(before.at(name).entryId, after.at(name).entryId) << name;
  }
  EXPECT_GT(after.at("nok0").version, before.at("nok0").version);
  EXPECT_EQ(before.at("nok2").version, after.at("nok2").version);
  EXPECT_FALSE(log_->Contains("Util: Start to delete brix entry for 'nok0'"));
  PublishNokNicsToBrix();
  EXPECT_EQ(writes + 2, Writes());

  // A vanished interface is deleted, a new one gets its own entry.
  nics_->Remove("nok1");
  nics_->Set("nok3", NOKNIC_UP, "10.0.3.5", "");
  PublishNokNicsToBrix();
  const std::map<std::string, Published> last = PublishedNow();
  EXPECT_EQ("nok0 10.0.0.6 fd00::5, nok2 10.0.2.5 fd00:2::5, nok3 10.0.3.5 -", Addresses(last));
  EXPECT_EQ(after.at("nok0").version, last.at("nok0").version);
  for (const std::string name : {"nok0", "nok1", "nok2"}) {
    EXPECT_NE(before.at(name).entryId, last.at("nok3").entryId) << name;
  }
  EXPECT_TRUE(Logged(LogLevel::Info, "Util: Start to delete brix entry for 'nok1'"));
}

TEST_F(NicPublicationTest, UnreadableEntryOfThisHostIsReplacedAndOtherHostsAreLeftAlone) {
  WriteEntry(hostUuid_, "{\"type\":\"BrixOrvaIscsiInterfaceMap\",\"name\":\"nok0\"}");
  ZelInterfaceRecord record;
  record.name = "nok0";
  record.ipv4 = {10, 9, 9, 9};
  std::string payload;
  ASSERT_EQ(NOK_OK, zel::platform::MarshalInterfaceRecord(record, &payload));
  WriteEntry(kOtherHost, payload);
  nics_->Set("nok0", NOKNIC_UP, "10.0.0.5", "");
  PublishNokNicsToBrix();
  EXPECT_EQ("nok0 10.0.0.5 -", Addresses(PublishedNow()));
  EXPECT_TRUE(Logged(LogLevel::Warning,
                     "Util: Failed to umsh ZEL interface entry from BRIX with error payload lacks "
                     "text member 'ipv4'"));
  std::string ipv4;
  ASSERT_EQ(NOK_OK, ZeldBrixGetInterfaceAddress(kOtherHost, "nok0", &ipv4, nullptr));
  EXPECT_EQ("10.9.9.9", ipv4);
}

TEST_F(NicPublicationTest, FailedQueryOrListingIsLoggedAndChangesNothing) {
  nics_->Set("nok0", NOKNIC_UP, "10.0.0.5", "");
  directory_.FailNext("Query", NOK_TIMEOUT);
  EXPECT_NO_THROW(PublishNokNicsToBrix());
  EXPECT_EQ(0, Writes());
  const std::string timeout = "Failed to get ZEL interface entry from BRIX with error Timeout";
  EXPECT_TRUE(Logged(LogLevel::Error, "Util: " + timeout));
  EXPECT_TRUE(Logged(LogLevel::Error, "Util: Failed to publish nok nic info to BRIX " + timeout));
  PublishNokNicsToBrix();
  const int writes = Writes();
  nics_->FailListing("Failed to list the network interfaces of this host: Out of memory");
  EXPECT_NO_THROW(PublishNokNicsToBrix());
  EXPECT_EQ(writes, Writes());
  EXPECT_EQ("nok0 10.0.0.5 -", Addresses(PublishedNow()));
  EXPECT_TRUE(Logged(LogLevel::Error,
                     "Util: Failed to publish nok nic info to BRIX Failed to list the network "
                     "interfaces of this host: Out of memory"));
}

TEST_F(NicPublicationTest, FirstFailureEndsThePassAndTheNextPassRepairs) {
  nics_->Set("nok0", NOKNIC_UP, "10.0.0.5", "");
  nics_->Set("nok1", NOKNIC_UP, "10.0.1.5", "");
  PublishNokNicsToBrix();
  const std::map<std::string, Published> before = PublishedNow();

  // nok0 vanished, nok1 changed, nok2 is new. The published entries come in
  // the order of their random identities, so nok1 may be updated before the
  // delete of nok0 fails; the addition comes after both and is never reached.
  nics_->Remove("nok0");
  nics_->SetAddresses("nok1", "10.0.1.6", "");
  nics_->Set("nok2", NOKNIC_UP, "10.0.2.5", "");
  directory_.FailNext("Delete", NOK_IO_ERROR);
  PublishNokNicsToBrix();
  const std::string failure = "Failed to delete interface entry UUID " + before.at("nok0").entryId +
                              " with error I/O error";
  EXPECT_TRUE(Logged(LogLevel::Error, "Util: " + failure));
  EXPECT_TRUE(Logged(LogLevel::Error, "Util: Failed to publish nok nic info to BRIX " + failure));
  const std::map<std::string, Published> mid = PublishedNow();
  EXPECT_EQ(1u, mid.count("nok0"));
  EXPECT_EQ(0u, mid.count("nok2"));
  PublishNokNicsToBrix();
  const std::map<std::string, Published> after = PublishedNow();
  EXPECT_EQ("nok1 10.0.1.6 -, nok2 10.0.2.5 -", Addresses(after));
  EXPECT_EQ(before.at("nok1").entryId, after.at("nok1").entryId);
}

TEST_F(NicPublicationTest, FailedUpdateNamesTheInterfaceAndDeletingAGoneEntryIsOnlyLogged) {
  const std::string message =
      "Failed to update BRIX interface entry for nok nic nok0 with status Busy";
  directory_.FailNext("AsyncUpdate", NOK_BUSY);
  ZelInterfaceRecord record;
  record.name = "nok0";
  EXPECT_EQ(message, zel::test::MessageOf([&] { UpdateNetBrixEntry(record, ""); }));
  EXPECT_TRUE(Logged(LogLevel::Error, "Util: " + message));
  EXPECT_THAT(PublishedNow(), IsEmpty());
  EXPECT_NO_THROW(DeleteNetBrixEntry("0b7d7c52-3c0e-4d8e-9a51-6f2a9e4c1d20"));
  EXPECT_TRUE(Logged(LogLevel::Warning,
                     "Util: Failed to get ZEL interface entry from BRIX with error Not found"));
}

TEST(NicPublicationWithoutDirectoryTest, PassFailsWithTheLibraryMessage) {
  zel::test::ScopedTestHost host;
  host.Install(std::make_unique<FakeNetworkInterfaces>()).Set("nok0", NOKNIC_UP, "10.0.0.5", "");
  EXPECT_THROW(BrixHandle(), OrvaCtlException);
  EXPECT_NO_THROW(PublishNokNicsToBrix());
  EXPECT_TRUE(host.Log().Contains(
      "Util: Failed to publish nok nic info to BRIX Failed to initialize BRIX library: " +
      std::string(NOK_ReturnStatusToString(NOK_NO_CONNECTION))));
}

class DownNokNicTest : public ::testing::Test {
 protected:
  // The standard configuration with its default portal group listening on
  // `listens` instead of nok0:3260.
  void ListenOn(const std::vector<std::string>& listens) {
    std::string conf = zel::test::kStandardConf, lines;
    for (const std::string& listen : listens) lines += "\t listen " + listen + "\n";
    const std::string standard = "\t listen nok0:3260\n";
    home_.WriteConf(conf.replace(conf.find(standard), standard.size(), lines));
  }
  zel::test::ServiceHome home_;
  zel::test::TestServices services_ = home_.InstallTestHost();
  FakeNetworkInterfaces* nics_ = zel::test::InstallFakeNetworkInterfaces();
};

TEST_F(DownNokNicTest, InterfacesDownOrWithoutCarrierAreReportedInConfigurationOrder) {
  ListenOn({"nok2:3260", "nok0:3261", "nok3:3262", "nok1:3263", "nok4:3264", "nok2:3265"});
  nics_->Set("nok0", NOKNIC_UP);
  nics_->Set("nok1", NOKNIC_DOWN);
  nics_->Set("nok2", NOKNIC_NO_CARRIER);
  nics_->Set("nok3", NOKNIC_NO_UPLINKS);
  nics_->Set("unused", NOKNIC_DOWN);
  EXPECT_THAT(GetZelDownNokNics(), ElementsAre("nok2", "nok1"));
  EXPECT_EQ(1, services_.log->Count(LogLevel::Warning,
                                    "Util: Receive NOKNIC_NONE for iSCSI NokNic(nok4)"));
}

TEST_F(DownNokNicTest, InterfaceWithoutUplinksIsNeverDownAndLoggedOncePerFiftyLooks) {
  ListenOn({"nok3:3260"});
  nics_->Set("nok3", NOKNIC_NO_UPLINKS);
  const std::string line = "Util: Retrieve physical Nic uplinks Empty for iSCSI NokNic(nok3)";
  // The counter is the process's: whatever other tests left in it, any 50
  // consecutive looks log exactly once.
  for (int look = 0; look < 50; ++look) EXPECT_THAT(GetZelDownNokNics(), IsEmpty());
  EXPECT_EQ(1, services_.log->Count(LogLevel::Info, line));
  for (int look = 0; look < 50; ++look) EXPECT_THAT(GetZelDownNokNics(), IsEmpty());
  EXPECT_EQ(2, services_.log->Count(LogLevel::Info, line));
  nics_->SetState("nok3", NOKNIC_DOWN);
  EXPECT_THAT(GetZelDownNokNics(), ElementsAre("nok3"));
}

}  // namespace
}  // namespace NokCtl::Orva::IscsiTarget::Util
