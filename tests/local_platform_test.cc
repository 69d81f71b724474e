// A local host and the backends of its services: the identity and
// configuration its home keeps in host.json, the services built where that
// names, the cluster membership, the configuration store, the datastore
// root, the network interfaces (from a sysfs tree and getifaddrs lists built
// by hand, and of this machine) and the storage policies.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <net/if.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <tuple>

#include <nlohmann/json.hpp>

#include "local_directory_support.h"
#include "platform/Host.h"
#include "platform/HostConfig.h"
#include "platform/local/JsonConfigStore.h"
#include "platform/local/LocalClusterFacts.h"
#include "platform/local/LocalDiskLibrary.h"
#include "platform/local/LocalNetworkInterfaces.h"
#include "platform/local/LocalPolicyService.h"
#include "platform/local/SqliteDirectory.h"
#include "support/Messages.h"
#include "support/Process.h"
#include "support/TestHost.h"

namespace zel {
namespace platform {
namespace {

namespace fs = std::filesystem;
using HostCtl::Orva::IscsiTarget::DefaultInfo;
using test::ChildControl;
using test::ChildProcess;
using test::MessageOf;
using test::ReadFile;
using test::TempHome;
using test::WriteFile;
using ::testing::ElementsAre;

const std::string kHostA = "11111111-2222-4333-8444-555555555555";
const std::string kNamespace = "8f3b6c1e-52d4-4a0b-9c7e-1d2f3a4b5c6d";

bool IsCanonicalUuid(const std::string& text) {
  return std::regex_match(text, std::regex("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}"));
}

ino_t InodeOf(const std::string& path) {
  struct stat info;
  EXPECT_EQ(0, ::stat(path.c_str(), &info)) << path;
  return info.st_ino;
}

TEST(HostConfigIdentity, FirstUseMakesAnOwnerOnlyHomeWithAnIdentityKeptWithoutRewrites) {
  TempHome temp, other;
  const std::string home = temp.Path() + "/not/yet/home";
  const HostConfig config = LoadHostConfig(home);
  struct stat info;
  ASSERT_EQ(0, ::stat(home.c_str(), &info));
  EXPECT_EQ(0700u, info.st_mode & 07777);
  EXPECT_TRUE(IsCanonicalUuid(config.hostUuid)) << config.hostUuid;
  char name[HOST_NAME_MAX + 1] = {};
  ::gethostname(name, sizeof name - 1);
  EXPECT_EQ(name, config.hostName);
  const nlohmann::json stored = nlohmann::json::parse(ReadFile(home + "/host.json"));
  EXPECT_EQ(config.hostUuid, stored.at("hostUuid"));
  EXPECT_EQ(config.hostName, stored.at("hostName"));
  const ino_t written = InodeOf(home + "/host.json");
  EXPECT_EQ(config.hostUuid, LoadHostConfig(home).hostUuid);
  EXPECT_EQ(config.hostUuid, LoadHostConfig(home).hostUuid);
  EXPECT_EQ(written, InodeOf(home + "/host.json"));
  EXPECT_NE(config.hostUuid, LoadHostConfig(other.Path()).hostUuid);
}

TEST(HostConfigIdentity, ProcessesRacingThroughFirstUseAgreeOnTheIdentity) {
  constexpr int kRounds = 5;
  constexpr int kProcesses = 4;
  for (int round = 0; round < kRounds; ++round) {
    TempHome temp;
    const std::string home = temp.Path() + "/home";
    // One start pipe for all: a byte per child lets them go at once, where
    // separate release pipes would be held open by the children forked later.
    int start[2];
    ASSERT_EQ(0, ::pipe(start));
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (int i = 0; i < kProcesses; ++i) {
      const std::string out = temp.Path() + "/uuid-" + std::to_string(i);
      children.push_back(std::make_unique<ChildProcess>([&, out](ChildControl& control) {
        char go;
        control.Ready();
        if (::read(start[0], &go, 1) != 1) return 1;
        WriteFile(out, LoadHostConfig(home).hostUuid);
        return 0;
      }));
    }
    for (auto& child : children) ASSERT_TRUE(child->AwaitReady());
    const std::string go(kProcesses, 'g');
    ASSERT_EQ(kProcesses, ::write(start[1], go.data(), go.size()));
    for (auto& child : children) ASSERT_EQ(0, child->Join());
    ::close(start[0]);
    ::close(start[1]);
    const std::string identity = LoadHostConfig(home).hostUuid;
    for (int i = 0; i < kProcesses; ++i) {
      EXPECT_EQ(identity, ReadFile(temp.Path() + "/uuid-" + std::to_string(i)))
          << "round " << round << ", process " << i;
    }
  }
}

// A file seeded by hand gains an identity, keeps its keys and sets its
// values (relative paths start at the home); absent keys take the embedded
// defaults; an upper-case identity is read in canonical form.
TEST(HostConfigValues, SeededFileGainsAnIdentityAndSetsItsValuesOverTheDefaults) {
  TempHome temp;
  const std::string& home = temp.Path();
  WriteFile(home + "/host.json", R"({
    "hostName": "node-7",
    "faultDomain": "site-a",
    "clusterMember": false,
    "datastorePath": "/mnt/shared/datastore",
    "directory": {"backend": "sqlite", "path": "db/directory.db"},
    "configStorePath": "store.json",
    "options": {"ORVA-iSCSI.zelNokNicCtlEnable": 0, "ORVA-iSCSI.zelLoadBalancePeriod": 600},
    "commands": {"zeld": "/opt/zel/bin/zeld"},
    "iqnDomain": "storage.example.net"
  })");
  HostConfig config = LoadHostConfig(home);
  EXPECT_TRUE(IsCanonicalUuid(config.hostUuid));
  const nlohmann::json stored = nlohmann::json::parse(ReadFile(home + "/host.json"));
  EXPECT_EQ(config.hostUuid, stored.at("hostUuid"));
  EXPECT_EQ("site-a", stored.at("faultDomain"));
  EXPECT_EQ(600, stored.at("options").at("ORVA-iSCSI.zelLoadBalancePeriod"));
  EXPECT_EQ(config.hostUuid, LoadHostConfig(home).hostUuid);
  EXPECT_EQ("node-7", config.hostName);
  EXPECT_EQ("site-a", config.faultDomain);
  EXPECT_FALSE(config.clusterMember);
  EXPECT_EQ("/mnt/shared/datastore", config.datastoreRoot);
  EXPECT_EQ(home + "/db/directory.db", config.directoryPath);
  EXPECT_EQ(home + "/store.json", config.configStorePath);
  EXPECT_EQ((std::map<std::string, int>{{"ORVA-iSCSI.zelNokNicCtlEnable", 0},
                                        {"ORVA-iSCSI.zelLoadBalancePeriod", 600}}),
            config.options);
  EXPECT_EQ((std::map<std::string, std::string>{{"zeld", "/opt/zel/bin/zeld"}}), config.commands);
  EXPECT_EQ("storage.example.net", config.iqnDomain);

  // (Where the datastore and directory go by default zelctl's host info shows.)
  WriteFile(home + "/host.json", R"({"hostUuid": "ABCDEF01-2222-4333-8444-55555555AAAA", "hostName": "n"})");
  config = LoadHostConfig(home);
  EXPECT_EQ("abcdef01-2222-4333-8444-55555555aaaa", config.hostUuid);
  EXPECT_EQ(Profile::Embedded, config.profile);
  EXPECT_TRUE(config.clusterMember);
  EXPECT_EQ("sqlite", config.directoryBackend);
  EXPECT_EQ(home + "/config-store.json", config.configStorePath);
  EXPECT_EQ(home + "/var/run/log/zel.conf.backup", config.backupConfPath);
}

TEST(HostConfigErrors, EachUnusableFileIsNamedWithItsProblemAndLeftAlone) {
  TempHome temp;
  const std::string path = temp.Path() + "/host.json";
  const std::string prefix = "Host configuration " + path;
  const std::string identity = R"({"hostUuid": ")" + kHostA + R"(", "hostName": "n", )";
  const std::string iqnRule =
      ": 'iqnDomain' must be a domain name of at most 100 bytes, labels of letters, digits and "
      "'-' separated by dots: ";
  const std::string longDomain = std::string(99, 'a') + ".b";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"{\n  \"hostName\": \"node-1\",\n  \"faultDomain\" \"site-a\"\n}\n",
       " is not valid JSON: parse error at line 3, column 24: syntax error while parsing object "
       "separator - unexpected string literal; expected ':'"},
      {R"(["hostUuid"])", " does not hold a JSON object"},
      {R"({"hostUuid": "node-1", "hostName": "n"})", ": 'hostUuid' is not a UUID: 'node-1'"},
      {identity + R"("clusterMember": "yes"})", ": 'clusterMember' must be true or false"},
      {identity + R"("faultDomain": 3})", ": 'faultDomain' must be a string"},
      {identity + R"("directory": "sqlite"})", ": 'directory' must be an object"},
      {identity + R"("directory": {"path": 1}})", ": 'directory.path' must be a string"},
      {identity + R"("options": {"ORVA-iSCSI.zelLunNaaEnable": "1"}})",
       ": 'options.ORVA-iSCSI.zelLunNaaEnable' must be an integer"},
      {identity + R"("options": {"ORVA-iSCSI.zelLunNaaEnable": 4294967296}})",
       ": 'options.ORVA-iSCSI.zelLunNaaEnable' is out of range"},
      {identity + R"("options": {"zelLunNaaEnable": 1}})",
       ": option 'zelLunNaaEnable' is not of the form GROUP.name"},
      {identity + R"("commands": {"zeld": ["/bin/zeld"]}})", ": 'commands.zeld' must be a string"},
      {identity + R"("datastorePath": ""})", ": 'datastorePath' must not be empty"},
      {identity + R"("datastorPath": "/mnt"})", ": unknown key 'datastorPath'"},
      {identity + R"("iqnDomain": "pool_1.example.net"})", iqnRule + "'pool_1.example.net'"},
      {identity + R"("iqnDomain": "example..net"})", iqnRule + "'example..net'"},
      {identity + R"("iqnDomain": ")" + longDomain + "\"}", iqnRule + "'" + longDomain + "'"},
  };
  for (const auto& [text, problem] : cases) {
    WriteFile(path, text);
    EXPECT_EQ(prefix + problem, MessageOf([&] { LoadHostConfig(temp.Path()); })) << text;
    EXPECT_EQ(text, ReadFile(path));
  }
  fs::remove(path);
  fs::create_directory(path);
  EXPECT_EQ(prefix + " cannot be read: Is a directory", MessageOf([&] { LoadHostConfig(temp.Path()); }));
  const std::string fileHome = temp.Path() + "/home";
  WriteFile(fileHome, "");
  EXPECT_EQ("Home " + fileHome + " is not a directory", MessageOf([&] { LoadHostConfig(fileHome); }));
}

// Each service lands where the configuration names; a configuration the
// host cannot honour is refused before anything is touched.
TEST(LocalServiceHost, ServicesUseTheConfiguredPathsAndAnUnusableConfigurationIsRefused) {
  test::ScopedTestHost testHost;
  TempHome temp;
  const HostConfig loaded = LoadHostConfig(temp.Path());
  const auto build = [](const HostConfig& config) {
    return MessageOf([&] { NewLocalServiceHost(config, LogLevel::Error); });
  };
  EXPECT_EQ("The host configuration under " + temp.Path() + " has no host identity",
            build(EmbeddedHostConfig(temp.Path())));
  HostConfig config = loaded;
  config.directoryBackend = "carrier-pigeon";
  EXPECT_EQ("Unsupported directory backend 'carrier-pigeon' in the host configuration under " +
                temp.Path(),
            build(config));
  EXPECT_FALSE(fs::exists(temp.Path() + "/directory.db"));
  config = loaded;
  config.directoryPath = temp.Path() + "/missing/directory.db";
  EXPECT_EQ("Failed to open the cluster directory " + config.directoryPath, build(config));
  config = loaded;
  config.configStorePath = temp.Path() + "/elsewhere-store.json";
  config.directoryPath = temp.Path() + "/elsewhere.db";
  config.datastoreRoot = temp.Path() + "/shared";
  std::unique_ptr<Host> host = NewLocalServiceHost(config, LogLevel::Error);
  EXPECT_TRUE(fs::exists(config.directoryPath));
  host->Store().SetOrvaIscsiServiceEnabled(true);
  EXPECT_TRUE(fs::exists(config.configStorePath));
  // The embedded profile keeps its datastore inside the home and makes it.
  EXPECT_TRUE(fs::is_directory(config.datastoreRoot));
  EXPECT_EQ(NOK_OK, host->Disks().Init());
  EXPECT_EQ(NOK_OK, host->Policies().Init());
  EXPECT_EQ(config.hostUuid, host->Cluster().LocalHostUuid());
}

// Two hosts of one cluster, each with its own home, sharing the directory
// database in the first host's home as the hosts of one machine do.
class LocalClusterMembership : public ::testing::Test {
 protected:
  HostConfig ConfigA() const {
    HostConfig config = LoadHostConfig(homeA_.Path());
    config.hostName = "node-a";
    config.faultDomain = "site-1";
    return config;
  }
  HostConfig ConfigB() const {
    HostConfig config = LoadHostConfig(homeB_.Path());
    config.hostName = "node-b";
    config.faultDomain = "site-2";
    config.directoryPath = homeA_.Path() + "/directory.db";
    return config;
  }
  static ClusterInfo InfoOf(Host& host) {
    ClusterInfo info;
    EXPECT_EQ(NOK_OK, host.Cluster().GetClusterInfo(&info));
    return info;
  }
  static const ClusterMember* Find(const ClusterInfo& info, const std::string& hostUuid) {
    auto found = std::find_if(info.members.begin(), info.members.end(),
                              [&](const ClusterMember& m) { return m.hostUuid == hostUuid; });
    return found == info.members.end() ? nullptr : &*found;
  }
  std::vector<DirectoryEntry> MemberEntries() const {
    std::unique_ptr<Directory> directory = NewSqliteDirectory(homeA_.Path() + "/directory.db");
    std::vector<DirectoryEntry> entries;
    directory->Query(kClusterMemberEntryType, kClusterMembersKey, &entries);
    return entries;
  }
  TempHome homeA_;
  TempHome homeB_;
};

TEST_F(LocalClusterMembership, RegistrationIsSeenByAnotherProcessInBothDirections) {
  const HostConfig a = ConfigA();
  const HostConfig b = ConfigB();
  // Forked before this process opens the directory, so that the child
  // starts without the parent's directory threads.
  ChildProcess child([&](ChildControl& control) {
    control.AwaitRelease();
    std::unique_ptr<Host> host = NewLocalServiceHost(b, LogLevel::Error);
    const ClusterInfo info = InfoOf(*host);
    const ClusterMember* seen = Find(info, a.hostUuid);
    if (!info.isMember) return 1;
    if (seen == nullptr || seen->hostName != "node-a" || seen->faultDomain != "site-1") return 2;
    return 0;
  });
  std::unique_ptr<Host> host = NewLocalServiceHost(a, LogLevel::Error);
  child.Release();
  ASSERT_EQ(0, child.Join());
  const ClusterInfo info = InfoOf(*host);
  EXPECT_TRUE(info.isMember);
  ASSERT_EQ(2u, info.members.size());
  const ClusterMember* seen = Find(info, b.hostUuid);
  ASSERT_NE(nullptr, seen);
  EXPECT_EQ("node-b", seen->hostName);
  EXPECT_EQ("site-2", seen->faultDomain);
  EXPECT_EQ(a.hostUuid, host->Cluster().LocalHostUuid());
}

TEST_F(LocalClusterMembership, ChangesAreRepublishedUnchangedOnesNotRewrittenAndLeavingRemoves) {
  HostConfig a = ConfigA();
  NewLocalServiceHost(a, LogLevel::Error);
  const uint64_t first = MemberEntries().at(0).version;
  NewLocalServiceHost(a, LogLevel::Error);
  EXPECT_EQ(first, MemberEntries().at(0).version);
  a.faultDomain = "site-3";
  std::unique_ptr<Host> moved = NewLocalServiceHost(a, LogLevel::Error);
  EXPECT_LT(first, MemberEntries().at(0).version);
  const ClusterInfo info = InfoOf(*moved);
  ASSERT_EQ(1u, info.members.size());
  EXPECT_EQ("site-3", info.members[0].faultDomain);
  EXPECT_EQ(a.hostUuid, MemberEntries().at(0).ownerHost);
  moved.reset();
  std::unique_ptr<Host> b = NewLocalServiceHost(ConfigB(), LogLevel::Error);
  ASSERT_NE(nullptr, Find(InfoOf(*b), a.hostUuid));
  a.clusterMember = false;
  std::unique_ptr<Host> outside = NewLocalServiceHost(a, LogLevel::Error);
  const ClusterInfo own = InfoOf(*outside);
  EXPECT_FALSE(own.isMember);
  EXPECT_EQ(nullptr, Find(own, a.hostUuid));
  const ClusterInfo other = InfoOf(*b);
  EXPECT_TRUE(other.isMember);
  EXPECT_EQ(nullptr, Find(other, a.hostUuid));
}

// An empty membership is no failure, a directory failure gives its status,
// and a member with a malformed entry is listed without a name.
TEST_F(LocalClusterMembership, FactsReportAnEmptyOrUnreachableMembershipAndMalformedMembers) {
  test::ScopedTestHost testHost;
  std::unique_ptr<Directory> directory = NewSqliteDirectory(homeA_.Path() + "/directory.db");
  ClusterInfo info;
  info.isMember = true;
  EXPECT_EQ(NOK_OK, LocalClusterFacts(ConfigA(), *directory).GetClusterInfo(&info));
  EXPECT_FALSE(info.isMember);
  EXPECT_TRUE(info.members.empty());
  test::UnreachableDirectory unreachable(NOK_NO_CONNECTION);
  HostConfig outside = ConfigA();
  outside.clusterMember = false;
  EXPECT_EQ(NOK_NO_CONNECTION, LocalClusterFacts(ConfigA(), unreachable).GetClusterInfo(&info));
  EXPECT_EQ(NOK_NO_CONNECTION, LocalClusterFacts(ConfigA(), unreachable).Announce());
  EXPECT_EQ(NOK_NO_CONNECTION, LocalClusterFacts(outside, unreachable).Announce());

  std::unique_ptr<Host> a = NewLocalServiceHost(ConfigA(), LogLevel::Error);
  const std::string stranger = "66666666-7777-4888-9999-aaaaaaaaaaaa";
  DirectoryEntry entry;
  entry.type = kClusterMemberEntryType;
  entry.key = kClusterMembersKey;
  entry.ownerHost = entry.entryId = stranger;
  entry.payload = "node-x";
  ASSERT_EQ(NOK_OK, test::PublishAndWait(*directory, entry));
  const ClusterMember* seen = Find(InfoOf(*a), stranger);
  ASSERT_NE(nullptr, seen);
  EXPECT_EQ("", seen->hostName);
  EXPECT_TRUE(testHost.Log().Contains("ClusterFacts: Member entry of host " + stranger +
                                      " has a malformed payload"));
}

DefaultInfo ChapMutualDefaults() {
  DefaultInfo info;
  info.networkInterface = "eth1";
  info.port = 3261;
  info.authType = "CHAP-Mutual";
  info.userid = "iqn.1998-01.org.example:initiator";
  info.secret = "target-secret-0123";
  info.mutualUserid = "iqn.1998-01.org.example:target";
  info.mutualSecret = "mutual-secret-4567";
  return info;
}

auto Fields(const DefaultInfo& info) {
  return std::make_tuple(info.networkInterface, info.port, info.authType, info.userid, info.secret,
                         info.mutualUserid, info.mutualSecret);
}

class LocalConfigStore : public ::testing::Test {
 protected:
  std::string Path() const { return home_.Path() + "/config-store.json"; }
  TempHome home_;
};

TEST_F(LocalConfigStore, ValuesAreKeptForOtherInstancesBesideUnknownMembersInAnOwnerOnlyFile) {
  bool enabled = true;
  DefaultInfo info;
  EXPECT_FALSE(JsonConfigStore(Path()).GetOrvaIscsiServiceEnabled(&enabled));
  EXPECT_FALSE(JsonConfigStore(Path()).GetOrvaIscsiDefaultConfig(&info));
  EXPECT_FALSE(fs::exists(Path())) << "reading created the file";
  WriteFile(Path(), R"({"laterFeature": {"level": 2}})", 0644);
  JsonConfigStore(Path()).SetOrvaIscsiServiceEnabled(true);
  JsonConfigStore(Path()).SetOrvaIscsiDefaultConfig(ChapMutualDefaults());
  JsonConfigStore reader(Path());
  ASSERT_TRUE(reader.GetOrvaIscsiServiceEnabled(&enabled));
  EXPECT_TRUE(enabled);
  ASSERT_TRUE(reader.GetOrvaIscsiDefaultConfig(&info));
  EXPECT_EQ(Fields(ChapMutualDefaults()), Fields(info));
  JsonConfigStore(Path()).SetOrvaIscsiServiceEnabled(false);
  ASSERT_TRUE(reader.GetOrvaIscsiServiceEnabled(&enabled));
  EXPECT_FALSE(enabled);
  ASSERT_TRUE(reader.GetOrvaIscsiDefaultConfig(&info));
  EXPECT_EQ(Fields(ChapMutualDefaults()), Fields(info));
  EXPECT_EQ(2, nlohmann::json::parse(ReadFile(Path())).at("laterFeature").at("level"));
  struct stat mode;
  ASSERT_EQ(0, ::stat(Path().c_str(), &mode));
  EXPECT_EQ(0600u, mode.st_mode & 07777);
}

TEST_F(LocalConfigStore, UnusableFileGivesThePositionOrMemberButNoSecretAndIsNotOverwritten) {
  JsonConfigStore store(Path());
  bool enabled;
  DefaultInfo info;
  const std::function<void()> getEnabled = [&] { store.GetOrvaIscsiServiceEnabled(&enabled); };
  const std::function<void()> getDefaults = [&] { store.GetOrvaIscsiDefaultConfig(&info); };
  const std::string prefix = "Configuration store " + Path();
  const std::vector<std::tuple<std::string, std::function<void()>, std::string>> cases = {
      // Cut short in the middle of a secret, as a copy by hand might leave it.
      {"{\"orvaIscsiDefaultConfig\": {\"secret\": \"target-secret-01", getDefaults,
       " is not valid JSON: parse error at line 1, column 56: syntax error while parsing value - "
       "invalid string: missing closing quote"},
      {R"({"orvaIscsiServiceEnabled": "yes"})", getEnabled,
       ": 'orvaIscsiServiceEnabled' must be true or false"},
      {R"({"orvaIscsiDefaultConfig": {"secret": ["target-secret-02"]}})", getDefaults,
       ": 'orvaIscsiDefaultConfig.secret' must be a string"},
      {R"({"orvaIscsiDefaultConfig": {"port": 3260.5}})", getDefaults,
       ": 'orvaIscsiDefaultConfig.port' must be an integer"},
  };
  for (const auto& [text, read, problem] : cases) {
    WriteFile(Path(), text);
    const std::string message = MessageOf(read);
    EXPECT_EQ(prefix + problem, message);
    EXPECT_EQ(std::string::npos, message.find("target-secret")) << message;
  }
  const std::string damaged = std::get<0>(cases[0]);
  WriteFile(Path(), damaged);
  EXPECT_EQ(MessageOf(getDefaults), MessageOf([&] { store.SetOrvaIscsiServiceEnabled(true); }));
  EXPECT_EQ(damaged, ReadFile(Path()));
}

TEST_F(LocalConfigStore, WriteThatFailsMidwayLeavesThePreviousFileAndNoTemporary) {
  JsonConfigStore(Path()).SetOrvaIscsiServiceEnabled(true);
  const std::string before = ReadFile(Path());
  // A file size limit makes the write of the new contents fail part way.
  ChildProcess child([this](ChildControl&) {
    ::signal(SIGXFSZ, SIG_IGN);
    const struct rlimit limit = {32, 32};
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
    const std::string message =
        MessageOf([&] { JsonConfigStore(Path()).SetOrvaIscsiDefaultConfig(ChapMutualDefaults()); });
    return message == "Failed to write " + Path() + ": File too large" ? 0 : 1;
  });
  ASSERT_EQ(0, child.Join());
  EXPECT_EQ(before, ReadFile(Path()));
  for (const auto& entry : fs::directory_iterator(home_.Path())) {
    const std::string name = entry.path().filename().string();
    EXPECT_TRUE(name == "config-store.json" || name == "config-store.json.lock") << name;
  }
}

// Each process writes only its own member and, before every write, checks
// that its previous write is still there: an update read before the other
// process's write and stored after it would bring back the old value.
TEST_F(LocalConfigStore, WritersInTwoProcessesNeverLoseEachOthersMembers) {
  constexpr int kWrites = 100;
  ChildProcess child([this](ChildControl& control) {
    control.Ready();
    control.AwaitRelease();
    JsonConfigStore store(Path());
    for (int i = 0; i < kWrites; ++i) {
      bool enabled = false;
      if (i > 0 && (!store.GetOrvaIscsiServiceEnabled(&enabled) || enabled != ((i - 1) % 2 == 0))) {
        return 1;
      }
      store.SetOrvaIscsiServiceEnabled(i % 2 == 0);
    }
    return 0;
  });
  ASSERT_TRUE(child.AwaitReady());
  child.Release();
  JsonConfigStore store(Path());
  DefaultInfo defaults = ChapMutualDefaults();
  int lost = 0;
  for (int i = 0; i < kWrites; ++i) {
    DefaultInfo stored;
    if (i > 0 && (!store.GetOrvaIscsiDefaultConfig(&stored) || stored.userid != defaults.userid)) {
      ++lost;
    }
    defaults.userid = "iqn.1998-01.org.example:writer-" + std::to_string(i);
    store.SetOrvaIscsiDefaultConfig(defaults);
  }
  EXPECT_EQ(0, child.Join()) << "the other process lost one of its writes";
  EXPECT_EQ(0, lost);
  bool enabled = true;
  DefaultInfo stored;
  ASSERT_TRUE(store.GetOrvaIscsiServiceEnabled(&enabled));
  EXPECT_EQ((kWrites - 1) % 2 == 0, enabled);
  ASSERT_TRUE(store.GetOrvaIscsiDefaultConfig(&stored));
  EXPECT_EQ(Fields(defaults), Fields(stored));
}

// The disk library opens only on a root that exists, is a directory and can
// be written by this process, and says why otherwise. Permission bits do not
// stop the superuser, so the last check runs in a child that gives up its
// privileges first when it has them.
TEST(LocalDatastoreAvailability, RootMustBeAnExistingWritableDirectory) {
  constexpr int kCannotDropPrivileges = 77;
  test::ScopedTestHost testHost;
  const std::string root = testHost.Home() + "/datastore";
  EXPECT_EQ(NOK_NOT_FOUND, LocalDiskLibrary(root).Init());
  EXPECT_TRUE(testHost.Log().Contains("DiskLibrary: Datastore root " + root +
                                      " cannot be used: No such file or directory"));
  WriteFile(root, "");
  EXPECT_EQ(NOK_NOT_FOUND, LocalDiskLibrary(root).Init());
  EXPECT_TRUE(testHost.Log().Contains("DiskLibrary: Datastore root " + root +
                                      " cannot be used: Not a directory"));
  fs::remove(root);
  fs::create_directory(root);
  testHost.Log().Clear();
  EXPECT_EQ(NOK_OK, LocalDiskLibrary(root).Init());
  EXPECT_TRUE(testHost.Log().Texts(LogLevel::Warning).empty());
  // Beside it, a root anyone may write: the child must find that one usable,
  // so a refusal is down to the permission bits and not to the path.
  const std::string open = testHost.Home() + "/open-datastore";
  fs::create_directory(open);
  ASSERT_EQ(0, ::chmod(testHost.Home().c_str(), 0755));
  ASSERT_EQ(0, ::chmod(root.c_str(), 0555));
  ASSERT_EQ(0, ::chmod(open.c_str(), 0777));
  ChildProcess child([&](ChildControl&) {
    const uid_t nobody = 65534;
    if (::geteuid() == 0 && (::setgid(nobody) != 0 || ::setuid(nobody) != 0)) {
      return kCannotDropPrivileges;
    }
    if (LocalDiskLibrary(open).Init() != NOK_OK) return 1;
    return LocalDiskLibrary(root).Init() == NOK_IO_ERROR ? 0 : 2;
  });
  const int code = child.Join();
  ::chmod(root.c_str(), 0755);
  if (code == kCannotDropPrivileges) GTEST_SKIP() << "cannot run as an unprivileged user";
  EXPECT_EQ(0, code);
}

// An interface of a fake /sys/class/net, with its operstate, its carrier
// (unless empty; the kernel refuses to read the carrier of an interface that
// is down) and further subdirectories that make it a bridge, bond or upper
// interface, and the state expected of it.
struct SysfsNic {
  std::string name, operstate, carrier;
  std::vector<std::string> subdirs;
  NokNicState expected;
};

TEST(LocalNicState, StateFollowsOperstateThenCarrierAndMastersWithoutLowerHaveNoUplinks) {
  TempHome home;
  const std::string root = home.Path() + "/class/net";
  const std::vector<SysfsNic> nics = {
      {"eth0", "up", "1", {}, NOKNIC_UP},
      {"eth1", "up", "0", {}, NOKNIC_NO_CARRIER},
      {"eth2", "down", "", {}, NOKNIC_DOWN},
      {"eth3", "down", "1", {}, NOKNIC_DOWN},
      {"tun0", "unknown", "1", {}, NOKNIC_UP},
      {"tun1", "unknown", "0", {}, NOKNIC_NO_CARRIER},
      {"vlan10", "lowerlayerdown", "0", {}, NOKNIC_NO_CARRIER},
      {"wlan0", "dormant", "1", {}, NOKNIC_NO_CARRIER},
      // The kernel reports a bridge without ports "down": no uplinks rather
      // than a failed link.
      {"br0", "down", "", {"bridge", "brif"}, NOKNIC_NO_UPLINKS},
      {"bond0", "up", "0", {"bonding"}, NOKNIC_NO_UPLINKS},
      // With a lower interface, a master's own link decides.
      {"br1", "up", "1", {"bridge", "brif/eth0"}, NOKNIC_UP},
      {"br2", "up", "0", {"bridge", "lower_eth1"}, NOKNIC_NO_CARRIER},
      {"bond1", "down", "", {"bonding", "lower_eth2"}, NOKNIC_DOWN},
      // A VLAN has a lower interface too, but is no master.
      {"vlan20", "up", "1", {"lower_eth0"}, NOKNIC_UP},
  };
  for (const SysfsNic& nic : nics) {
    const std::string dir = root + "/" + nic.name;
    fs::create_directories(dir);
    WriteFile(dir + "/operstate", nic.operstate + "\n", 0444);
    if (!nic.carrier.empty()) WriteFile(dir + "/carrier", nic.carrier + "\n", 0444);
    for (const std::string& sub : nic.subdirs) fs::create_directories(dir + "/" + sub);
  }
  LocalNetworkInterfaces interfaces(root);
  for (const SysfsNic& nic : nics) {
    EXPECT_EQ(nic.expected, interfaces.GetNokKernelNicState(nic.name)) << nic.name;
  }
  // A name is one path component: nothing outside the tree is read.
  for (const std::string name : {"eth9", "", "../net/eth0"}) {
    EXPECT_EQ(NOKNIC_NONE, interfaces.GetNokKernelNicState(name)) << name;
  }
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
    if (family == AF_UNSPEC) return;
    auto* in = reinterpret_cast<struct sockaddr_in*>(&entry.address);
    auto* in6 = reinterpret_cast<struct sockaddr_in6*>(&entry.address);
    entry.address.ss_family = static_cast<sa_family_t>(family);
    EXPECT_EQ(1, ::inet_pton(family, address,
                             family == AF_INET ? static_cast<void*>(&in->sin_addr) : &in6->sin6_addr));
    entry.ifa.ifa_addr = reinterpret_cast<struct sockaddr*>(&entry.address);
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

// Names leave out loopback and come once in first-seen order, whether up or
// not; the first IPv4 and the first IPv6 beyond the link are preferred, a
// link-local IPv6 is the last resort and no address gives empty texts.
TEST(LocalNicAddress, NamesAndPreferredAddressesComeFromTheList) {
  IfaddrsList list;
  list.Add("lo", IFF_UP | IFF_LOOPBACK);
  list.Add("eth0", IFF_UP);
  list.Add("eth5", 0);
  list.Add("lo", IFF_UP | IFF_LOOPBACK, AF_INET, "127.0.0.1");
  list.Add("eth1", IFF_UP, AF_INET, "10.0.1.1");
  list.Add("eth0", IFF_UP, AF_INET6, "fe80::1");
  list.Add("eth0", IFF_UP, AF_INET, "10.0.0.1");
  list.Add("eth1", IFF_UP, AF_INET6, "fd00:1::1");
  list.Add("eth0", IFF_UP, AF_INET, "10.0.0.2");
  list.Add("eth0", IFF_UP, AF_INET6, "fe80::2");
  list.Add("eth0", IFF_UP, AF_INET6, "fd00::2");
  list.Add("eth0", IFF_UP, AF_INET6, "fd00::3");
  list.Add("eth3", IFF_UP, AF_INET6, "fe80::31");
  list.Add("eth3", IFF_UP, AF_INET6, "fe80::32");
  list.Add("eth5", 0, AF_INET, "10.0.5.1");
  list.Add("eth4", IFF_UP);
  EXPECT_THAT(ListNokNicNames(list.Get()), ElementsAre("eth0", "eth5", "eth1", "eth3", "eth4"));
  const std::vector<std::tuple<std::string, std::string, std::string>> preferred = {
      {"eth0", "10.0.0.1", "fd00::2"}, {"eth3", "", "fe80::31"}, {"eth4", "", ""}};
  for (const auto& [name, ipv4, ipv6] : preferred) {
    std::string v4 = "stale", v6 = "stale";
    PickPreferredAddresses(list.Get(), name, &v4, &v6);
    EXPECT_EQ(ipv4, v4) << name;
    EXPECT_EQ(ipv6, v6) << name;
  }
}

TEST(LocalNicThisMachine, ListedInterfacesHaveAStateAndLoopbackItsAddressButIsNotListed) {
  LocalNetworkInterfaces nics;
  const std::vector<std::string> names = nics.GetNokKernelNicNames();
  EXPECT_EQ(names.size(), std::set<std::string>(names.begin(), names.end()).size());
  EXPECT_EQ(names.end(), std::find(names.begin(), names.end(), "lo"));
  for (const std::string& name : names) EXPECT_NE(NOKNIC_NONE, nics.GetNokKernelNicState(name));
  EXPECT_EQ(NOKNIC_NONE, nics.GetNokKernelNicState("no-such-nic0"));
  std::unique_ptr<NetworkInterfaces> local = NewLocalNetworkInterfaces();
  std::string ipv4, ipv6;
  local->GetPreferredZelNetworkAddressForNokNic("lo", &ipv4, &ipv6);
  EXPECT_EQ("127.0.0.1", ipv4);
  local->GetPreferredZelNetworkAddressForNokNic("no-such-nic0", &ipv4, &ipv6);
  EXPECT_EQ("", ipv4);
  EXPECT_EQ("", ipv6);
}

DirectoryEntry StorageObject(const std::string& payload) {
  DirectoryEntry entry;
  entry.type = kStorageObjectEntryType;
  entry.key = kNamespace;
  entry.ownerHost = kHostA;
  entry.entryId = kNamespace;
  entry.payload = payload;
  return entry;
}

// An object's policy is found through its directory entry, whoever
// announced it, with compliance unknown.
TEST(LocalPolicyService, PolicyIsFoundThroughTheDirectoryAndSessionsOpenWhileItAnswers) {
  test::ScopedTestHost testHost;
  const std::string db = testHost.Home() + "/directory.db";
  ChildProcess announcer([&](ChildControl&) {
    std::unique_ptr<Directory> directory = NewSqliteDirectory(db);
    return test::PublishAndWait(*directory, StorageObject(R"({"type": "BrixStorageObject", "ownerHost": ")" +
                                                          kHostA + R"(", "policy": "failuresToTolerate=1"})")) == NOK_OK
               ? 0
               : 1;
  });
  ASSERT_EQ(0, announcer.Join());
  std::unique_ptr<Directory> directory = NewSqliteDirectory(db);
  LocalPolicyService service(*directory, kHostA);
  const PolicyStatus status = service.GetObjectPolicyStatus(kNamespace);
  EXPECT_EQ("failuresToTolerate=1", status.policy);
  EXPECT_EQ(Compliance::Unknown, status.compliance);
  const auto lookup = [](PolicyService& policies) {
    return MessageOf([&] { policies.GetObjectPolicyStatus(kNamespace); });
  };
  const std::string malformed = "Storage object " + kNamespace +
                                " has a malformed directory entry: it needs the texts 'ownerHost' "
                                "and 'policy'";
  for (const std::string& payload :
       {std::string("{\"policy\": \"\"}"), R"({"ownerHost": ")" + kHostA + R"(", "policy": 1})",
        std::string("not json")}) {
    ASSERT_EQ(NOK_OK, test::PublishAndWait(*directory, StorageObject(payload)));
    EXPECT_EQ(malformed, lookup(service)) << payload;
  }
  ASSERT_EQ(NOK_OK, directory->Delete(kStorageObjectEntryType, kNamespace, kNamespace));
  EXPECT_EQ("Storage object " + kNamespace + " not found", lookup(service));
  test::UnreachableDirectory unreachable(NOK_TIMEOUT);
  LocalPolicyService cut(unreachable, kHostA);
  EXPECT_EQ("Failed to look up storage object " + kNamespace + ": Timeout", lookup(cut));
  // Compliance sessions open only while the directory answers, and close in
  // pairs.
  const std::string unpaired = "PolicyService: Compliance session closed while none is open";
  testHost.Log().Clear();
  ASSERT_EQ(NOK_OK, service.Init());
  ASSERT_EQ(NOK_OK, service.Init());
  service.Deinit();
  service.Deinit();
  EXPECT_TRUE(testHost.Log().Texts(LogLevel::Warning).empty());
  service.Deinit();
  EXPECT_TRUE(testHost.Log().Contains(unpaired));
  testHost.Log().Clear();
  test::UnreachableDirectory failing(NOK_IO_ERROR);
  LocalPolicyService cutOff(failing, kHostA);
  EXPECT_EQ(NOK_NO_CONNECTION, cutOff.Init());
  EXPECT_TRUE(testHost.Log().Contains(
      "PolicyService: Cannot open a compliance session, the directory failed: I/O error"));
  EXPECT_FALSE(testHost.Log().Contains(unpaired));
  // The failed Init opened nothing for a Deinit to close.
  cutOff.Deinit();
  EXPECT_TRUE(testHost.Log().Contains(unpaired));
}

}  // namespace
}  // namespace platform
}  // namespace zel
