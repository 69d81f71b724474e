// The service's directory entries over the embedded SQLite directory: the
// generation published under compare-and-set and its notices, owners,
// interface addresses, and the datastore paths beside them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "directory/DirectoryEntries.h"
#include "platform/EntryMarshal.h"
#include "platform/Host.h"
#include "platform/local/SqliteDirectory.h"
#include "support/HostDoubles.h"
#include "support/Process.h"
#include "support/TestHost.h"

namespace zel::directory {
using namespace platform;  // entry payloads
namespace {

namespace fs = std::filesystem;
using platform::CurrentHost;
using platform::Directory;
using platform::DirectoryEntry;
using platform::LogLevel;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// Only a broken build ever waits this long for the directory's threads.
constexpr auto kPatience = std::chrono::seconds(20);

const std::string kNamespace = "8f3b6c1e-52d4-4a0b-9c7e-1d2f3a4b5c6d";
const std::string kHost = "11111111-2222-4333-8444-555555555555";
const std::string kOtherHost = "99999999-8888-4777-8666-555555555555";

// What the configuration-update callback was told, in order: the
// generation of each readable notice, the status text of the others.
struct NoticeLog {
  std::mutex mutex;
  std::condition_variable added;
  std::vector<std::string> notices;
} gNotices;

void RecordNotice(const void* entry, uint32_t status) {
  ZelConfigRecord record;
  const auto* notice = static_cast<const DirectoryEntry*>(entry);
  const bool read =
      notice != nullptr && UnmarshalConfigRecord(notice->payload, &record, nullptr) == NOK_OK;
  std::lock_guard<std::mutex> guard(gNotices.mutex);
  gNotices.notices.push_back(status != NOK_OK ? NOK_ReturnStatusToString(status)
                             : read           ? std::to_string(record.generation)
                                              : "unreadable");
  gNotices.added.notify_all();
}

// The notices so far, joined by blanks, once there are at least `count`.
std::string AwaitNotices(size_t count) {
  std::unique_lock<std::mutex> lock(gNotices.mutex);
  gNotices.added.wait_for(lock, kPatience, [&] { return gNotices.notices.size() >= count; });
  std::string joined;
  for (const std::string& notice : gNotices.notices) joined += (joined.empty() ? "" : " ") + notice;
  return joined;
}

// A host with an identity, a datastore whose ".iSCSI-CONFIG" link names the
// configuration namespace, and the SQLite directory in its home.
class DirectoryEntriesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(Datastore() + "/" + kNamespace);
    LinkNamespace(kNamespace);
    InstallDirectory();
    ZeldClearConfigEntryNeedsRepublish();
    std::lock_guard<std::mutex> guard(gNotices.mutex);
    gNotices.notices.clear();
  }
  void TearDown() override {
    if (subscription_ != 0) ZeldBrixUnsubscribeToConfigEntry(subscription_);
  }
  std::string Datastore() const { return home_.Path() + "/datastore"; }
  std::string DatabasePath() const { return home_.Path() + "/directory.db"; }
  void InstallDirectory() {
    host_.Install<test::DirectoryDouble>(platform::NewSqliteDirectory(DatabasePath()));
  }
  void LinkNamespace(const std::string& target) {
    const std::string link = Datastore() + "/.iSCSI-CONFIG";
    fs::remove(link);
    ASSERT_EQ(0, ::symlink(target.c_str(), link.c_str()));
  }
  void Subscribe() {
    if (subscription_ != 0) ZeldBrixUnsubscribeToConfigEntry(subscription_);
    ASSERT_EQ(NOK_OK, ZeldBrixSubscribeToConfigEntry(RecordNotice, &subscription_));
  }
  uint64_t Published() {
    uint64_t generation = 0;
    EXPECT_EQ(NOK_OK, ZeldGetConfigGenNumInBrix(&generation));
    return generation;
  }
  // Writes an entry directly, as another host or an old release might.
  void WriteRaw(uint32_t type, const std::string& key, const std::string& entryId,
                const std::string& payload, const std::string& owner = kOtherHost) {
    const DirectoryEntry entry{type, key, owner, entryId, payload, 0};
    ASSERT_EQ(NOK_OK, test::PublishAndWait(CurrentHost().GetDirectory(), entry));
  }
  void Interface(const std::string& host, const std::string& name, std::array<uint8_t, 4> ipv4,
                 std::array<uint8_t, 16> ipv6 = {}) {
    std::string payload;
    ZelInterfaceRecord record;
    record.name = name, record.ipv4 = ipv4, record.ipv6 = ipv6;
    ASSERT_EQ(NOK_OK, MarshalInterfaceRecord(record, &payload));
    WriteRaw(BRIX_TYPE_ORVA_ISCSI_INTERFACE_MAP, host, name, payload, host);
  }
  void WriteGeneration(uint64_t generation) {
    std::string payload;
    ASSERT_EQ(NOK_OK, MarshalConfigRecord(ZelConfigRecord{generation}, &payload));
    WriteRaw(BRIX_TYPE_ORVA_ISCSI_TARGET_CONFIG, kNamespace, kNamespace, payload);
  }
  static platform::HostConfig Config(const std::string& home) {
    platform::HostConfig config = platform::EmbeddedHostConfig(home);
    config.hostUuid = kHost;
    return config;
  }
  test::TempHome home_;
  test::ScopedTestHost host_{Config(home_.Path())};
  test::RecordingLogSink* log_ = &host_.Log();
  Directory::SubscriptionHandle subscription_ = 0;
};

TEST_F(DirectoryEntriesTest, PublicationIsOneEntryOfThisHostReplacedOnlyByANewerGeneration) {
  ASSERT_EQ(NOK_OK, ZeldUpdateBrixEntryForConfig(7));
  EXPECT_EQ(7u, Published());
  std::vector<DirectoryEntry> entries;
  ASSERT_EQ(NOK_OK, CurrentHost().GetDirectory().Query(BRIX_TYPE_ORVA_ISCSI_TARGET_CONFIG,
                                                       kNamespace, &entries));
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ(kNamespace, entries[0].entryId);
  EXPECT_EQ(kHost, entries[0].ownerHost);
  EXPECT_TRUE(log_->Contains("Successfully updated BRIX ZEL config entry: " + kNamespace));
  log_->Clear();
  EXPECT_EQ(NOK_EXISTS, ZeldUpdateBrixEntryForConfig(7));
  EXPECT_EQ(NOK_EXISTS, ZeldUpdateBrixEntryForConfig(6));
  EXPECT_EQ(7u, Published());
  EXPECT_TRUE(log_->Texts(LogLevel::Warning).empty());
  EXPECT_EQ(NOK_OK, ZeldUpdateBrixEntryForConfig(8));
  EXPECT_EQ(8u, Published());
}

TEST_F(DirectoryEntriesTest, UnreadableStoredGenerationIsOverwrittenWithAWarning) {
  const std::string warning =
      "Failed to unmarshal ZEL conf entry entry: payload is not a JSON object";
  WriteRaw(BRIX_TYPE_ORVA_ISCSI_TARGET_CONFIG, kNamespace, kNamespace, "{\"generation\":");
  uint64_t generation = 0;
  EXPECT_EQ(NOK_BAD_PARAM, ZeldGetConfigGenNumInBrix(&generation));
  EXPECT_TRUE(log_->Contains(warning));
  log_->Clear();
  ASSERT_EQ(NOK_OK, ZeldUpdateBrixEntryForConfig(3));
  EXPECT_EQ(3u, Published());
  EXPECT_TRUE(log_->Contains(warning));
}

TEST_F(DirectoryEntriesTest, AddPublishesOnlyWhenNoGenerationIsPublished) {
  ASSERT_EQ(NOK_OK, ZeldAddBrixEntryForConfig(4));
  EXPECT_TRUE(log_->Contains("Added ZEL config entry to BRIX successfully."));
  EXPECT_EQ(NOK_OK, ZeldAddBrixEntryForConfig(9));
  EXPECT_TRUE(log_->Contains("ZEL conf entry in BRIX already exists."));
  EXPECT_EQ(4u, Published());
}

TEST_F(DirectoryEntriesTest, WithoutADirectoryEveryCallReportsAStatusInsteadOfThrowing) {
  CurrentHost().SetDirectory(nullptr);
  EXPECT_EQ(NOK_NO_CONNECTION, ZeldUpdateBrixEntryForConfig(1));
  EXPECT_TRUE(log_->Contains("Failed to update ZEL config entry: No connection"));
  uint64_t generation = 0;
  EXPECT_EQ(NOK_NO_CONNECTION, ZeldGetConfigGenNumInBrix(&generation));
  EXPECT_EQ(NOK_NO_CONNECTION, ZeldBrixSubscribeToConfigEntry(RecordNotice, &subscription_));
  EXPECT_TRUE(log_->Contains("Failed to subscribe to BRIX notifications, error: No connection"));
  std::string owner;
  EXPECT_EQ(NOK_NO_CONNECTION, ZeldBrixGetOwnerHost(kNamespace, &owner));
}

TEST_F(DirectoryEntriesTest, PublishersInThreadsEndWithTheHighestGeneration) {
  // Two publishers climb and two descend, so that without the
  // compare-and-set a late low generation would overwrite the highest.
  constexpr int kHighest = 120;
  std::atomic<int> unexpected{0};
  std::vector<std::thread> publishers;
  for (int lane = 0; lane < 4; ++lane) {
    publishers.emplace_back([lane, &unexpected] {
      std::vector<uint64_t> generations;
      for (int g = kHighest - lane; g >= 1; g -= 4) generations.push_back(g);
      if (lane % 2 == 0) std::reverse(generations.begin(), generations.end());
      for (uint64_t g : generations) {
        const NOK_ReturnStatus status = ZeldUpdateBrixEntryForConfig(g);
        if (status != NOK_OK && status != NOK_EXISTS) ++unexpected;
      }
    });
  }
  for (std::thread& publisher : publishers) publisher.join();
  EXPECT_EQ(0, unexpected.load());
  EXPECT_EQ(uint64_t{kHighest}, Published());
}

TEST_F(DirectoryEntriesTest, PublishersInTwoProcessesEndWithTheHighestGeneration) {
  // The child is forked before this process opens the directory again: a
  // fork copies no threads, but would copy the locks they hold.
  CurrentHost().SetDirectory(nullptr);
  const std::string database = DatabasePath();
  test::ChildProcess child([&](test::ChildControl& control) {
    CurrentHost().SetDirectory(platform::NewSqliteDirectory(database));
    control.Ready();
    control.AwaitRelease();
    for (int g = 81; g >= 1; g -= 2) {
      const NOK_ReturnStatus status = ZeldUpdateBrixEntryForConfig(g);
      if (status != NOK_OK && status != NOK_EXISTS) return 1;
    }
    return 0;
  });
  ASSERT_TRUE(child.AwaitReady());
  InstallDirectory();
  child.Release();
  for (int g = 2; g <= 80; g += 2) {
    const NOK_ReturnStatus status = ZeldUpdateBrixEntryForConfig(g);
    EXPECT_TRUE(status == NOK_OK || status == NOK_EXISTS) << NOK_ReturnStatusToString(status);
  }
  ASSERT_EQ(0, child.Join());
  EXPECT_EQ(81u, Published());
}

// A newer generation reaches the cache, the same one again is ignored; after
// subscribing again the next notice is applied whatever its generation; a
// deleted entry is marked for republishing and the cache told it is absent;
// an unreadable notice still refreshes the cache.
TEST_F(DirectoryEntriesTest, NoticesOfTheGenerationReachTheCacheOnlyWhenNew) {
  Subscribe();
  ASSERT_EQ(NOK_OK, ZeldUpdateBrixEntryForConfig(5));
  EXPECT_EQ("5", AwaitNotices(1));
  EXPECT_TRUE(log_->Contains("Applying config generation 5"));
  WriteGeneration(5);
  // The watcher may read two quick writes as one: 6 waits until 5 was seen.
  const std::string ignored = "Ignoring config generation 5 because generation 5 already applied";
  for (int wait = 0; wait < 500 && !log_->Contains(ignored); ++wait) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_TRUE(log_->Contains(ignored));
  ASSERT_EQ(NOK_OK, ZeldUpdateBrixEntryForConfig(6));
  EXPECT_EQ("5 6", AwaitNotices(2));  // the ignored one is not passed on
  Subscribe();
  WriteGeneration(3);
  EXPECT_EQ("5 6 3", AwaitNotices(3));
  EXPECT_TRUE(log_->Contains("Applying config generation 3"));
  EXPECT_FALSE(ZeldConfigEntryNeedsRepublish());
  ASSERT_EQ(NOK_OK, CurrentHost().GetDirectory().Delete(BRIX_TYPE_ORVA_ISCSI_TARGET_CONFIG,
                                                        kNamespace, kNamespace));
  EXPECT_EQ(std::string("5 6 3 ") + NOK_ReturnStatusToString(NOK_NOT_FOUND), AwaitNotices(4));
  EXPECT_TRUE(ZeldConfigEntryNeedsRepublish());
  EXPECT_TRUE(log_->Contains("Config entry NOT FOUND, marking it as need to republished"));
  EXPECT_EQ(NOK_OK, ZeldUpdateBrixEntryForConfig(2));  // once gone, any generation again
  WriteRaw(BRIX_TYPE_ORVA_ISCSI_TARGET_CONFIG, kNamespace, kNamespace, "not json");
  EXPECT_EQ(std::string("5 6 3 ") + NOK_ReturnStatusToString(NOK_NOT_FOUND) + " unreadable",
            AwaitNotices(5));
  EXPECT_TRUE(log_->Contains("Can't unmarshal ZEL config entry from BRIX"));
}

TEST_F(DirectoryEntriesTest, PublicationByAnotherProcessReachesThisOne) {
  // The child opens its own directory once this process has subscribed.
  CurrentHost().SetDirectory(nullptr);
  const std::string database = DatabasePath();
  test::ChildProcess child([&](test::ChildControl& control) {
    control.Ready();
    control.AwaitRelease();
    CurrentHost().SetDirectory(platform::NewSqliteDirectory(database));
    return ZeldUpdateBrixEntryForConfig(42) == NOK_OK ? 0 : 1;
  });
  ASSERT_TRUE(child.AwaitReady());
  InstallDirectory();
  Subscribe();
  child.Release();
  ASSERT_EQ(0, child.Join());
  EXPECT_EQ("42", AwaitNotices(1));
}

TEST_F(DirectoryEntriesTest, NamespaceIdentityIsTheLinksLastComponentInLowerCaseAndAUuid) {
  char path[ZEL_PATH_MAX];
  ASSERT_EQ(NOK_OK, GetOrvaDatastoreUUIDPath(path, sizeof path));
  EXPECT_EQ(Datastore(), path);
  LinkNamespace("../volumes/8F3B6C1E-52D4-4A0B-9C7E-1D2F3A4B5C6D");
  std::string uuid;
  ASSERT_EQ(NOK_OK, ZeldGetNamespaceUuid(&uuid));
  EXPECT_EQ(kNamespace, uuid);
  for (const char* target : {"not-a-uuid", "8f3b6c1e52d4-4a0b-9c7e-1d2f3a4b5c6d-",
                             "{8f3b6c1e-52d4-4a0b-9c7e-1d2f3a4b5c6}",
                             "8f3b6c1e-52d4-4a0b-9c7e-1d2f3a4b5c6g"}) {
    LinkNamespace(target);
    EXPECT_EQ(NOK_FAILURE, ZeldGetNamespaceUuid(&uuid)) << target;
    EXPECT_TRUE(log_->Contains("ZeldGetNamespaceUuid: Failed to convert ZEL namespace UUID string " +
                               std::string(target) + " to ORVA object type."))
        << target;
  }
}

TEST_F(DirectoryEntriesTest, MissingNamespaceLinkFailsEveryEntryOperationWithItsMessage) {
  fs::remove(Datastore() + "/.iSCSI-CONFIG");
  std::string uuid;
  EXPECT_EQ(NOK_FAILURE, ZeldGetNamespaceUuid(&uuid));
  EXPECT_TRUE(log_->Contains("Failed to read symlink for ZEL namespace path " + Datastore() +
                             "/.iSCSI-CONFIG."));
  uint64_t generation = 0;
  EXPECT_EQ(NOK_FAILURE, ZeldGetConfigGenNumInBrix(&generation));
  EXPECT_TRUE(log_->Contains("ZeldGetConfigGenNumInBrix: Failed to get namespace UUID (Failure)."));
  EXPECT_EQ(NOK_FAILURE, ZeldUpdateBrixEntryForConfig(1));
  EXPECT_TRUE(log_->Contains("ZeldUpdateBrixEntryForConfig: Failed to get namespace UUID."));
  EXPECT_EQ(NOK_FAILURE, ZeldAddBrixEntryForConfig(1));
  EXPECT_TRUE(log_->Contains("Failed to get ZEL config generation number: Failure."));
  Directory::SubscriptionHandle handle = 0;
  EXPECT_EQ(NOK_FAILURE, ZeldBrixSubscribeToConfigEntry(RecordNotice, &handle));
  EXPECT_TRUE(log_->Contains("Failed to get ZEL namespace UUID with status: Failure"));
}

TEST_F(DirectoryEntriesTest, OwnerHostIsTheOneInTheObjectRecord) {
  const std::string object = "0a0b0c0d-1111-4222-8333-444455556666";
  std::string owner = "unchanged";
  EXPECT_EQ(NOK_NOT_FOUND, ZeldBrixGetOwnerHost(object, &owner));
  EXPECT_EQ("unchanged", owner);
  EXPECT_THAT(log_->Texts(LogLevel::Warning),
              ElementsAre(AllOf(HasSubstr(object), HasSubstr("Not found"))));
  WriteRaw(BRIX_TYPE_STORAGE_OBJECT, object, object,
           "{\"type\":\"BrixStorageObject\",\"policy\":\"raid1\"}");
  EXPECT_EQ(NOK_BAD_PARAM, ZeldBrixGetOwnerHost(object, &owner));
  std::string payload;
  ASSERT_EQ(NOK_OK, MarshalStorageObjectRecord({kOtherHost, "raid1"}, &payload));
  WriteRaw(BRIX_TYPE_STORAGE_OBJECT, object, object, payload, kHost);
  ASSERT_EQ(NOK_OK, ZeldBrixGetOwnerHost(object, &owner));
  EXPECT_EQ(kOtherHost, owner);
}

TEST_F(DirectoryEntriesTest, InterfaceAddressesAreTheNamedInterfacesAsTextWithoutAllZeros) {
  std::string ipv4, ipv6;
  EXPECT_EQ(NOK_NOT_FOUND, ZeldBrixGetInterfaceAddress(kOtherHost, "vmk1", &ipv4, nullptr));
  EXPECT_TRUE(log_->Contains("Unable to find BRIX entry for interface vmk1 for host " + kOtherHost +
                             ": Not found"));
  const std::array<uint8_t, 16> fd00_5{0xfd, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5};
  // An unreadable entry does not hide the others.
  WriteRaw(BRIX_TYPE_ORVA_ISCSI_INTERFACE_MAP, kOtherHost, "broken",
           "{\"type\":\"BrixOrvaIscsiInterfaceMap\",\"name\":\"vmk1\",\"ipv4\":\"0a00\"}",
           kOtherHost);
  Interface(kOtherHost, "vmk1", {}, fd00_5);
  Interface(kOtherHost, "vmk2", {192, 168, 10, 5}, fd00_5);
  Interface(kOtherHost, "vmk3", {10, 0, 0, 2});
  Interface(kHost, "vmk1", {10, 0, 0, 7});
  log_->Clear();
  for (const auto& [host, name, expected] :
       std::vector<std::tuple<std::string, std::string, std::string>>{
           {kOtherHost, "vmk1", "|fd00::5"}, {kOtherHost, "vmk2", "192.168.10.5|fd00::5"},
           {kOtherHost, "vmk3", "10.0.0.2|"}, {kHost, "vmk1", "10.0.0.7|"}}) {
    ipv4 = ipv6 = "stale";
    ASSERT_EQ(NOK_OK, ZeldBrixGetInterfaceAddress(host, name, &ipv4, &ipv6)) << name;
    EXPECT_EQ(expected, ipv4 + "|" + ipv6) << name;
  }
  EXPECT_EQ(3u, log_->Texts(LogLevel::Warning).size());  // one per lookup of kOtherHost
  ASSERT_EQ(NOK_OK, ZeldBrixGetInterfaceAddress(kOtherHost, "vmk2", nullptr, &ipv6));
  EXPECT_EQ("fd00::5", ipv6);
  ASSERT_EQ(NOK_OK, ZeldBrixGetSelfInterfaceAddress("vmk1", &ipv4, nullptr));
  EXPECT_EQ("10.0.0.7", ipv4);
  EXPECT_EQ(NOK_NOT_FOUND, ZeldBrixGetInterfaceAddress(kOtherHost, "vmk9", &ipv4, nullptr));
  EXPECT_TRUE(log_->Contains("Failed to fetch target interface vmk9 address for host " + kOtherHost));
}

using PathFunction = NOK_ReturnStatus (*)(const char*, char*, size_t);

std::string Build(PathFunction function, const std::string& diskPath,
                  NOK_ReturnStatus expected = NOK_OK) {
  char path[ZEL_PATH_MAX];
  EXPECT_EQ(expected, function(diskPath.c_str(), path, sizeof path)) << diskPath;
  return path;
}

// The lock file cuts the extension of the file name only; a relative path or
// one without a file name is refused.
TEST(DirectoryEntriesPaths, ReservationAndLockFilesAreHiddenBesideTheDisk) {
  const std::vector<std::tuple<PathFunction, std::string, std::string>> cases = {
      {GetLunPRFilePath, "/ds/t1/lun.qdsk", "/ds/t1/.lun.qdsk.pr"},
      {GetLunPRFilePath, "/lun.qdsk", "/.lun.qdsk.pr"},
      {GetQdskLockFilePath, "/ds/t1/lun.qdsk", "/ds/t1/.lun.lck"},
      {GetQdskLockFilePath, "/ds/t1/a.b.qdsk", "/ds/t1/.a.b.lck"},
      {GetQdskLockFilePath, "/ds/t.d/disk", "/ds/t.d/.disk.lck"},
      {GetQdskLockFilePath, "/ds/.hidden", "/ds/..hidden.lck"},
      {GetLunPRFilePath, "lun.qdsk", ""}, {GetQdskLockFilePath, "lun.qdsk", ""},
      {GetLunPRFilePath, "/ds/t1/", ""}, {GetQdskLockFilePath, "/ds/t1/", ""}};
  for (const auto& [function, disk, expected] : cases) {
    EXPECT_EQ(expected, Build(function, disk, expected.empty() ? NOK_BAD_PARAM : NOK_OK));
  }
}

TEST(DirectoryEntriesPaths, PathsNeverExceedTheLimitAndAreNeverCut) {
  // "/" + dir + "/." + name + ".pr": 255 characters fit the 256 bytes with
  // the terminator, one more does not.
  const std::string dir = "/" + std::string(100, 'd');
  const std::string fits = dir + "/" + std::string(255 - dir.size() - 5, 'n');
  const std::string over = fits + "n";
  EXPECT_EQ(255u, Build(GetLunPRFilePath, fits).size());
  EXPECT_EQ("", Build(GetLunPRFilePath, over, NOK_BAD_PARAM));
  char large[2 * ZEL_PATH_MAX];
  EXPECT_EQ(NOK_BAD_PARAM, GetLunPRFilePath(over.c_str(), large, sizeof large));
  EXPECT_STREQ("", large);
  char small[16];
  EXPECT_EQ(NOK_BAD_PARAM, GetLunPRFilePath("/ds/t1/lun.qdsk", small, sizeof small));
  EXPECT_STREQ("", small);
}

TEST(DirectoryEntriesMarshal, GenerationRoundTripsUpToAllOnesAndOtherPayloadsAreRefused) {
  std::string payload;
  ASSERT_EQ(NOK_OK, MarshalConfigRecord(ZelConfigRecord{UINT64_MAX}, &payload));
  ZelConfigRecord record;
  ASSERT_EQ(NOK_OK, UnmarshalConfigRecord(payload, &record, nullptr));
  EXPECT_EQ(UINT64_MAX, record.generation);
  std::string error;
  ASSERT_EQ(NOK_OK, MarshalInterfaceRecord(ZelInterfaceRecord{}, &payload));
  EXPECT_EQ(NOK_BAD_PARAM, UnmarshalConfigRecord(payload, &record, &error));
  EXPECT_EQ("payload of type 'BrixOrvaIscsiInterfaceMap', expected 'BrixOrvaIscsiTargetConfig'",
            error);
  for (const char* bad : {"{\"type\":\"BrixOrvaIscsiTargetConfig\"}",
                          "{\"type\":\"BrixOrvaIscsiTargetConfig\",\"generation\":-1}",
                          "{\"generation\":1}"}) {
    EXPECT_EQ(NOK_BAD_PARAM, UnmarshalConfigRecord(bad, &record, &error)) << bad;
  }
  // A payload over the buffer is not written.
  ZelInterfaceRecord big;
  big.name = std::string(BRIX_PAYLOAD_MAX, 'x');
  payload = "unchanged";
  EXPECT_EQ(NOK_BAD_PARAM, MarshalInterfaceRecord(big, &payload));
  EXPECT_EQ("unchanged", payload);
}

}  // namespace
}  // namespace zel::directory
