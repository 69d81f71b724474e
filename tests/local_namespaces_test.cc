// Namespaces of a local host on a real datastore directory and a real
// SQLite directory: a namespace is a private directory named by its
// identity, with its record inside, a relative link for a name that is not
// a UUID, and a storage-object entry; a failed creation leaves nothing, a
// failed removal can be finished by asking again, and two processes racing
// for one name end with exactly one namespace.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "directory/DirectoryEntries.h"
#include "platform/EntryMarshal.h"
#include "platform/local/AtomicFile.h"
#include "platform/Host.h"
#include "platform/local/LocalNamespaces.h"
#include "platform/local/LocalPolicyService.h"
#include "platform/local/SqliteDirectory.h"
#include "support/HostDoubles.h"
#include "support/Messages.h"
#include "support/Process.h"
#include "support/TestHost.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace platform {
namespace {

using zel::test::MessageOf;
namespace fs = std::filesystem;
using HostCtl::Lib::Orva::OrvaCtlException;
using ::testing::HasSubstr;
using ::testing::StartsWith;

const std::string kHost = "11111111-2222-4333-8444-555555555555";
const std::string kOtherHost = "99999999-8888-4777-8666-555555555555";
const std::string kTarget = "3fb2b402-cfcb-4738-9622-3a566bb58dbf";
const std::string kConfig = ".iSCSI-CONFIG";
const std::string kPolicy = "\"failuresToTolerate\" \"1\"";
const std::string kOtherPolicy = "\"stripeWidth\" \"2\"";

class LocalNamespacesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(Root());
    host_.Install<test::NamespacesDouble>(NewLocalNamespaces(HostOf(kHost)));
    InstallDirectory();
  }

  HostConfig HostOf(const std::string& uuid) const {
    HostConfig config = host_.Config();
    config.hostUuid = uuid;
    return config;
  }
  const std::string& Root() const { return host_.Config().datastoreRoot; }
  std::string Db() const { return host_.Home() + "/directory.db"; }
  Namespaces& Spaces() { return CurrentHost().GetNamespaces(); }

  void InstallDirectory() { host_.Install<test::DirectoryDouble>(NewSqliteDirectory(Db())); }
  void InstallUnreachableDirectory(NOK_ReturnStatus status) {
    host_.Install(std::make_unique<test::UnreachableDirectory>(status));
  }

  std::set<std::string> RootEntries() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(Root())) {
      names.insert(entry.path().filename().string());
    }
    return names;
  }

  // The announcement of `uuid`; NOK_NOT_FOUND when there is none.
  NOK_ReturnStatus Announced(const std::string& uuid, platform::StorageObjectRecord* record,
                             std::string* owner = nullptr) {
    std::vector<DirectoryEntry> entries;
    const NOK_ReturnStatus status =
        CurrentHost().GetDirectory().Query(kStorageObjectEntryType, uuid, &entries);
    if (status != NOK_OK) return status;
    EXPECT_EQ(1u, entries.size());
    EXPECT_EQ(uuid, entries.front().entryId);
    if (owner != nullptr) *owner = entries.front().ownerHost;
    std::string error;
    EXPECT_EQ(NOK_OK,
              platform::UnmarshalStorageObjectRecord(entries.front().payload, record, &error))
        << error;
    return NOK_OK;
  }

  nlohmann::json Record(const std::string& uuid) const {
    nlohmann::json record;
    EXPECT_TRUE(ReadJsonFile(Root() + "/" + uuid + "/" + kNamespaceRecordFile, "record", &record));
    return record;
  }

  test::ScopedTestHost host_;
};

// ---- Creation ----------------------------------------------------------

using LocalNamespaceCreation = LocalNamespacesTest;

TEST_F(LocalNamespaceCreation, NamedNamespaceIsAPrivateDirectoryBehindALinkAndAUuidNameItself) {
  const std::string uuid = Spaces().CreateNamespace(Root(), kConfig, kPolicy, 0);

  EXPECT_EQ(fs::path(uuid), fs::read_symlink(Root() + "/" + kConfig));
  EXPECT_EQ(fs::perms::owner_all, fs::status(Root() + "/" + uuid).permissions());
  std::string linked;
  ASSERT_EQ(NOK_OK, ZeldGetNamespaceUuid(&linked));
  EXPECT_EQ(uuid, linked);

  const nlohmann::json record = Record(uuid);
  EXPECT_EQ(uuid, record["objectUuid"]);
  EXPECT_EQ(kConfig, record["name"]);
  EXPECT_EQ(kHost, record["ownerHost"]);
  EXPECT_EQ(kPolicy, record["policy"]);

  platform::StorageObjectRecord announced;
  std::string owner;
  ASSERT_EQ(NOK_OK, Announced(uuid, &announced, &owner));
  EXPECT_EQ(kHost, owner);
  EXPECT_EQ(kHost, announced.ownerHost);
  EXPECT_EQ(kPolicy, announced.policy);

  // A UUID name is the identity itself, without a link.
  EXPECT_EQ(kTarget, Spaces().CreateNamespace(Root(), kTarget, "", 0));
  EXPECT_EQ((std::set<std::string>{kConfig, uuid, kTarget}), RootEntries());
  ASSERT_EQ(NOK_OK, Announced(kTarget, &announced));
  EXPECT_EQ("", announced.policy);
}


TEST_F(LocalNamespaceCreation, TakenNameThrowsNamespaceExistsAndChangesNothing) {
  const std::string uuid = Spaces().CreateNamespace(Root(), kConfig, kPolicy, 0);
  Spaces().CreateNamespace(Root(), kTarget, kPolicy, 0);
  const std::set<std::string> before = RootEntries();

  EXPECT_THROW(Spaces().CreateNamespace(Root(), kConfig, kOtherPolicy, 0),
               NamespaceExistsException);
  EXPECT_THROW(Spaces().CreateNamespace(Root(), kTarget, kOtherPolicy, 0),
               NamespaceExistsException);
  EXPECT_EQ("Namespace " + kConfig + " already exists in " + Root(),
            MessageOf([&] { Spaces().CreateNamespace(Root(), kConfig, kPolicy, 0); }));

  EXPECT_EQ(before, RootEntries());
  EXPECT_EQ(kPolicy, Record(uuid)["policy"]);
  EXPECT_EQ(kPolicy, Record(kTarget)["policy"]);
}


TEST_F(LocalNamespaceCreation, FailedAnnouncementLeavesNothingBehind) {
  InstallUnreachableDirectory(NOK_TIMEOUT);
  const std::string message =
      MessageOf([&] { Spaces().CreateNamespace(Root(), kConfig, kPolicy, 0); });
  EXPECT_THAT(message, StartsWith("Failed to announce namespace " + kConfig + " ("));
  EXPECT_THAT(message, HasSubstr(") in the cluster directory: Timeout"));
  EXPECT_TRUE(RootEntries().empty());

  EXPECT_THAT(MessageOf([&] { Spaces().CreateNamespace(Root(), kTarget, kPolicy, 0); }),
              StartsWith("Failed to announce namespace " + kTarget));
  EXPECT_TRUE(RootEntries().empty());
}

TEST_F(LocalNamespaceCreation, BadNamePolicyOrUnknownNamespaceIsRefusedBeforeAnythingChanges) {
  EXPECT_EQ("Invalid namespace name 'a/b'",
            MessageOf([&] { Spaces().CreateNamespace(Root(), "a/b", kPolicy, 0); }));
  EXPECT_EQ("Invalid namespace name '..'",
            MessageOf([&] { Spaces().CreateNamespace(Root(), "..", kPolicy, 0); }));
  EXPECT_EQ("Invalid namespace name ''",
            MessageOf([&] { Spaces().CreateNamespace(Root(), "", kPolicy, 0); }));
  EXPECT_EQ("Invalid storage policy '\"copies\" \"2\"': unknown rule \"copies\"",
            MessageOf([&] { Spaces().CreateNamespace(Root(), kConfig, "\"copies\" \"2\"", 0); }));
  EXPECT_TRUE(RootEntries().empty());
  EXPECT_EQ("Namespace " + kConfig + " does not exist in " + Root(),
            MessageOf([&] { Spaces().DeleteNamespace(Root(), kConfig); }));
  EXPECT_EQ("Namespace " + kTarget + " does not exist in " + Root(),
            MessageOf([&] { Spaces().DeleteNamespace(Root(), kTarget); }));
  test::WriteFile(Root() + "/plain", "");
  EXPECT_EQ(Root() + "/plain is not a namespace link",
            MessageOf([&] { Spaces().DeleteNamespace(Root(), "plain"); }));
}

// ---- Removal -----------------------------------------------------------

using LocalNamespaceRemoval = LocalNamespacesTest;

TEST_F(LocalNamespaceRemoval, RemovesTreeLinkAndAnnouncementAndFinishesAnInterruptedRemoval) {
  const std::string uuid = Spaces().CreateNamespace(Root(), kConfig, kPolicy, 0);
  test::WriteFile(Root() + "/" + kConfig + "/etc/zel.conf", "generation 1\n");
  Spaces().CreateNamespace(Root(), kTarget, kPolicy, 0);
  test::WriteFile(Root() + "/" + kTarget + "/lun.qdsk", "disk");

  Spaces().DeleteNamespace(Root(), kConfig);
  Spaces().DeleteNamespace(Root(), kTarget);

  EXPECT_TRUE(RootEntries().empty());
  platform::StorageObjectRecord announced;
  EXPECT_EQ(NOK_NOT_FOUND, Announced(uuid, &announced));
  EXPECT_EQ(NOK_NOT_FOUND, Announced(kTarget, &announced));
  const std::string again = Spaces().CreateNamespace(Root(), kConfig, kPolicy, 0);
  Spaces().CreateNamespace(Root(), kTarget, kPolicy, 0);
  // What a removal that stopped after the tree leaves: a dangling link and
  // the announcement.
  fs::remove_all(Root() + "/" + again);
  fs::remove_all(Root() + "/" + kTarget);

  Spaces().DeleteNamespace(Root(), kConfig);
  Spaces().DeleteNamespace(Root(), kTarget);
  EXPECT_TRUE(RootEntries().empty());
  EXPECT_EQ(NOK_NOT_FOUND, Announced(again, &announced));
  EXPECT_EQ(NOK_NOT_FOUND, Announced(kTarget, &announced));
}


TEST_F(LocalNamespaceRemoval, UnreachableDirectoryKeepsTheWholeNamespace) {
  const std::string uuid = Spaces().CreateNamespace(Root(), kConfig, kPolicy, 0);
  InstallUnreachableDirectory(NOK_IO_ERROR);
  EXPECT_EQ("Failed to withdraw namespace " + kConfig + " (" + uuid +
                ") from the cluster directory: I/O error",
            MessageOf([&] { Spaces().DeleteNamespace(Root(), kConfig); }));
  EXPECT_EQ(fs::path(uuid), fs::read_symlink(Root() + "/" + kConfig));
  EXPECT_EQ(kPolicy, Record(uuid)["policy"]);
}


// ---- Policy updates ----------------------------------------------------

using LocalNamespacePolicyUpdate = LocalNamespacesTest;

TEST_F(LocalNamespacePolicyUpdate, RewritesRecordAndAnnouncementAndKeepsTheOwner) {
  const std::string uuid = Spaces().CreateNamespace(Root(), kConfig, kPolicy, 0);
  host_.Install<test::NamespacesDouble>(NewLocalNamespaces(HostOf(kOtherHost)));

  Spaces().UpdateNamespace(Root(), kConfig, kOtherPolicy);

  EXPECT_EQ(kOtherPolicy, Record(uuid)["policy"]);
  EXPECT_EQ(kHost, Record(uuid)["ownerHost"]);
  platform::StorageObjectRecord announced;
  std::string owner;
  ASSERT_EQ(NOK_OK, Announced(uuid, &announced, &owner));
  EXPECT_EQ(kOtherPolicy, announced.policy);
  EXPECT_EQ(kHost, announced.ownerHost);
  EXPECT_EQ(kHost, owner);
}



TEST_F(LocalNamespacePolicyUpdate, InvalidOrUnannouncedChangeKeepsTheOldPolicy) {
  Spaces().CreateNamespace(Root(), kTarget, kPolicy, 0);
  EXPECT_EQ("Invalid storage policy '\"stripeWidth\" \"13\"': rule \"stripeWidth\" takes a whole "
            "number from 1 to 12, not \"13\"",
            MessageOf([&] { Spaces().UpdateNamespace(Root(), kTarget, "\"stripeWidth\" \"13\""); }));
  EXPECT_EQ(kPolicy, Record(kTarget)["policy"]);
  InstallUnreachableDirectory(NOK_TIMEOUT);
  EXPECT_EQ("Failed to announce namespace " + kTarget + " (" + kTarget +
                ") in the cluster directory: Timeout",
            MessageOf([&] { Spaces().UpdateNamespace(Root(), kTarget, kOtherPolicy); }));
  EXPECT_EQ(kPolicy, Record(kTarget)["policy"]);
}

// ---- Hosts racing ------------------------------------------------------

class LocalNamespaceRace : public LocalNamespacesTest {
 protected:
  // The directory's threads do not survive a fork: each process opens its
  // own, the child before the parent.
  void SetUp() override {
    fs::create_directories(Root());
    host_.Install<test::NamespacesDouble>(NewLocalNamespaces(HostOf(kHost)));
  }
};

TEST_F(LocalNamespaceRace, TwoProcessesCreatingOneNameLeaveExactlyOneNamespace) {
  enum { kCreated = 10, kExisted = 11, kFailed = 12 };
  auto attempt = [this] {
    try {
      Spaces().CreateNamespace(Root(), kConfig, kPolicy, 0);
      return kCreated;
    } catch (const NamespaceExistsException&) {
      return kExisted;
    } catch (const OrvaCtlException&) {
      return kFailed;
    }
  };
  test::ChildProcess child([&](test::ChildControl& control) {
    InstallDirectory();
    control.Ready();
    control.AwaitRelease();
    return static_cast<int>(attempt());
  });
  ASSERT_TRUE(child.AwaitReady());
  InstallDirectory();
  child.Release();
  const int mine = attempt();
  const int theirs = child.Join();

  EXPECT_EQ((std::multiset<int>{kCreated, kExisted}), (std::multiset<int>{mine, theirs}));
  std::string uuid;
  ASSERT_EQ(NOK_OK, ZeldGetNamespaceUuid(&uuid));
  EXPECT_EQ((std::set<std::string>{kConfig, uuid}), RootEntries());
  platform::StorageObjectRecord announced;
  EXPECT_EQ(NOK_OK, Announced(uuid, &announced));
  std::vector<DirectoryEntry> owned;
  ASSERT_EQ(NOK_OK,
            CurrentHost().GetDirectory().QueryByHost(kStorageObjectEntryType, kHost, &owned));
  EXPECT_EQ(1u, owned.size());
}

}  // namespace
}  // namespace platform
}  // namespace zel
