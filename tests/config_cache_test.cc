// The configuration cache: when queries are answered from memory or from
// zel.conf, how change notices and refreshes move it, failed reads, and the
// same across two processes with a real save and publication.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "cache/ConfigCache.h"
#include "conf/ConfHandle.h"
#include "directory/DirectoryEntries.h"
#include "storage/DatastoreLayout.h"
#include "support/Messages.h"
#include "support/Process.h"
#include "support/ServiceHome.h"

namespace zel {
namespace test {
namespace {

using NokCtl::Orva::IscsiTarget::ConfHandle;
using NokCtl::Orva::IscsiTarget::ConfigCache;
using NokCtl::Orva::IscsiTarget::Util::GetConfFilePath;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr uint64_t kNothingCached = std::numeric_limits<uint64_t>::max();

// The standard conf saved elsewhere as `generation`, target "lab" renamed `labAlias`.
std::string Changed(uint64_t generation, const std::string& labAlias) {
  std::string text = kStandardConf;
  text.replace(0, text.find('\n'), "generation " + std::to_string(generation));
  const std::string lab = "\talias \"lab\"";
  text.replace(text.find(lab), lab.size(), "\talias \"" + labAlias + "\"");
  return text;
}
std::vector<std::string> TargetAliases() {
  std::vector<std::string> aliases;
  for (const auto& target : ConfigCache::GetTargetsInfos()) aliases.push_back(target.alias);
  return aliases;
}
std::vector<std::string> GroupNames() {
  std::vector<std::string> names;
  for (const auto& group : ConfigCache::GetInitiatorGroupInfos()) names.push_back(group.name);
  return names;
}
// Polls for about 30 s: the notice comes from the directory's own thread.
template <typename Condition>
bool Eventually(Condition condition) {
  for (int attempt = 0; attempt < 3000; ++attempt) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return condition();
}
class ConfigCacheTest : public ::testing::Test {
 protected:
  // The queries that went to the file, by the line each logs before reading.
  std::vector<std::string> FileReads() const {
    std::vector<std::string> reads;
    for (const std::string& line : host_.log->Texts()) {
      if (line.find(" from conf file") != std::string::npos) reads.push_back(line);
    }
    return reads;
  }
  int Opens() const { return host_.files->Calls(FileOp::Open); }
  // The state in which queries are served from memory.
  void SubscribeAndFill() {
    ConfigCache::SubscribeBrix();
    TargetAliases();
    ASSERT_EQ(FileReads().size(), 1u);
    ASSERT_FALSE(ConfigCache::IsZelConfDirty());
  }
  ServiceHome home_;
  TestServices host_ = home_.InstallTestHost();
};

TEST_F(ConfigCacheTest, WithoutSubscriptionEveryQueryReadsTheFile) {
  std::vector<std::string> twice;
  for (int round = 0; round < 2; ++round) {
    ConfigCache::GetConfigInfo(false);
    ConfigCache::GetTargetsInfos();
    ConfigCache::GetInitiatorGroupInfos();
    ConfigCache::GetAllIscsiNoknics();
    for (const char* query :
         {"GetConfigInfo", "GetTargetsInfos", "GetInitiatorGroupInfos", "GetAllIscsiNoknics"})
      twice.push_back(std::string("ZelConfigCache: ") + query + " from conf file");
  }
  EXPECT_EQ(FileReads(), twice);
  EXPECT_EQ(Opens(), 8);
  // Each read refills the cache, which stays untrusted until subscribed.
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), 7u);
}
TEST_F(ConfigCacheTest, SubscribedAndCleanCacheIsServedFromMemory) {
  SubscribeAndFill();
  const int opens = Opens();
  // A change that no notice announced is not seen: nothing opens the file.
  home_.WriteConf(Changed(8, "lab-renamed"));
  EXPECT_THAT(TargetAliases(), ElementsAre("finance", "lab"));
  EXPECT_THAT(GroupNames(), ElementsAre("finance-hosts"));
  EXPECT_EQ(ConfigCache::GetConfigInfo(false).userid, "defuser");
  EXPECT_THAT(ConfigCache::GetAllIscsiNoknics(), ElementsAre("nok0"));
  EXPECT_EQ(Opens(), opens);
  EXPECT_EQ(FileReads().size(), 1u);
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), 7u);
}
TEST_F(ConfigCacheTest, ChangeNoticeMarksDirtyAndTheNextQueryReadsTheFileOnce) {
  SubscribeAndFill();
  home_.WriteConf(Changed(8, "lab-renamed"));
  UpdateZelConfigCacheAPI(nullptr, NOK_OK);
  EXPECT_TRUE(ConfigCache::IsZelConfDirty());
  EXPECT_TRUE(ConfigCache::GetZelConfBrixEntryExists(true));
  EXPECT_THAT(TargetAliases(), ElementsAre("finance", "lab-renamed"));
  EXPECT_FALSE(ConfigCache::IsZelConfDirty());
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), 8u);
  GroupNames();
  EXPECT_EQ(FileReads().size(), 2u);
  // A notice of unknown meaning still asks for a read.
  UpdateZelConfigCacheAPI(nullptr, NOK_NO_CONNECTION);
  EXPECT_TRUE(ConfigCache::IsZelConfDirty());
  TargetAliases();
  EXPECT_EQ(FileReads().size(), 3u);
  // A notice of an absent entry records the absence and keeps the cache clean.
  const int opens = Opens();
  UpdateZelConfigCacheAPI(nullptr, NOK_NOT_FOUND);
  EXPECT_FALSE(ConfigCache::GetZelConfBrixEntryExists(true));
  EXPECT_FALSE(ConfigCache::IsZelConfDirty());
  TargetAliases();
  EXPECT_EQ(Opens(), opens);
}
TEST_F(ConfigCacheTest, BackgroundRefreshReplacesTheGraphButLeavesTheDirtyFlag) {
  SubscribeAndFill();
  home_.WriteConf(Changed(8, "lab-renamed"));
  UpdateZelConfigCacheAPI(nullptr, NOK_OK);
  ConfigCache::UpdateZelConfigCache(0);
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), 8u);
  EXPECT_TRUE(ConfigCache::IsZelConfDirty());
  EXPECT_TRUE(host_.log->Contains("ZelConfigCache: Done with the ZEL config cache update."));
  // Only a query's own read makes the cache trusted again.
  TargetAliases();
  EXPECT_EQ(FileReads().size(), 2u);
  EXPECT_FALSE(ConfigCache::IsZelConfDirty());
  // A failed refresh is logged and empties the cache.
  home_.WriteConf("generation 9\ntarget {\n}\n");
  ConfigCache::UpdateZelConfigCache(0);
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), kNothingCached);
  EXPECT_TRUE(ConfigCache::IsBrixSubscribed());
  EXPECT_TRUE(host_.log->Contains(
      "ZelConfigCache: Failed to update the config cache due to: Failed to read conf file: " +
      GetConfFilePath()));
}
TEST_F(ConfigCacheTest, FailedReadThrowsAndLeavesTheCacheAsItWas) {
  SubscribeAndFill();
  UpdateZelConfigCacheAPI(nullptr, NOK_OK);
  home_.WriteConf("generation 8\ntarget {\n}\n");
  EXPECT_EQ(MessageOf([] { ConfigCache::GetTargetsInfos(); }),
            "Failed to read conf file: " + GetConfFilePath());
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), 7u);
  EXPECT_TRUE(ConfigCache::IsZelConfDirty());
  home_.WriteConf(Changed(9, "lab-renamed"));
  host_.files->FailNext(FileOp::Open, FILEIO_ERROR);
  EXPECT_EQ(MessageOf([] { ConfigCache::GetInitiatorGroupInfos(); }),
            "Parser: share lock failed on " + GetConfFilePath());
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), 7u);
  EXPECT_TRUE(ConfigCache::IsZelConfDirty());
  EXPECT_THAT(TargetAliases(), ElementsAre("finance", "lab-renamed"));
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), 9u);
}
TEST_F(ConfigCacheTest, DroppingTheGraphOrTheSubscriptionMakesQueriesReadAgain) {
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), kNothingCached);
  SubscribeAndFill();
  // Dropping the graph keeps the subscription; the next query reads.
  ConfigCache::CleanupCachedConfig();
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), kNothingCached);
  EXPECT_TRUE(ConfigCache::IsBrixSubscribed());
  TargetAliases();
  EXPECT_EQ(FileReads().size(), 2u);
  // Unsubscribing empties the cache and every query reads.
  ConfigCache::UnsubscribeBrix();
  EXPECT_FALSE(ConfigCache::IsBrixSubscribed());
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), kNothingCached);
  TargetAliases();
  TargetAliases();
  EXPECT_EQ(FileReads().size(), 4u);
}
TEST_F(ConfigCacheTest, SubscribingTwiceKeepsOneAndFailureLeavesItUnsubscribed) {
  ConfigCache::SubscribeBrix();
  ConfigCache::SubscribeBrix();
  const std::vector<std::string> lines = host_.log->Texts();
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "ZelConfigCache: Subscribing ZEL config info from BRIX"),
            1);
  ConfigCache::UnsubscribeBrix();
  // Without the namespace there is no generation entry to watch.
  home_.RemoveNamespaceLink();
  EXPECT_THAT(MessageOf([] { ConfigCache::SubscribeBrix(); }),
              HasSubstr("Failed to subscribe BRIX ZEL config entry: "));
  EXPECT_FALSE(ConfigCache::IsBrixSubscribed());
}
// The child is forked before this process opens its directory (no thread copied mid-flight).
TEST(ConfigCacheAcrossProcessesTest, SaveAndPublishElsewhereMakesThisCacheReadTheFileOnce) {
  ServiceHome home;
  ChildProcess writer([&home](ChildControl& control) {
    control.AwaitRelease();
    home.InstallLocalServiceHost(platform::LogLevel::Error);
    ConfHandle handle(ConfHandle::kExclusiveMode, GetConfFilePath());
    if (initiator_group_new(handle.conf, "added-group") == nullptr) return 2;
    const uint64_t generation = handle.WriteConfFile();
    if (generation != 8) return 3;
    return ZeldUpdateBrixEntryForConfig(generation) == NOK_OK ? 0 : 4;
  });
  TestServices host = home.InstallTestHost();
  ConfigCache::SubscribeBrix();
  EXPECT_THAT(GroupNames(), ElementsAre("finance-hosts"));
  const int opens = host.files->Calls(FileOp::Open);
  GroupNames();
  ASSERT_EQ(host.files->Calls(FileOp::Open), opens);
  writer.Release();
  ASSERT_EQ(writer.Join(), 0);
  // The shared lock orders this read after the notice that set the flags.
  ASSERT_TRUE(Eventually([] { return ConfigCache::GetZelConfBrixEntryExists(true); }));
  EXPECT_TRUE(ConfigCache::IsZelConfDirty());
  EXPECT_THAT(GroupNames(), ElementsAre("finance-hosts", "added-group"));
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), 8u);
  GroupNames();
  EXPECT_EQ(host.files->Calls(FileOp::Open), opens + 1);
}

}  // namespace
}  // namespace test
}  // namespace zel
