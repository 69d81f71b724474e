// The local configuration store: what it keeps across processes, how it
// protects its secrets, what a damaged file gives, and that concurrent
// writers in separate processes never undo each other.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/local/JsonConfigStore.h"
#include "support/Process.h"
#include "support/TestHost.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace platform {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using HostCtl::Orva::IscsiTarget::DefaultInfo;
using test::ChildControl;
using test::ChildProcess;
using test::ReadFile;
using test::TempHome;
using test::WriteFile;

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

void ExpectSameDefaults(const DefaultInfo& expected, const DefaultInfo& actual) {
  EXPECT_EQ(expected.networkInterface, actual.networkInterface);
  EXPECT_EQ(expected.port, actual.port);
  EXPECT_EQ(expected.authType, actual.authType);
  EXPECT_EQ(expected.userid, actual.userid);
  EXPECT_EQ(expected.secret, actual.secret);
  EXPECT_EQ(expected.mutualUserid, actual.mutualUserid);
  EXPECT_EQ(expected.mutualSecret, actual.mutualSecret);
}

// The message of the exception `action` throws, or "" when it succeeds.
template <typename Action>
std::string ErrorOf(Action action) {
  try {
    action();
  } catch (const OrvaCtlException& e) {
    return e.GetMessage();
  }
  return "";
}

class LocalConfigStore : public ::testing::Test {
 protected:
  std::string Path() const { return home_.Path() + "/config-store.json"; }
  TempHome home_;
};

TEST_F(LocalConfigStore, MissingFileIsAnEmptyStoreAndReadingCreatesNothing) {
  JsonConfigStore store(Path());
  bool enabled = true;
  DefaultInfo info;
  EXPECT_FALSE(store.GetOrvaIscsiServiceEnabled(&enabled));
  EXPECT_FALSE(store.GetOrvaIscsiDefaultConfig(&info));
  EXPECT_FALSE(std::filesystem::exists(Path()));
}

TEST_F(LocalConfigStore, ValuesWrittenAreReadBackByAnotherInstance) {
  JsonConfigStore(Path()).SetOrvaIscsiServiceEnabled(true);
  JsonConfigStore(Path()).SetOrvaIscsiDefaultConfig(ChapMutualDefaults());

  JsonConfigStore reader(Path());
  bool enabled = false;
  DefaultInfo info;
  ASSERT_TRUE(reader.GetOrvaIscsiServiceEnabled(&enabled));
  EXPECT_TRUE(enabled);
  ASSERT_TRUE(reader.GetOrvaIscsiDefaultConfig(&info));
  ExpectSameDefaults(ChapMutualDefaults(), info);

  JsonConfigStore(Path()).SetOrvaIscsiServiceEnabled(false);
  ASSERT_TRUE(reader.GetOrvaIscsiServiceEnabled(&enabled));
  EXPECT_FALSE(enabled);
  ASSERT_TRUE(reader.GetOrvaIscsiDefaultConfig(&info));
  ExpectSameDefaults(ChapMutualDefaults(), info);
}

TEST_F(LocalConfigStore, MembersItDoesNotKnowSurviveItsWrites) {
  WriteFile(Path(), R"({"laterFeature": {"level": 2}})");
  JsonConfigStore(Path()).SetOrvaIscsiServiceEnabled(true);
  const nlohmann::json stored = nlohmann::json::parse(ReadFile(Path()));
  EXPECT_EQ(2, stored.at("laterFeature").at("level"));
  EXPECT_EQ(true, stored.at("orvaIscsiServiceEnabled"));
}

TEST_F(LocalConfigStore, FileIsOwnerOnlyEvenWhenItWasReadableByOthers) {
  WriteFile(Path(), "{}", 0644);
  JsonConfigStore(Path()).SetOrvaIscsiDefaultConfig(ChapMutualDefaults());
  struct stat info;
  ASSERT_EQ(0, ::stat(Path().c_str(), &info));
  EXPECT_EQ(0600u, info.st_mode & 07777);
}

TEST_F(LocalConfigStore, DamagedFileGivesThePositionButNoSecretAndIsNotOverwritten) {
  // Cut short in the middle of a secret, as a copy by hand might leave it.
  const std::string damaged = "{\"orvaIscsiDefaultConfig\": {\"secret\": \"target-secret-01";
  WriteFile(Path(), damaged);
  JsonConfigStore store(Path());
  DefaultInfo info;

  const std::string message = ErrorOf([&] { store.GetOrvaIscsiDefaultConfig(&info); });
  EXPECT_EQ("Configuration store " + Path() +
                " is not valid JSON: parse error at line 1, column 56: syntax error while "
                "parsing value - invalid string: missing closing quote",
            message);
  EXPECT_EQ(std::string::npos, message.find("target-secret"));
  EXPECT_EQ(message, ErrorOf([&] { store.SetOrvaIscsiServiceEnabled(true); }));
  EXPECT_EQ(damaged, ReadFile(Path()));
}

TEST_F(LocalConfigStore, MemberOfTheWrongTypeIsNamedWithoutItsValue) {
  JsonConfigStore store(Path());
  bool enabled;
  DefaultInfo info;

  WriteFile(Path(), R"({"orvaIscsiServiceEnabled": "yes"})");
  EXPECT_EQ("Configuration store " + Path() + ": 'orvaIscsiServiceEnabled' must be true or false",
            ErrorOf([&] { store.GetOrvaIscsiServiceEnabled(&enabled); }));

  WriteFile(Path(), R"({"orvaIscsiDefaultConfig": {"secret": ["top-secret"]}})");
  const std::string message = ErrorOf([&] { store.GetOrvaIscsiDefaultConfig(&info); });
  EXPECT_EQ("Configuration store " + Path() + ": 'orvaIscsiDefaultConfig.secret' must be a string",
            message);

  WriteFile(Path(), R"({"orvaIscsiDefaultConfig": {"port": 3260.5}})");
  EXPECT_EQ("Configuration store " + Path() + ": 'orvaIscsiDefaultConfig.port' must be an integer",
            ErrorOf([&] { store.GetOrvaIscsiDefaultConfig(&info); }));
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
        ErrorOf([&] { JsonConfigStore(Path()).SetOrvaIscsiDefaultConfig(ChapMutualDefaults()); });
    return message == "Failed to write " + Path() + ": File too large" ? 0 : 1;
  });
  ASSERT_EQ(0, child.Join());

  EXPECT_EQ(before, ReadFile(Path()));
  for (const auto& entry : std::filesystem::directory_iterator(home_.Path())) {
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
  ExpectSameDefaults(defaults, stored);
}

}  // namespace
}  // namespace platform
}  // namespace zel
