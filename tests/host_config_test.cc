// The host configuration: the identity a home gets on first use and keeps,
// the values host.json sets over the embedded defaults, and the messages for
// a file that cannot be used.
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/HostConfig.h"
#include "support/Process.h"
#include "support/TestHost.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace platform {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using test::ChildControl;
using test::ChildProcess;
using test::ReadFile;
using test::TempHome;
using test::WriteFile;

const std::string kHostA = "11111111-2222-4333-8444-555555555555";

bool IsCanonicalUuid(const std::string& text) {
  static const std::regex canonical("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");
  return std::regex_match(text, canonical);
}

std::string LocalHostName() {
  char name[HOST_NAME_MAX + 1] = {};
  ::gethostname(name, sizeof name - 1);
  return name;
}

ino_t InodeOf(const std::string& path) {
  struct stat info;
  EXPECT_EQ(0, ::stat(path.c_str(), &info)) << path;
  return info.st_ino;
}

// The message LoadHostConfig throws for `home`, or "" when it succeeds.
std::string LoadError(const std::string& home) {
  try {
    LoadHostConfig(home);
  } catch (const OrvaCtlException& e) {
    return e.GetMessage();
  }
  return "";
}

TEST(HostConfigIdentity, FirstUseCreatesAnOwnerOnlyHomeWithAFreshIdentity) {
  TempHome temp;
  const std::string home = temp.Path() + "/not/yet/home";

  const HostConfig config = LoadHostConfig(home);

  struct stat info;
  ASSERT_EQ(0, ::stat(home.c_str(), &info));
  EXPECT_EQ(0700u, info.st_mode & 07777);
  EXPECT_TRUE(IsCanonicalUuid(config.hostUuid)) << config.hostUuid;
  EXPECT_EQ(LocalHostName(), config.hostName);
  const nlohmann::json stored = nlohmann::json::parse(ReadFile(home + "/host.json"));
  EXPECT_EQ(config.hostUuid, stored.at("hostUuid"));
  EXPECT_EQ(config.hostName, stored.at("hostName"));
}

TEST(HostConfigIdentity, IdentityIsKeptAndTheFileNotRewrittenOnLaterLoads) {
  TempHome temp;
  const std::string first = LoadHostConfig(temp.Path()).hostUuid;
  const ino_t written = InodeOf(temp.Path() + "/host.json");

  EXPECT_EQ(first, LoadHostConfig(temp.Path()).hostUuid);
  EXPECT_EQ(first, LoadHostConfig(temp.Path()).hostUuid);
  EXPECT_EQ(written, InodeOf(temp.Path() + "/host.json"));
}

TEST(HostConfigIdentity, HomesDoNotShareAnIdentity) {
  TempHome one, two;
  EXPECT_NE(LoadHostConfig(one.Path()).hostUuid, LoadHostConfig(two.Path()).hostUuid);
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

TEST(HostConfigIdentity, FileSeededWithoutIdentityGainsOneAndKeepsItsKeys) {
  TempHome temp;
  const std::string path = temp.Path() + "/host.json";
  WriteFile(path, R"({"faultDomain": "site-b", "options": {"ORVA-iSCSI.zelLunNaaEnable": 1}})");

  const HostConfig config = LoadHostConfig(temp.Path());

  EXPECT_TRUE(IsCanonicalUuid(config.hostUuid));
  EXPECT_EQ("site-b", config.faultDomain);
  const nlohmann::json stored = nlohmann::json::parse(ReadFile(path));
  EXPECT_EQ(config.hostUuid, stored.at("hostUuid"));
  EXPECT_EQ("site-b", stored.at("faultDomain"));
  EXPECT_EQ(1, stored.at("options").at("ORVA-iSCSI.zelLunNaaEnable"));
  EXPECT_EQ(config.hostUuid, LoadHostConfig(temp.Path()).hostUuid);
}

TEST(HostConfigValues, AbsentKeysTakeTheEmbeddedLayoutUnderTheHome) {
  TempHome temp;
  const std::string& home = temp.Path();

  const HostConfig config = LoadHostConfig(home);

  EXPECT_EQ(Profile::Embedded, config.profile);
  EXPECT_EQ(home, config.home);
  EXPECT_TRUE(config.clusterMember);
  EXPECT_EQ("", config.faultDomain);
  EXPECT_EQ(home + "/datastore", config.datastoreRoot);
  EXPECT_EQ("sqlite", config.directoryBackend);
  EXPECT_EQ(home + "/directory.db", config.directoryPath);
  EXPECT_EQ(home + "/config-store.json", config.configStorePath);
  EXPECT_EQ(home + "/var/run/log/zel.conf.backup", config.backupConfPath);
  EXPECT_TRUE(config.options.empty());
  EXPECT_TRUE(config.commands.empty());
}

TEST(HostConfigValues, KeysOverrideTheDefaultsAndRelativePathsStartAtTheHome) {
  TempHome temp;
  const std::string& home = temp.Path();
  WriteFile(home + "/host.json", R"({
    "hostUuid": "11111111-2222-4333-8444-555555555555",
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

  const HostConfig config = LoadHostConfig(home);

  EXPECT_EQ(kHostA, config.hostUuid);
  EXPECT_EQ("node-7", config.hostName);
  EXPECT_EQ("site-a", config.faultDomain);
  EXPECT_FALSE(config.clusterMember);
  EXPECT_EQ("/mnt/shared/datastore", config.datastoreRoot);
  EXPECT_EQ("sqlite", config.directoryBackend);
  EXPECT_EQ(home + "/db/directory.db", config.directoryPath);
  EXPECT_EQ(home + "/store.json", config.configStorePath);
  EXPECT_EQ((std::map<std::string, int>{{"ORVA-iSCSI.zelNokNicCtlEnable", 0},
                                        {"ORVA-iSCSI.zelLoadBalancePeriod", 600}}),
            config.options);
  EXPECT_EQ((std::map<std::string, std::string>{{"zeld", "/opt/zel/bin/zeld"}}), config.commands);
  EXPECT_EQ("storage.example.net", config.iqnDomain);
}

TEST(HostConfigValues, UpperCaseIdentityIsReadInCanonicalForm) {
  TempHome temp;
  WriteFile(temp.Path() + "/host.json",
            R"({"hostUuid": "ABCDEF01-2222-4333-8444-55555555AAAA", "hostName": "n"})");
  EXPECT_EQ("abcdef01-2222-4333-8444-55555555aaaa", LoadHostConfig(temp.Path()).hostUuid);
}

TEST(HostConfigErrors, MalformedJsonNamesTheFileAndThePositionAndIsLeftAlone) {
  TempHome temp;
  const std::string path = temp.Path() + "/host.json";
  const std::string text = "{\n  \"hostName\": \"node-1\",\n  \"faultDomain\" \"site-a\"\n}\n";
  WriteFile(path, text);

  EXPECT_EQ("Host configuration " + path +
                " is not valid JSON: parse error at line 3, column 24: syntax error while "
                "parsing object separator - unexpected string literal; expected ':'",
            LoadError(temp.Path()));
  EXPECT_EQ(text, ReadFile(path));
}

TEST(HostConfigErrors, ValueOfTheWrongTypeNamesTheKey) {
  TempHome temp;
  const std::string path = temp.Path() + "/host.json";
  const std::string identity = R"("hostUuid": ")" + kHostA + R"(", "hostName": "n", )";
  struct Case {
    std::string members;
    std::string problem;
  };
  const std::string kIqnDomainRule =
      "'iqnDomain' must be a domain name of at most 100 bytes, labels of letters, digits and '-' "
      "separated by dots: ";
  const Case cases[] = {
      {R"("clusterMember": "yes")", "'clusterMember' must be true or false"},
      {R"("faultDomain": 3)", "'faultDomain' must be a string"},
      {R"("directory": "sqlite")", "'directory' must be an object"},
      {R"("directory": {"path": 1})", "'directory.path' must be a string"},
      {R"("options": {"ORVA-iSCSI.zelLunNaaEnable": "1"})",
       "'options.ORVA-iSCSI.zelLunNaaEnable' must be an integer"},
      {R"("options": {"ORVA-iSCSI.zelLunNaaEnable": 4294967296})",
       "'options.ORVA-iSCSI.zelLunNaaEnable' is out of range"},
      {R"("options": {"zelLunNaaEnable": 1})",
       "option 'zelLunNaaEnable' is not of the form GROUP.name"},
      {R"("commands": {"zeld": ["/bin/zeld"]})", "'commands.zeld' must be a string"},
      {R"("datastorePath": "")", "'datastorePath' must not be empty"},
      {R"("datastorPath": "/mnt")", "unknown key 'datastorPath'"},
      {R"("iqnDomain": "pool_1.example.net")", kIqnDomainRule + "'pool_1.example.net'"},
      {R"("iqnDomain": "example..net")", kIqnDomainRule + "'example..net'"},
      {R"("iqnDomain": ")" + std::string(99, 'a') + R"(.b")",
       kIqnDomainRule + "'" + std::string(99, 'a') + ".b'"},
  };
  for (const Case& c : cases) {
    WriteFile(path, "{" + identity + c.members + "}");
    EXPECT_EQ("Host configuration " + path + ": " + c.problem, LoadError(temp.Path())) << c.members;
  }
}

TEST(HostConfigErrors, IdentityThatIsNotAUuidIsRefused) {
  TempHome temp;
  const std::string path = temp.Path() + "/host.json";
  WriteFile(path, R"({"hostUuid": "node-1", "hostName": "n"})");
  EXPECT_EQ("Host configuration " + path + ": 'hostUuid' is not a UUID: 'node-1'",
            LoadError(temp.Path()));
}

TEST(HostConfigErrors, DocumentThatIsNotAnObjectIsRefused) {
  TempHome temp;
  const std::string path = temp.Path() + "/host.json";
  WriteFile(path, R"(["hostUuid"])");
  EXPECT_EQ("Host configuration " + path + " does not hold a JSON object", LoadError(temp.Path()));
}

TEST(HostConfigErrors, FileThatCannotBeReadIsNamedWithTheReason) {
  TempHome temp;
  const std::string path = temp.Path() + "/host.json";
  std::filesystem::create_directory(path);
  EXPECT_EQ("Host configuration " + path + " cannot be read: Is a directory",
            LoadError(temp.Path()));
}

TEST(HostConfigErrors, HomeThatIsAFileIsRefused) {
  TempHome temp;
  const std::string home = temp.Path() + "/home";
  WriteFile(home, "");
  EXPECT_EQ("Home " + home + " is not a directory", LoadError(home));
}

}  // namespace
}  // namespace platform
}  // namespace zel
