// The service's state outside zel.conf (the enabled flag in the store or the
// legacy file, the defaults mirrored into the store, the kernel options) and
// what follows a save of zel.conf: publication and backup.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <string>

#include "cache/ConfigCache.h"
#include "cache/ConfigSave.h"
#include "directory/DirectoryEntries.h"
#include "platform/local/JsonConfigStore.h"
#include "platform/local/LocalKernelOptions.h"
#include "platform/local/LocalLegacyConfig.h"
#include "service/ConfigBackup.h"
#include "platform/FeatureGates.h"
#include "service/ServiceConfig.h"
#include "storage/DatastoreLayout.h"
#include "support/Messages.h"
#include "support/ServiceHome.h"
#include "support/TestHost.h"

namespace zel::test {
namespace {
namespace Util = NokCtl::Orva::IscsiTarget::Util;
using HostCtl::Orva::IscsiTarget::DefaultInfo;
using NokCtl::Orva::IscsiTarget::ConfigCache;
using platform::LogLevel;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr uint64_t kNone = std::numeric_limits<uint64_t>::max();

// The defaults cache is process-wide: each test uses records no other test
// has cached.
DefaultInfo FreshDefaults() {
  static int serial = 0;
  return DefaultInfo{"nok" + std::to_string(++serial), 3260, "CHAP-Mutual", "user",
                     "Secret#00001", "mutual", "Secret#00002"};
}

class ServiceStateTest : public ::testing::Test {
 protected:
  ServiceStateTest() {
    host_.Install<KernelOptionsDouble>(platform::NewLocalKernelOptions(host_.Config()));
    host_.Install<LegacyConfigDouble>(platform::NewLocalLegacyConfigFile(host_.Config()));
  }
  int DefaultWrites() const { return store_.Count("SetOrvaIscsiDefaultConfig"); }
  void WriteOptions(const std::string& json) { WriteFile(host_.Home() + "/options.json", json); }
  std::string StorePath() const { return host_.Config().configStorePath; }
  std::string LegacyPath() const { return host_.Home() + "/legacy-config.json"; }
  ScopedTestHost host_;
  ConfigStoreDouble& store_ = host_.Install<ConfigStoreDouble>(
      std::make_unique<platform::JsonConfigStore>(host_.Config().configStorePath));
};

TEST_F(ServiceStateTest, StatusReadsDisabledWhenNeverStoredAndRoundTripsThroughTheStore) {
  bool enabled = true;
  Util::LoadConfig(enabled);
  EXPECT_FALSE(enabled);
  EXPECT_TRUE(host_.Log().Contains("Util: ZEL service enabled field not exist in config store."));
  host_.Log().Clear();
  Util::SetStatus(true);
  Util::LoadConfig(enabled);
  EXPECT_TRUE(enabled);
  EXPECT_THAT(host_.Log().Texts(LogLevel::Info),
              ElementsAre("Util: Stored zel status 'enabled' to config store successfully",
                          "Util: Retrieved zel status 'enabled' from config store successfully"));
  EXPECT_FALSE(std::filesystem::exists(LegacyPath()));
}

TEST_F(ServiceStateTest, StatusGoesToTheLegacyFileWhenTheStoreFeatureIsOff) {
  WriteOptions(R"({"ORVA": {"configStore": 0}})");
  bool enabled = true;
  Util::LoadConfig(enabled);
  EXPECT_FALSE(enabled);
  Util::SetStatus(true);
  Util::LoadConfig(enabled);
  EXPECT_TRUE(enabled);
  EXPECT_THAT(ReadFile(LegacyPath()), HasSubstr("\"/UserVars/ZelServiceEnabled\": true"));
  EXPECT_FALSE(std::filesystem::exists(StorePath()));
  EXPECT_THAT(host_.Log().Texts(LogLevel::Info),
              ElementsAre("Util: Retrieved zel status 'disabled' successfully",
                          "Util: Stored zel status 'enabled' successfully",
                          "Util: Retrieved zel status 'enabled' successfully"));
}

TEST_F(ServiceStateTest, UnreadableStoreOrLegacyFileFailsWithItsMessage) {
  struct Case {
    bool legacy;
    std::string path, prefix, persist, load;
  };
  for (const Case& c :
       {Case{false, StorePath(), "Configuration store ",
             "Util: ZEL failed to persist info for ZEL status to config store with exception ",
             "Util: ZEL failed to get info for ZEL status from config store with exception "},
        Case{true, LegacyPath(), "Legacy configuration ",
             "Util: ZEL failed to persist info for ZEL  status with exception ",
             "Util: ZEL failed to load info for ZEL  status with exception "}}) {
    SCOPED_TRACE(c.legacy);
    host_.Log().Clear();
    if (c.legacy) WriteOptions(R"({"ORVA": {"configStore": 0}})");
    WriteFile(c.path, c.legacy ? "[" : "{");
    const std::string stored = MessageOf([] { Util::SetStatus(true); });
    ASSERT_THAT(stored, StartsWith(c.prefix + c.path));
    bool enabled = false;
    const std::string loaded = MessageOf([&] { Util::LoadConfig(enabled); });
    EXPECT_EQ(loaded, stored);
    EXPECT_THAT(host_.Log().Texts(LogLevel::Error), ElementsAre(c.persist + stored, c.load + loaded));
  }
}

TEST_F(ServiceStateTest, LoadConfigTakesTheStoredDefaultsIntoTheCacheOrFailsWithTheStore) {
  const DefaultInfo stored = FreshDefaults();
  platform::JsonConfigStore(StorePath()).SetOrvaIscsiDefaultConfig(stored);
  bool enabled = false;
  Util::LoadConfig(enabled);
  EXPECT_EQ(Util::GetDefaultConfigCache().networkInterface, stored.networkInterface);
  Util::UpdateDefaultConfigToConfigStore(stored);  // what was just read is not written back
  EXPECT_EQ(DefaultWrites(), 0);
  store_.FailNext("GetOrvaIscsiDefaultConfig", "defaults unreadable");
  EXPECT_EQ(MessageOf([&] { Util::LoadConfig(enabled); }), "defaults unreadable");
  EXPECT_THAT(host_.Log().Texts(LogLevel::Error),
              ElementsAre("Util: ZEL failed to get default config from config store with "
                          "exception defaults unreadable"));
}

TEST_F(ServiceStateTest, StoreFeatureFollowsTheOptionsFileWithoutRestart) {
  Util::SetStatus(true);  // the store, while no option says otherwise
  WriteOptions(R"({"ORVA": {"configStore": 0}})");
  bool enabled = true;
  Util::LoadConfig(enabled);
  EXPECT_FALSE(enabled);  // the legacy file never held the flag
  WriteOptions(R"({"ORVA": {"configStore": 1}})");
  Util::LoadConfig(enabled);
  EXPECT_TRUE(enabled);
}

TEST_F(ServiceStateTest, MissingOptionReadsZeroSilentlyAndAnUnreadableOneWithAWarning) {
  WriteOptions(R"({"ORVA-iSCSI": {"zelLoadBalancePeriod": 30}})");
  EXPECT_EQ(Util::ZelGetNsiIntOpt("ORVA-iSCSI", "zelNokNicCtlEnable"), 0);
  EXPECT_EQ(Util::ZelGetNsiIntOpt("ORVA", "zelNokNicCtlEnable"), 0);
  EXPECT_THAT(host_.Log().Texts(LogLevel::Warning), IsEmpty());
  WriteOptions(R"({"ORVA-iSCSI": {"zelLunNaaEnable": "yes"}})");
  EXPECT_EQ(Util::ZelGetNsiIntOpt("ORVA-iSCSI", "zelLunNaaEnable"), 0);
  EXPECT_TRUE(host_.Log().Contains(
      "Util: Failed to get component: ORVA-iSCSI, field: zelLunNaaEnable: Bad parameter"));
  WriteOptions("{\"ORVA-iSCSI\": ");
  EXPECT_EQ(Util::ZelGetNsiIntOpt("ORVA-iSCSI", "zelLunNaaEnable"), 0);
  EXPECT_TRUE(host_.Log().Contains(
      "Util: Failed to get component: ORVA-iSCSI, field: zelLunNaaEnable: I/O error"));
}

TEST(ServiceStateWithoutOptionsTest, OptionsReadZeroAndTheStoreStaysInUse) {
  ScopedTestHost host;  // no kernel options at all
  EXPECT_EQ(Util::ZelGetNsiIntOpt("ORVA-iSCSI", "zelLunNaaEnable"), 0);
  EXPECT_TRUE(host.Log().Contains(
      "Util: Failed to get component: ORVA-iSCSI, field: zelLunNaaEnable: The host service "
      "'kernel options' is not available in this process"));
}

TEST_F(ServiceStateTest, FeatureSwitchIsLoggedByName) {
  WriteOptions(R"({"ORVA": {"zelFeatureX": 1}})");
  EXPECT_TRUE(Util::IsZelFeatureEnabled("zelFeatureX"));
  EXPECT_FALSE(Util::IsZelFeatureEnabled("zelFeatureY"));
  EXPECT_THAT(host_.Log().Texts(LogLevel::Info),
              ElementsAre("Util: Retrieve Zel Feature (zelFeatureX): Enabled.",
                          "Util: Retrieve Zel Feature (zelFeatureY): Disabled."));
}

// A failed write is tried again next time; an unchanged record is not
// written again, a change of any one field is.
TEST_F(ServiceStateTest, DefaultsAreWrittenOnlyWhenAFieldChangedOrTheLastWriteFailed) {
  DefaultInfo defaults = FreshDefaults();
  store_.FailNext("SetOrvaIscsiDefaultConfig", "store is read-only");
  EXPECT_EQ(MessageOf([&] { Util::UpdateDefaultConfigToConfigStore(defaults); }),
            "store is read-only");
  EXPECT_THAT(host_.Log().Texts(LogLevel::Error),
              ElementsAre("Util: ZEL failed to persist default config to config store with "
                          "exception store is read-only"));
  Util::UpdateDefaultConfigToConfigStore(defaults);
  Util::UpdateDefaultConfigToConfigStore(defaults);
  EXPECT_EQ(DefaultWrites(), 2);
  DefaultInfo stored;
  ASSERT_TRUE(platform::JsonConfigStore(StorePath()).GetOrvaIscsiDefaultConfig(&stored));
  EXPECT_EQ(stored.networkInterface, defaults.networkInterface);
  int writes = 2;
  for (const auto& change : std::vector<std::function<void(DefaultInfo&)>>{
           [](DefaultInfo& d) { d.networkInterface += "x"; },
           [](DefaultInfo& d) { d.port = 3261; }, [](DefaultInfo& d) { d.authType = "CHAP"; },
           [](DefaultInfo& d) { d.userid += "x"; }, [](DefaultInfo& d) { d.secret += "x"; },
           [](DefaultInfo& d) { d.mutualUserid += "x"; },
           [](DefaultInfo& d) { d.mutualSecret += "x"; }}) {
    change(defaults);
    Util::UpdateDefaultConfigToConfigStore(defaults);
    EXPECT_EQ(DefaultWrites(), ++writes);
  }
}

TEST_F(ServiceStateTest, DefaultsStayOutOfTheStoreWhenTheFeatureIsOff) {
  WriteOptions(R"({"ORVA": {"configStore": 0}})");
  Util::UpdateDefaultConfigToConfigStore(FreshDefaults());
  EXPECT_EQ(DefaultWrites(), 0);
  EXPECT_FALSE(std::filesystem::exists(StorePath()));
}

class ConfigChangeTest : public ::testing::Test {
 protected:
  ConfigChangeTest() { Util::ForgetBackupConfGenNumber(); }
  ~ConfigChangeTest() override { Util::ForgetBackupConfGenNumber(); }
  uint64_t Published() const {
    uint64_t generation = 0;
    EXPECT_EQ(ZeldGetConfigGenNumInBrix(&generation), NOK_OK);
    return generation;
  }
  std::string BackupPath() const { return NokCtl::Orva::IscsiTarget::Util::GetBackupConfFilePath(); }
  void SaveGeneration(uint64_t generation) {
    std::string text = kStandardConf;
    text.replace(0, text.find('\n'), "generation " + std::to_string(generation));
    home_.WriteConf(text);
  }
  ServiceHome home_;
  TestServices host_ = home_.InstallTestHost();
};

TEST_F(ConfigChangeTest, PublicationOfAllOnesIsNoneOfAnOlderGenerationWarnsElseThrows) {
  Util::DoActionForConfigChange(kNone);
  uint64_t generation = 0;
  EXPECT_EQ(ZeldGetConfigGenNumInBrix(&generation), NOK_NOT_FOUND);
  Util::DoActionForConfigChange(10);
  EXPECT_EQ(Published(), 10u);
  Util::DoActionForConfigChange(9);
  EXPECT_EQ(Published(), 10u);
  EXPECT_THAT(host_.log->Texts(LogLevel::Warning),
              ElementsAre("Util: Update ZEL conf entry into BRIX with config genration number 9 "
                          "failed with NOK_EXISTS"));
  Util::DoActionForConfigChange(11);
  EXPECT_EQ(Published(), 11u);
  home_.RemoveNamespaceLink();  // no namespace identity to publish under
  EXPECT_EQ(MessageOf([] { Util::DoActionForConfigChange(12); }),
            "Failed to Update ZEL conf entry into BRIX with error: Failure");
}

TEST_F(ConfigChangeTest, RefreshIsNeededOnlyForALaterCachedGeneration) {
  uint64_t known = 3;
  EXPECT_FALSE(Util::IsRefreshConfNeeded(known));  // nothing cached
  EXPECT_EQ(known, 3u);
  ConfigCache::UpdateZelConfigCache(0);
  EXPECT_TRUE(Util::IsRefreshConfNeeded(known));
  EXPECT_EQ(known, 7u);
  EXPECT_FALSE(Util::IsRefreshConfNeeded(known));
  SaveGeneration(8);
  ConfigCache::UpdateZelConfigCache(0);
  EXPECT_TRUE(Util::IsRefreshConfNeeded(known));
  EXPECT_EQ(known, 8u);
}

// A backup is needed before the first one whatever the generation, then for
// each later generation the cache has seen; a generation already backed up
// is skipped with a warning.
TEST_F(ConfigChangeTest, BackupIsNeededBeforeTheFirstOneAndForEachLaterCachedGeneration) {
  EXPECT_TRUE(Util::IsBackupConfNeeded());
  ConfigCache::UpdateZelConfigCache(0);
  EXPECT_TRUE(Util::IsBackupConfNeeded());
  ASSERT_TRUE(Util::CopyZelConfWithLock());
  EXPECT_THAT(ReadFile(BackupPath()), StartsWith("generation 7\n"));
  EXPECT_FALSE(Util::IsBackupConfNeeded());
  WriteFile(BackupPath(), "kept");
  EXPECT_TRUE(Util::CopyZelConfWithLock());
  EXPECT_EQ(ReadFile(BackupPath()), "kept");
  EXPECT_THAT(host_.log->Texts(LogLevel::Warning),
              ElementsAre("Util: backup zel.conf gen: 7, global zel.conf gen: 7, skip backup"));
  SaveGeneration(8);
  EXPECT_FALSE(Util::IsBackupConfNeeded());  // the cache has not seen it yet
  ConfigCache::UpdateZelConfigCache(0);
  EXPECT_TRUE(Util::IsBackupConfNeeded());
  EXPECT_TRUE(Util::CopyZelConfWithLock());
  EXPECT_THAT(ReadFile(BackupPath()), StartsWith("generation 8\n"));
}

TEST_F(ConfigChangeTest, BackupCopiesNothingOutsideTheManagementProcessOrFromNowhere) {
  ASSERT_FALSE(Util::IsRunningInOrvaMgmtd());
  Util::BackupConfigFile();
  EXPECT_FALSE(std::filesystem::exists(BackupPath()));
  EXPECT_TRUE(Util::IsBackupConfNeeded());
  home_.RemoveNamespaceLink();
  EXPECT_FALSE(Util::CopyZelConfWithLock());
  EXPECT_THAT(host_.log->Texts(LogLevel::Error),
              Contains(StartsWith("Util: Failed to copy file from " + NokCtl::Orva::IscsiTarget::Util::GetConfFilePath() +
                                  " due to: ")));
  EXPECT_FALSE(std::filesystem::exists(BackupPath()));
  EXPECT_TRUE(Util::IsBackupConfNeeded());
}

}  // namespace
}  // namespace zel::test
