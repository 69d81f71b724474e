// A local host and its services' backends: host.json, the services built where it names,
// cluster membership, the configuration store, the datastore root, network interfaces and policies.
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
#include <filesystem>
#include <map>
#include <regex>
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

namespace zel::platform {
namespace {

namespace fs = std::filesystem;
using HostCtl::Orva::IscsiTarget::DefaultInfo;
using test::ChildControl;
using test::ChildProcess;
using test::MessageOf;
using test::ReadFile;
using test::TempHome;
using test::WriteFile;

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
  EXPECT_EQ(fs::perms::owner_all, fs::status(home).permissions());
  EXPECT_TRUE(IsCanonicalUuid(config.hostUuid)) << config.hostUuid;
  char name[HOST_NAME_MAX + 1] = {};
  ::gethostname(name, sizeof name - 1);
  EXPECT_EQ(nlohmann::json({{"hostUuid", config.hostUuid}, {"hostName", name}}),
            nlohmann::json::parse(ReadFile(home + "/host.json")));
  const ino_t written = InodeOf(home + "/host.json");
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
    // One start pipe, a byte per child: separate pipes would be held open by later children.
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
    for (int i = 0; i < kProcesses; ++i) {
      EXPECT_EQ(LoadHostConfig(home).hostUuid, ReadFile(temp.Path() + "/uuid-" + std::to_string(i)))
          << "round " << round << ", process " << i;
    }
  }
}

// A hand-seeded file gains an identity, keeps its keys, sets its values (relative paths from
// the home); absent keys take the embedded defaults; an upper-case identity reads canonical.
TEST(HostConfigValues, SeededFileGainsAnIdentityAndSetsItsValuesOverTheDefaults) {
  TempHome temp;
  const std::string& home = temp.Path();
  WriteFile(home + "/host.json", R"({"hostName": "node-7", "faultDomain": "site-a",
    "clusterMember": false, "datastorePath": "/mnt/shared/datastore", "configStorePath": "store.json",
    "directory": {"backend": "sqlite", "path": "db/directory.db"}, "iqnDomain": "storage.example.net",
    "options": {"ORVA-iSCSI.zelNokNicCtlEnable": 0, "ORVA-iSCSI.zelLoadBalancePeriod": 600},
    "commands": {"zeld": "/opt/zel/bin/zeld"}})");
  nlohmann::json seeded = nlohmann::json::parse(ReadFile(home + "/host.json"));
  HostConfig config = LoadHostConfig(home);
  EXPECT_TRUE(IsCanonicalUuid(config.hostUuid));
  seeded["hostUuid"] = config.hostUuid;
  EXPECT_EQ(seeded, nlohmann::json::parse(ReadFile(home + "/host.json")));
  const auto values = [](const HostConfig& c) {
    return std::make_tuple(c.hostName, c.faultDomain, c.clusterMember, c.datastoreRoot,
                           c.directoryPath, c.configStorePath, c.options, c.commands, c.iqnDomain);
  };
  EXPECT_EQ(values(config),
            std::make_tuple(std::string("node-7"), std::string("site-a"), false,
                            std::string("/mnt/shared/datastore"), home + "/db/directory.db",
                            home + "/store.json",
                            std::map<std::string, int>{{"ORVA-iSCSI.zelNokNicCtlEnable", 0},
                                                       {"ORVA-iSCSI.zelLoadBalancePeriod", 600}},
                            std::map<std::string, std::string>{{"zeld", "/opt/zel/bin/zeld"}},
                            std::string("storage.example.net")));
  WriteFile(home + "/host.json", R"({"hostUuid": "ABCDEF01-2222-4333-8444-55555555AAAA", "hostName": "n"})");
  config = LoadHostConfig(home);
  EXPECT_EQ(std::make_tuple(config.hostUuid, config.profile, config.clusterMember,
                            config.directoryBackend, config.configStorePath, config.backupConfPath),
            std::make_tuple(std::string("abcdef01-2222-4333-8444-55555555aaaa"), Profile::Embedded,
                            true, std::string("sqlite"), home + "/config-store.json",
                            home + "/var/run/log/zel.conf.backup"));
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
      {identity + R"("directory": {"backend": "zookeeper"}})",
       ": 'directory.backend' must be \"sqlite\" or \"etcd\", not 'zookeeper'"},
      {identity + R"("directory": {"backend": "etcd"}})",
       ": 'directory.endpoints' must name the etcd cluster when the backend is \"etcd\""},
      {identity + R"("directory": {"endpoints": ["https://127.0.0.1:2379"]}})",
       ": 'directory.endpoints' must hold URLs of the form http://HOST:PORT, not 'https://127.0.0.1:2379'"},
      {identity + R"("directory": {"endpoints": ["http://127.0.0.1:2379/v3"]}})",
       ": 'directory.endpoints' must hold URLs of the form http://HOST:PORT, not 'http://127.0.0.1:2379/v3'"},
      {identity + R"("directory": {"prefix": "zel/"}})",
       ": 'directory.prefix' must start with '/' and name something after it, not 'zel/'"},
      {identity + R"("directory": {"leaseSeconds": 1}})", ": 'directory.leaseSeconds' must be from 2 to 3600, not 1"},
      {identity + R"("options": {"ORVA-iSCSI.zelLunNaaEnable": "1"}})",
       ": 'options.ORVA-iSCSI.zelLunNaaEnable' must be an integer"},
      {identity + R"("options": {"ORVA-iSCSI.zelLunNaaEnable": 4294967296}})",
       ": 'options.ORVA-iSCSI.zelLunNaaEnable' is out of range"},
      {identity + R"("options": {"zelLunNaaEnable": 1}})",
       ": option 'zelLunNaaEnable' is not of the form GROUP.name"},
      {identity + R"("commands": {"zeld": ["/bin/zeld"]}})", ": 'commands.zeld' must be a string"},
      {identity + R"("datastorePath": ""})", ": 'datastorePath' must not be empty"},
      {identity + R"("datastorPath": "/mnt"})", ": unknown key 'datastorPath'"},
      {identity + R"("nics": {"zel0": {"ipv4": "127.0.0.300"}}})",
       ": 'nics.zel0.ipv4' must be an address of its family ('ipv4' or 'ipv6') or a state: "
       "'127.0.0.300'"},
      {identity + R"("nics": {"zel0": {"state": "sideways"}}})",
       ": 'nics.zel0.state' must be \"up\", \"down\" or \"no-uplinks\": 'sideways'"},
      {identity + R"("nics": {"zel0": {"state": "down"}}})", ": 'nics.zel0' has no address"},
      {identity + R"("iqnDomain": "pool_1.example.net"})", iqnRule + "'pool_1.example.net'"},
      {identity + R"("iqnDomain": "example..net"})", iqnRule + "'example..net'"},
      {identity + R"("iqnDomain": ")" + longDomain + "\"}", iqnRule + "'" + longDomain + "'"},
  };
  for (const auto& [text, problem] : cases) {
    WriteFile(path, text);
    EXPECT_EQ(prefix + problem, MessageOf([&] { LoadHostConfig(temp.Path()); })) << text;
    EXPECT_EQ(text, ReadFile(path));
  }
  EXPECT_EQ("Home " + path + " is not a directory", MessageOf([&] { LoadHostConfig(path); }));
  fs::remove(path);
  fs::create_directory(path);
  EXPECT_EQ(prefix + " cannot be read: Is a directory", MessageOf([&] { LoadHostConfig(temp.Path()); }));
}

// Services land where the configuration names; one the host cannot honour is refused first.
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
  EXPECT_EQ("Unsupported directory backend 'carrier-pigeon' in the host configuration under " + temp.Path(),
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
  host->Store().SetOrvaIscsiServiceEnabled(true);
  EXPECT_TRUE(fs::exists(config.directoryPath) && fs::exists(config.configStorePath) &&
              fs::is_directory(config.datastoreRoot));
  EXPECT_EQ(NOK_OK, host->Disks().Init());
  EXPECT_EQ(NOK_OK, host->Policies().Init());
  EXPECT_EQ(config.hostUuid, host->Cluster().LocalHostUuid());
}

// Two hosts of one cluster, each with its home, sharing the directory database in A's home.
class LocalClusterMembership : public ::testing::Test {
 protected:
  HostConfig Config(const TempHome& home, const std::string& name, const std::string& site) const {
    HostConfig config = LoadHostConfig(home.Path());
    config.hostName = name;
    config.faultDomain = site;
    config.directoryPath = homeA_.Path() + "/directory.db";
    return config;
  }
  HostConfig ConfigA() const { return Config(homeA_, "node-a", "site-1"); }
  HostConfig ConfigB() const { return Config(homeB_, "node-b", "site-2"); }
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
  // Forked before this process opens the directory: the child has none of its threads.
  ChildProcess child([&](ChildControl& control) {
    control.AwaitRelease();
    const ClusterInfo info = InfoOf(*NewLocalServiceHost(b, LogLevel::Error));
    const ClusterMember* seen = Find(info, a.hostUuid);
    return seen && seen->hostName == "node-a" && seen->faultDomain == "site-1" ? 0 : 1;
  });
  std::unique_ptr<Host> host = NewLocalServiceHost(a, LogLevel::Error);
  child.Release();
  ASSERT_EQ(0, child.Join());
  const ClusterInfo info = InfoOf(*host);
  ASSERT_TRUE(info.isMember && info.members.size() == 2u);
  const ClusterMember* seen = Find(info, b.hostUuid);
  ASSERT_NE(nullptr, seen);
  EXPECT_EQ("node-b/site-2", seen->hostName + "/" + seen->faultDomain);
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
  ASSERT_EQ(1u, InfoOf(*moved).members.size());
  EXPECT_EQ("site-3", InfoOf(*moved).members[0].faultDomain);
  EXPECT_EQ(a.hostUuid, MemberEntries().at(0).ownerHost);
  moved.reset();
  std::unique_ptr<Host> b = NewLocalServiceHost(ConfigB(), LogLevel::Error);
  ASSERT_NE(nullptr, Find(InfoOf(*b), a.hostUuid));
  a.clusterMember = false;
  std::unique_ptr<Host> outside = NewLocalServiceHost(a, LogLevel::Error);
  for (Host* host : {outside.get(), b.get()}) {
    const ClusterInfo info = InfoOf(*host);
    EXPECT_EQ(host == b.get(), info.isMember);
    EXPECT_EQ(nullptr, Find(info, a.hostUuid));
  }
}

// An empty membership is no failure, a directory failure gives its status, and a member
// with a malformed entry is listed without a name.
TEST_F(LocalClusterMembership, FactsReportAnEmptyOrUnreachableMembershipAndMalformedMembers) {
  test::ScopedTestHost testHost;
  std::unique_ptr<Directory> directory = NewSqliteDirectory(homeA_.Path() + "/directory.db");
  ClusterInfo info;
  info.isMember = true;
  EXPECT_EQ(NOK_OK, LocalClusterFacts(ConfigA(), *directory).GetClusterInfo(&info));
  EXPECT_TRUE(!info.isMember && info.members.empty());
  test::UnreachableDirectory unreachable(NOK_NO_CONNECTION);
  HostConfig outside = ConfigA();
  outside.clusterMember = false;
  EXPECT_EQ(NOK_NO_CONNECTION, LocalClusterFacts(ConfigA(), unreachable).GetClusterInfo(&info));
  EXPECT_EQ(NOK_NO_CONNECTION, LocalClusterFacts(ConfigA(), unreachable).Announce());
  EXPECT_EQ(NOK_NO_CONNECTION, LocalClusterFacts(outside, unreachable).Announce());

  std::unique_ptr<Host> a = NewLocalServiceHost(ConfigA(), LogLevel::Error);
  const std::string stranger = "66666666-7777-4888-9999-aaaaaaaaaaaa";
  ASSERT_EQ(NOK_OK, test::PublishAndWait(*directory, {kClusterMemberEntryType, kClusterMembersKey,
                                                      stranger, stranger, "node-x", 0}));
  const ClusterInfo members = InfoOf(*a);  // kept: `seen` points into it
  const ClusterMember* seen = Find(members, stranger);
  ASSERT_TRUE(seen && seen->hostName.empty());
  EXPECT_TRUE(testHost.Log().Contains("ClusterFacts: Member entry of host " + stranger +
                                      " has a malformed payload"));
}

DefaultInfo ChapMutualDefaults() {
  return {"eth1", 3261, "CHAP-Mutual", "iqn.1998-01.org.example:initiator", "target-secret-0123",
          "iqn.1998-01.org.example:target", "mutual-secret-4567"};
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
  ASSERT_TRUE(reader.GetOrvaIscsiServiceEnabled(&enabled) && enabled);
  JsonConfigStore(Path()).SetOrvaIscsiServiceEnabled(false);
  ASSERT_TRUE(reader.GetOrvaIscsiServiceEnabled(&enabled));
  EXPECT_FALSE(enabled);
  ASSERT_TRUE(reader.GetOrvaIscsiDefaultConfig(&info));
  EXPECT_EQ(Fields(ChapMutualDefaults()), Fields(info));
  EXPECT_EQ(2, nlohmann::json::parse(ReadFile(Path())).at("laterFeature").at("level"));
  EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::status(Path()).permissions());
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

// Each process writes its own member and checks its previous write survived: a stale
// read-modify-write across processes would bring back the old value.
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
    lost += i > 0 && (!store.GetOrvaIscsiDefaultConfig(&stored) || stored.userid != defaults.userid);
    defaults.userid = "iqn.1998-01.org.example:writer-" + std::to_string(i);
    store.SetOrvaIscsiDefaultConfig(defaults);
  }
  EXPECT_EQ(0, child.Join()) << "the other process lost one of its writes";
  EXPECT_EQ(0, lost);
  bool enabled = true;
  EXPECT_TRUE(store.GetOrvaIscsiServiceEnabled(&enabled) && enabled == ((kWrites - 1) % 2 == 0));
}

// The disk library opens only on an existing directory this process can write, and says why
// otherwise; the permission check runs in a child that drops superuser privileges first.
TEST(LocalDatastoreAvailability, RootMustBeAnExistingWritableDirectory) {
  constexpr int kCannotDropPrivileges = 77;
  test::ScopedTestHost testHost;
  const std::string root = testHost.Home() + "/datastore";
  for (const std::string problem : {"No such file or directory", "Not a directory"}) {
    EXPECT_EQ(NOK_NOT_FOUND, LocalDiskLibrary(root, testHost.Config().hostUuid).Init());
    EXPECT_TRUE(testHost.Log().Contains("DiskLibrary: Datastore root " + root +
                                        " cannot be used: " + problem));
    WriteFile(root, "");
  }
  fs::remove(root);
  // A root anyone may write must be usable to the child: a refusal is down to the bits.
  const std::string open = testHost.Home() + "/open-datastore";
  fs::create_directory(root);
  fs::create_directory(open);
  testHost.Log().Clear();
  EXPECT_EQ(NOK_OK, LocalDiskLibrary(root, testHost.Config().hostUuid).Init());
  EXPECT_TRUE(testHost.Log().Texts(LogLevel::Warning).empty());
  ASSERT_EQ(0, ::chmod(testHost.Home().c_str(), 0755));
  ASSERT_EQ(0, ::chmod(root.c_str(), 0555));
  ASSERT_EQ(0, ::chmod(open.c_str(), 0777));
  ChildProcess child([&](ChildControl&) {
    const uid_t nobody = 65534;
    if (::geteuid() == 0 && (::setgid(nobody) != 0 || ::setuid(nobody) != 0)) return kCannotDropPrivileges;
    if (LocalDiskLibrary(open, testHost.Config().hostUuid).Init() != NOK_OK) return 1;
    return LocalDiskLibrary(root, testHost.Config().hostUuid).Init() == NOK_IO_ERROR ? 0 : 2;
  });
  const int code = child.Join();
  ::chmod(root.c_str(), 0755);
  if (code == kCannotDropPrivileges) GTEST_SKIP() << "cannot run as an unprivileged user";
  EXPECT_EQ(0, code);
}

// A fake /sys/class/net entry: operstate, carrier (none when empty, as the kernel refuses it
// for a down link), subdirectories making it a bridge, bond or upper interface, expected state.
struct SysfsNic {
  std::string name, operstate, carrier;
  std::vector<std::string> subdirs;
  NokNicState expected;
};

TEST(LocalNicState, StateFollowsOperstateThenCarrierAndMastersWithoutLowerHaveNoUplinks) {
  TempHome home;
  const std::string root = home.Path() + "/class/net";
  const std::vector<SysfsNic> nics = {
      {"eth0", "up", "1", {}, NOKNIC_UP}, {"eth1", "up", "0", {}, NOKNIC_NO_CARRIER},
      {"eth2", "down", "", {}, NOKNIC_DOWN}, {"eth3", "down", "1", {}, NOKNIC_DOWN},
      {"tun0", "unknown", "1", {}, NOKNIC_UP}, {"tun1", "unknown", "0", {}, NOKNIC_NO_CARRIER},
      {"vlan10", "lowerlayerdown", "0", {}, NOKNIC_NO_CARRIER},
      {"wlan0", "dormant", "1", {}, NOKNIC_NO_CARRIER},
      // A bridge without ports is "down": no uplinks rather than a failed link.
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

// A getifaddrs list built by hand from rows (name, flags, family or AF_UNSPEC, address).
class IfaddrsList {
 public:
  using Row = std::tuple<const char*, unsigned, int, const char*>;
  explicit IfaddrsList(const std::vector<Row>& rows) : entries_(rows.size()) {
    for (size_t i = 0; i < rows.size(); ++i) {
      const auto& [name, flags, family, address] = rows[i];
      Entry& entry = entries_[i];
      entry.name = name;
      entry.ifa.ifa_next = i + 1 < rows.size() ? &entries_[i + 1].ifa : nullptr;
      entry.ifa.ifa_name = entry.name.data();
      entry.ifa.ifa_flags = flags;
      if (family == AF_UNSPEC) continue;
      auto* in = reinterpret_cast<struct sockaddr_in*>(&entry.address);
      auto* in6 = reinterpret_cast<struct sockaddr_in6*>(&entry.address);
      entry.address.ss_family = static_cast<sa_family_t>(family);
      EXPECT_EQ(1, ::inet_pton(family, address,
                               family == AF_INET ? static_cast<void*>(&in->sin_addr) : &in6->sin6_addr));
      entry.ifa.ifa_addr = reinterpret_cast<struct sockaddr*>(&entry.address);
    }
  }
  const struct ifaddrs* Get() const { return &entries_.front().ifa; }

 private:
  struct Entry {
    std::string name;
    struct ifaddrs ifa {};
    struct sockaddr_storage address {};
  };
  std::vector<Entry> entries_;  // never resized: the list points into it
};

// Names leave out loopback, once each in first-seen order, up or not; the first IPv4 and first
// non-link-local IPv6 are preferred, link-local is the last resort, no address gives "".
TEST(LocalNicAddress, NamesAndPreferredAddressesComeFromTheList) {
  const unsigned up = IFF_UP, lo = IFF_UP | IFF_LOOPBACK;
  const int v4 = AF_INET, v6 = AF_INET6, none = AF_UNSPEC;
  const IfaddrsList list({
      {"lo", lo, none, nullptr}, {"eth0", up, none, nullptr}, {"eth5", 0, none, nullptr},
      {"lo", lo, v4, "127.0.0.1"}, {"eth1", up, v4, "10.0.1.1"}, {"eth0", up, v6, "fe80::1"},
      {"eth0", up, v4, "10.0.0.1"}, {"eth1", up, v6, "fd00:1::1"}, {"eth0", up, v4, "10.0.0.2"},
      {"eth0", up, v6, "fe80::2"}, {"eth0", up, v6, "fd00::2"}, {"eth0", up, v6, "fd00::3"},
      {"eth3", up, v6, "fe80::31"}, {"eth3", up, v6, "fe80::32"}, {"eth5", 0, v4, "10.0.5.1"},
      {"eth4", up, none, nullptr}});
  EXPECT_THAT(ListNokNicNames(list.Get()), ::testing::ElementsAre("eth0", "eth5", "eth1", "eth3", "eth4"));
  const std::vector<std::tuple<std::string, std::string, std::string>> preferred = {
      {"eth0", "10.0.0.1", "fd00::2"}, {"eth3", "", "fe80::31"}, {"eth4", "", ""}};
  for (const auto& [name, ipv4, ipv6] : preferred) {
    std::string got4 = "stale", got6 = "stale";
    PickPreferredAddresses(list.Get(), name, &got4, &got6);
    EXPECT_EQ(ipv4 + " " + ipv6, got4 + " " + got6) << name;
  }
}

DirectoryEntry StorageObject(const std::string& payload) {
  return {kStorageObjectEntryType, kNamespace, kHostA, kNamespace, payload, 0};
}

// An object's policy comes from its directory entry (policy_test.cc judges it), compliance
// unknown without cluster facts; compliance sessions open only while the directory answers.
TEST(LocalPolicyService, PolicyIsFoundThroughTheDirectoryAndSessionsOpenWhileItAnswers) {
  test::ScopedTestHost testHost;
  std::unique_ptr<Directory> directory = NewSqliteDirectory(testHost.Home() + "/directory.db");
  ASSERT_EQ(NOK_OK, test::PublishAndWait(*directory, StorageObject(R"({"ownerHost": ")" + kHostA +
                                                                   R"(", "policy": "failuresToTolerate=1"})")));
  LocalPolicyService service(*directory, kHostA);
  EXPECT_EQ(Compliance::Unknown, service.GetObjectPolicyStatus(kNamespace).compliance);
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
  test::UnreachableDirectory failing(NOK_IO_ERROR);
  LocalPolicyService cutOff(failing, kHostA);
  EXPECT_EQ("Failed to look up storage object " + kNamespace + ": I/O error", lookup(cutOff));
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
  EXPECT_EQ(NOK_NO_CONNECTION, cutOff.Init());
  EXPECT_TRUE(testHost.Log().Contains(
      "PolicyService: Cannot open a compliance session, the directory failed: I/O error"));
  EXPECT_FALSE(testHost.Log().Contains(unpaired));
  // The failed Init opened nothing for a Deinit to close.
  cutOff.Deinit();
  EXPECT_TRUE(testHost.Log().Contains(unpaired));
}

}  // namespace
}  // namespace zel::platform
