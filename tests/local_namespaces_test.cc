// Local namespaces on a real datastore and SQLite directory: a private
// directory with its record, a link for a non-UUID name and an entry; a
// failed creation leaves nothing; two processes racing make exactly one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "directory/DirectoryEntries.h"
#include "platform/EntryMarshal.h"
#include "platform/Host.h"
#include "platform/local/AtomicFile.h"
#include "platform/local/LocalNamespaces.h"
#include "platform/local/LocalPolicyService.h"
#include "platform/local/SqliteDirectory.h"
#include "support/HostDoubles.h"
#include "support/Messages.h"
#include "support/Process.h"
#include "support/TestHost.h"
#include "zel/OrvaCtlException.h"

namespace zel::platform {
namespace {

namespace fs = std::filesystem;
using test::MessageOf;
using ::testing::StartsWith;

const std::string kHost = "11111111-2222-4333-8444-555555555555";
const std::string kTarget = "3fb2b402-cfcb-4738-9622-3a566bb58dbf";
const std::string kConfig = ".iSCSI-CONFIG";
const std::string kPolicy = "\"failuresToTolerate\" \"1\"";
const std::string kOtherPolicy = "\"stripeWidth\" \"2\"";

class LocalNamespacesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(Root());
    InstallNamespaces(kHost);
    InstallDirectory();
  }
  void InstallNamespaces(const std::string& hostUuid) {
    HostConfig config = host_.Config();
    config.hostUuid = hostUuid;
    host_.Install<test::NamespacesDouble>(NewLocalNamespaces(config));
  }
  void InstallDirectory() {
    host_.Install<test::DirectoryDouble>(NewSqliteDirectory(host_.Home() + "/directory.db"));
  }
  void Unreachable(NOK_ReturnStatus status) {
    host_.Install(std::make_unique<test::UnreachableDirectory>(status));
  }
  const std::string& Root() const { return host_.Config().datastoreRoot; }
  Namespaces& Spaces() { return CurrentHost().GetNamespaces(); }
  std::string Create(const std::string& name, const std::string& policy = kPolicy) {
    return Spaces().CreateNamespace(Root(), name, policy, 0);
  }
  std::set<std::string> RootEntries() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(Root())) {
      names.insert(entry.path().filename().string());
    }
    return names;
  }
  // "owner/policy" of the entry of `uuid` and the owner in its record, or
  // "none" when there is none.
  std::string Announced(const std::string& uuid) {
    std::vector<DirectoryEntry> entries;
    if (CurrentHost().GetDirectory().Query(kStorageObjectEntryType, uuid, &entries) != NOK_OK) {
      return "none";
    }
    EXPECT_EQ(1u, entries.size());
    EXPECT_EQ(uuid, entries.front().entryId);
    StorageObjectRecord record;
    EXPECT_EQ(NOK_OK, UnmarshalStorageObjectRecord(entries.front().payload, &record, nullptr));
    return entries.front().ownerHost + "/" + record.ownerHost + "/" + record.policy;
  }
  nlohmann::json Record(const std::string& uuid) const {
    nlohmann::json record;
    EXPECT_TRUE(ReadJsonFile(Root() + "/" + uuid + "/" + kNamespaceRecordFile, "record", &record));
    return record;
  }
  test::ScopedTestHost host_;
};

TEST_F(LocalNamespacesTest, NamedNamespaceIsAPrivateDirectoryBehindALinkAndAUuidNameItself) {
  const std::string uuid = Create(kConfig);
  EXPECT_EQ(fs::path(uuid), fs::read_symlink(Root() + "/" + kConfig));
  EXPECT_EQ(fs::perms::owner_all, fs::status(Root() + "/" + uuid).permissions());
  std::string linked;
  ASSERT_EQ(NOK_OK, ZeldGetNamespaceUuid(&linked));
  EXPECT_EQ(uuid, linked);
  const nlohmann::json record = Record(uuid);
  EXPECT_EQ(nlohmann::json({uuid, kConfig, kHost, kPolicy}),
            nlohmann::json({record["objectUuid"], record["name"], record["ownerHost"],
                            record["policy"]}));
  EXPECT_EQ(kHost + "/" + kHost + "/" + kPolicy, Announced(uuid));
  EXPECT_EQ(kTarget, Create(kTarget, ""));
  EXPECT_EQ((std::set<std::string>{kConfig, uuid, kTarget}), RootEntries());
  EXPECT_EQ(kHost + "/" + kHost + "/", Announced(kTarget));
}

TEST_F(LocalNamespacesTest, TakenNameThrowsNamespaceExistsAndChangesNothing) {
  const std::string uuid = Create(kConfig);
  Create(kTarget);
  const std::set<std::string> before = RootEntries();
  EXPECT_THROW(Create(kConfig, kOtherPolicy), NamespaceExistsException);
  EXPECT_THROW(Create(kTarget, kOtherPolicy), NamespaceExistsException);
  EXPECT_EQ("Namespace " + kConfig + " already exists in " + Root(),
            MessageOf([&] { Create(kConfig); }));
  EXPECT_EQ(before, RootEntries());
  EXPECT_EQ(kPolicy, Record(uuid)["policy"]);
  EXPECT_EQ(kPolicy, Record(kTarget)["policy"]);
}

TEST_F(LocalNamespacesTest, FailedAnnouncementLeavesNothingBehind) {
  Unreachable(NOK_TIMEOUT);
  EXPECT_THAT(MessageOf([&] { Create(kConfig); }),
              testing::MatchesRegex("Failed to announce namespace \\.iSCSI-CONFIG \\([-0-9a-f]+\\) "
                                    "in the cluster directory: Timeout"));
  EXPECT_THAT(MessageOf([&] { Create(kTarget); }),
              StartsWith("Failed to announce namespace " + kTarget));
  EXPECT_TRUE(RootEntries().empty());
}

TEST_F(LocalNamespacesTest, BadNamePolicyOrUnknownNamespaceIsRefusedBeforeAnythingChanges) {
  test::WriteFile(Root() + "/plain", "");
  const std::vector<std::pair<std::function<void()>, std::string>> cases = {
      {[&] { Create("a/b"); }, "Invalid namespace name 'a/b'"},
      {[&] { Create(".."); }, "Invalid namespace name '..'"},
      {[&] { Create(""); }, "Invalid namespace name ''"},
      {[&] { Create(kConfig, "\"copies\" \"2\""); },
       "Invalid storage policy '\"copies\" \"2\"': unknown rule \"copies\""},
      {[&] { Spaces().DeleteNamespace(Root(), kConfig); },
       "Namespace " + kConfig + " does not exist in " + Root()},
      {[&] { Spaces().DeleteNamespace(Root(), kTarget); },
       "Namespace " + kTarget + " does not exist in " + Root()},
      {[&] { Spaces().DeleteNamespace(Root(), "plain"); }, Root() + "/plain is not a namespace link"},
  };
  for (const auto& [operation, message] : cases) EXPECT_EQ(message, MessageOf(operation));
  EXPECT_EQ((std::set<std::string>{"plain"}), RootEntries());
}

TEST_F(LocalNamespacesTest, RemovalTakesTreeLinkAndAnnouncementAndFinishesAnInterruptedOne) {
  for (bool interrupted : {false, true}) {
    SCOPED_TRACE(interrupted);
    const std::string uuid = Create(kConfig);
    test::WriteFile(Root() + "/" + kConfig + "/etc/zel.conf", "generation 1\n");
    Create(kTarget);
    test::WriteFile(Root() + "/" + kTarget + "/lun.qdsk", "disk");
    if (interrupted) {  // what a removal that stopped after the tree leaves
      fs::remove_all(Root() + "/" + uuid);
      fs::remove_all(Root() + "/" + kTarget);
    }
    Spaces().DeleteNamespace(Root(), kConfig);
    Spaces().DeleteNamespace(Root(), kTarget);
    EXPECT_TRUE(RootEntries().empty());
    EXPECT_EQ("none", Announced(uuid));
    EXPECT_EQ("none", Announced(kTarget));
  }
}

TEST_F(LocalNamespacesTest, UnreachableDirectoryKeepsTheWholeNamespace) {
  const std::string uuid = Create(kConfig);
  Unreachable(NOK_IO_ERROR);
  EXPECT_EQ("Failed to withdraw namespace " + kConfig + " (" + uuid +
                ") from the cluster directory: I/O error",
            MessageOf([&] { Spaces().DeleteNamespace(Root(), kConfig); }));
  EXPECT_EQ(fs::path(uuid), fs::read_symlink(Root() + "/" + kConfig));
  EXPECT_EQ(kPolicy, Record(uuid)["policy"]);
}

TEST_F(LocalNamespacesTest, PolicyUpdateRewritesRecordAndAnnouncementAndKeepsTheOwner) {
  const std::string uuid = Create(kConfig);
  InstallNamespaces("99999999-8888-4777-8666-555555555555");  // another host updates
  Spaces().UpdateNamespace(Root(), kConfig, kOtherPolicy);
  EXPECT_EQ(kOtherPolicy, Record(uuid)["policy"]);
  EXPECT_EQ(kHost, Record(uuid)["ownerHost"]);
  EXPECT_EQ(kHost + "/" + kHost + "/" + kOtherPolicy, Announced(uuid));
}

TEST_F(LocalNamespacesTest, InvalidOrUnannouncedPolicyUpdateKeepsTheOldPolicy) {
  Create(kTarget);
  EXPECT_EQ("Invalid storage policy '\"stripeWidth\" \"13\"': rule \"stripeWidth\" takes a whole "
            "number from 1 to 12, not \"13\"",
            MessageOf([&] { Spaces().UpdateNamespace(Root(), kTarget, "\"stripeWidth\" \"13\""); }));
  Unreachable(NOK_TIMEOUT);
  EXPECT_EQ("Failed to announce namespace " + kTarget + " (" + kTarget +
                ") in the cluster directory: Timeout",
            MessageOf([&] { Spaces().UpdateNamespace(Root(), kTarget, kOtherPolicy); }));
  EXPECT_EQ(kPolicy, Record(kTarget)["policy"]);
}

// The directory's threads do not survive a fork: each process opens its
// own, the child before the parent.
TEST_F(LocalNamespacesTest, TwoProcessesCreatingOneNameLeaveExactlyOneNamespace) {
  CurrentHost().SetDirectory(nullptr);
  enum { kCreated = 10, kExisted = 11, kFailed = 12 };
  auto attempt = [this] {
    try {
      Create(kConfig);
      return kCreated;
    } catch (const NamespaceExistsException&) {
      return kExisted;
    } catch (const HostCtl::Lib::Orva::OrvaCtlException&) {
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
  EXPECT_EQ((std::multiset<int>{kCreated, kExisted}), (std::multiset<int>{mine, child.Join()}));
  std::string uuid;
  ASSERT_EQ(NOK_OK, ZeldGetNamespaceUuid(&uuid));
  EXPECT_EQ((std::set<std::string>{kConfig, uuid}), RootEntries());
  std::vector<DirectoryEntry> owned;
  ASSERT_EQ(NOK_OK,
            CurrentHost().GetDirectory().QueryByHost(kStorageObjectEntryType, kHost, &owned));
  EXPECT_EQ(1u, owned.size());
}

}  // namespace
}  // namespace zel::platform
