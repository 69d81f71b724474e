// LUNs through the service: sizes and numbers, the limits, the rules for
// online LUNs, the retries of the disk calls and the rollback of a failed
// add, and a removal that waits for a real second process to let go.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/time.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "cache/ConfigCache.h"
#include "conf/ConfHandle.h"
#include "platform/Log.h"
#include "platform/VolLib.h"
#include "platform/local/LocalPolicyService.h"
#include "service/Doctor.h"
#include "storage/DiskLunApi.h"
#include "storage/DatastoreLayout.h"
#include "storage/LunIdentity.h"
#include "storage/Units.h"
#include "support/Messages.h"
#include "support/Process.h"
#include "support/ServiceHome.h"

namespace zel {
namespace test {
namespace {

using ::testing::HasSubstr;
namespace Api = HostCtl::Orva::IscsiTarget;
namespace Util = NokCtl::Orva::IscsiTarget::Util;
namespace fs = std::filesystem;

constexpr uint64_t kSecond = 1000000;

TEST(LunSizeTest, SizeStringsGiveSectorsOrTheServicesMessage) {
  const std::string units = "Valid units: MB, GB, TB, MiB, GiB, TiB";
  const struct {
    std::string size;
    uint64_t sectors;
    std::string error;
  } cases[] = {
      {"10GB", 19531250, ""},
      {"1GiB", 2097152, ""},
      {"10gb", 19531250, ""},
      {"3mb", 3 * 1954, ""},
      {"0MB", 0, "LUN size must be greater than 0."},
      {"1.5GB", 0, "Invalid size unit: .5GB. " + units + ". Fractional sizes not permitted."},
      {"10XB", 0, "Invalid size unit: XB. " + units},
      {"GB", 0, "Failed to process size string: GB"},
      {"99999999999999999999MiB", 0, "Failed to process size string: 99999999999999999999MiB"},
      // 2^33 TiB is 2^64 sectors: refused, not wrapped to 0.
      {"8589934592TiB", 0, "Failed to process size string: 8589934592TiB"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.size);
    uint64_t sectors = 0;
    EXPECT_EQ(MessageOf([&] { sectors = Util::GetLunSizeInSectors(c.size); }), c.error);
    EXPECT_EQ(sectors, c.sectors);
    // What a record reports reads back to the same sectors.
    if (c.sectors != 0) {
      EXPECT_EQ(Util::GetLunSizeInSectors(Util::LunSizeText(sectors)), sectors);
    }
  }
}

TEST(LunSizeTest, NaaIsThirtyTwoUpperHexDigitsAfterTheCompanyPrefix) {
  ScopedTestHost host;
  for (int i = 0; i < 100; ++i) {
    const std::string naa = Util::GenerateDiskNaa();
    ASSERT_EQ(naa.size(), 32u);
    EXPECT_EQ(naa.substr(0, 7), "6" + host.Config().naaCompanyId);
    EXPECT_EQ(naa.find_first_not_of("0123456789ABCDEF"), std::string::npos) << naa;
  }
}

// A prepared home with the service enabled and target "vault" made
// through the service, so that its namespace exists.
class LunTest : public ::testing::Test {
 protected:
  void SetUp() override {
    services_ = home_.InstallTestHost();
    service_ = NewService();
    AddTarget("vault");
    vaultDir_ = RootPath() + "/" + service_->GetTargetInfo("vault").uuid;
  }

  // A host that reads host.json again; the service object goes first, since
  // it holds a session of the old host's policy service.
  void Reinstall() {
    service_.reset();
    services_ = home_.InstallTestHost();
    service_ = NewService();
  }
  void AddTarget(const std::string& alias) {
    Api::TargetCreateParam param;
    param.alias = alias;
    service_->AddTarget(param);
  }
  static std::string RootPath() { return Util::GetNamespaceRoot(); }

  Api::LunInfo Lun(const std::string& target, int id, const std::string& size = "") {
    Api::LunInfo lun;
    lun.target = target;
    lun.id = id;
    lun.size = size;
    return lun;
  }
  Api::LunInfo Add(int id, const std::string& size = "1GiB") {
    Api::LunInfo lun = Lun("vault", id, size);
    service_->AddLun(lun);
    return lun;
  }
  std::string Update(Api::LunInfo lun, int newId = -1, const std::string& newTarget = "") {
    return MessageOf([&] { service_->UpdateLun(lun, newId, newTarget, true); });
  }
  std::set<std::string> DisksIn(const std::string& dir) const {
    std::set<std::string> disks;
    for (const auto& entry : fs::directory_iterator(dir)) {
      if (entry.path().extension() == ".qdsk") disks.insert(entry.path().string());
    }
    return disks;
  }
  std::string Conf() const { return ReadFile(home_.ConfPath()); }

  ServiceHome home_;
  TestServices services_;
  std::unique_ptr<Api::OrvaIscsiTarget> service_;
  std::string vaultDir_;
};

TEST_F(LunTest, AddedLunIsReportedWithEveryFieldAndItsDisk) {
  Api::LunInfo created = Lun("vault", -1, "10GB");
  created.alias = "ledger";
  service_->AddLun(created);
  const Api::LunInfo lun = service_->GetLunInfo("vault", 0);
  EXPECT_EQ(lun.alias, "ledger");
  EXPECT_EQ(lun.size, "10GB");
  EXPECT_EQ(lun.sizeSectors, 19531250u);
  EXPECT_EQ(lun.sizeMiB, 9536u);
  EXPECT_EQ(lun.status, "online");
  EXPECT_EQ(lun.path, vaultDir_ + "/" + lun.uuid + ".qdsk");
  EXPECT_EQ(lun.uuid, created.uuid);
  EXPECT_EQ(DisksIn(vaultDir_), std::set<std::string>{lun.path});
  EXPECT_EQ(lun.policy, platform::LoadHostConfig(home_.Path()).defaultPolicy);
}

// Refusals change nothing: not the file, not its generation, not the disks.
TEST_F(LunTest, NumbersLimitsAndTheOfflineRules) {
  Add(0);
  AddTarget("annex");
  const std::string offlineFirst = "Bring the LUN offline first.";
  const struct {
    std::function<std::string()> attempt;
    std::string error;
  } refusals[] = {
      {[&] { return MessageOf([&] { Add(0); }); }, "LUN id 0 already exists for target vault"},
      {[&] { return MessageOf([&] { Add(256); }); }, "Invalid LUN id 256. LUN ids are 0 to 255."},
      {[&] { return MessageOf([&] { Add(1, "2PB"); }); },
       "Failed to validate LUN size: Invalid size unit: PB. Valid units: MB, GB, TB, MiB, GiB, TiB"},
      {[&] { return Update(Lun("vault", 0), 5); },
       "Failed to update LUN ID: Changing the ID of an online LUN is not allowed. " + offlineFirst},
      {[&] { return Update(Lun("vault", 0), -1, "annex"); },
       "Failed to move LUN to new target: Moving an online LUN to new target is not allowed. " +
           offlineFirst},
      {[&] { return Update(Lun("vault", 0, "2GiB")); },
       "Failed to grow LUN size: Growing size of an online LUN is not allowed. " + offlineFirst},
      {[&] { return Update(Lun("vault", 0), -1, "vault"); },
       "Failed to move LUN to new target: New target: vault, same as original: vault"},
      {[&] { return Update(Lun("vault", 0, "1024MiB")); },
       "Failed to grow LUN size: Shrinking the LUN or changing it to the same size is not "
       "supported: old size = 1024MiB, new size = 1024MiB."},
  };
  const std::string conf = Conf();
  const std::set<std::string> disks = DisksIn(vaultDir_);
  for (const auto& refusal : refusals) {
    SCOPED_TRACE(refusal.error);
    EXPECT_EQ(refusal.attempt(), refusal.error);
    EXPECT_EQ(Conf(), conf);
    EXPECT_EQ(DisksIn(vaultDir_), disks);
  }

  // Alias and status may change while online; then number, place and size.
  Api::LunInfo change = Lun("vault", 0);
  change.alias = "renamed";
  change.status = "offline";
  EXPECT_EQ(Update(change), "");
  EXPECT_EQ(Update(Lun("vault", 0), 7), "");
  EXPECT_EQ(Update(Lun("vault", 7, "2GiB"), -1, "annex"), "");
  const Api::LunInfo moved = service_->GetLunInfo("annex", 7);
  EXPECT_EQ(moved.alias + "/" + moved.status + "/" + moved.size, "renamed/offline/2GiB");
  EXPECT_TRUE(fs::exists(moved.path)) << moved.path;
  EXPECT_TRUE(DisksIn(vaultDir_).empty());

  service_->RemoveLun(7, "annex");
  EXPECT_FALSE(fs::exists(moved.path));
  std::vector<Api::LunInfo> left;
  service_->GetLuns("annex", left, false);
  EXPECT_TRUE(left.empty());
}

TEST_F(LunTest, AnOnlineLunGrowsOnlyWithTheFeatureAndEveryHostOnTheDiskFormat) {
  Add(0);
  home_.SetHostSetting("options", {{"ORVA.ZelOnlineResize", 1}});
  home_.SetHostSetting("diskFormatVersion", 9);
  Reinstall();
  EXPECT_EQ(Update(Lun("vault", 0, "2GiB")),
            "Failed to grow LUN size: Some hosts didn't finish Disk Format upgrade of Orva 6.7u3, "
            "reject online resizing until upgrade completed.");
  home_.SetHostSetting("diskFormatVersion", 11);
  Reinstall();
  EXPECT_EQ(Update(Lun("vault", 0, "2GiB")), "");
  EXPECT_EQ(service_->GetLunInfo("vault", 0).size, "2GiB");
}

TEST_F(LunTest, DoctorReportsALunWithoutDiskAndRemovesOnlyADiskNoLunNames) {
  Add(0);
  Add(1);
  const std::string lost = service_->GetLunInfo("vault", 1).path;
  NokCtl::Storage::DiskLunApi::RemoveVirtualDisk(lost);
  const std::string stray = vaultDir_ + "/" + Util::GenerateRandomUuid() + ".qdsk";
  NokCtl::Storage::DiskLunApi::CreateVirtualDisk(stray, 2048, "");
  // Older than a LUN being added can be.
  const struct timeval old[2] = {{::time(nullptr) - 120, 0}, {::time(nullptr) - 120, 0}};
  ASSERT_EQ(::utimes(stray.c_str(), old), 0);
  // The standard home's own targets have no namespaces: only vault counts.
  const auto vaultFindings = [&] {
    std::vector<std::string> found;
    for (const auto& finding : Util::CheckConsistency()) {
      if (finding.text.find(vaultDir_) != std::string::npos) found.push_back(finding.text);
    }
    return found;
  };
  EXPECT_THAT(vaultFindings(), ::testing::UnorderedElementsAre(
                                   "LUN 1 of target vault has no disk " + lost,
                                   "LUN disk " + stray + " belongs to no LUN"));
  ASSERT_EQ(Util::RepairConsistency().size(), 1u);
  EXPECT_FALSE(fs::exists(stray));
  EXPECT_THAT(vaultFindings(), ::testing::ElementsAre("LUN 1 of target vault has no disk " + lost));
}

TEST_F(LunTest, TheLimitOf1024LunsHoldsAcrossTargets) {
  // Four full targets beside vault, which has room for more.
  std::string bulk;
  for (int t = 0; t < 4; ++t) {
    char uuid[37];
    std::snprintf(uuid, sizeof uuid, "00000000-0000-4000-8000-%012d", t);
    bulk += "target iqn.2026-11.org.example:bulk" + std::to_string(t) + " {\n\talias \"bulk" +
            std::to_string(t) + "\"\n\tportal-group default\n\toption uuid " + uuid + "\n";
    for (int id = 0; id < 256; ++id) {
      char disk[37];
      std::snprintf(disk, sizeof disk, "00000000-0000-4000-9000-%06d%06d", t, id);
      bulk += "\tlun " + std::to_string(id) + " {\n\t\tbackend qdsk\n\t\tpath " + uuid + "/" +
              disk + ".qdsk\n\t\tsize 2048\n\t}\n";
    }
    bulk += "}\n";
  }
  home_.WriteConf(Conf() + bulk);
  NokCtl::Orva::IscsiTarget::ConfigCache::CleanupCachedConfig();
  const std::string conf = Conf();
  EXPECT_EQ(MessageOf([&] { Add(-1); }), "Limit on total number of LUNs (1024) has been reached.");
  EXPECT_EQ(Conf(), conf);
  EXPECT_TRUE(DisksIn(vaultDir_).empty());
}

TEST_F(LunTest, ARenameThatFailsTwiceIsRetriedWithTwoPauses) {
  services_.disks->FailNext("Rename", static_cast<int>(platform::DiskErrorCode::Locked), 2);
  services_.clock->ClearSleeps();
  Add(0);
  EXPECT_EQ(services_.clock->Sleeps(), (std::vector<uint64_t>{kSecond, kSecond}));
  std::vector<std::string> retries;
  for (const std::string& line : services_.log->Texts(platform::LogLevel::Info)) {
    const size_t at = line.find("th retry to rename LUN descriptor file from");
    if (at != std::string::npos) retries.push_back(line.substr(at - 1, 1));
  }
  EXPECT_EQ(retries, (std::vector<std::string>{"1", "2"}));
}

TEST_F(LunTest, RemovalWaitsThirtySecondsForTheOwnerThenGivesUpAndKeepsTheLun) {
  Add(0);
  const Api::LunInfo lun = service_->GetLunInfo("vault", 0);
  // This process holds the disk as the owner's daemon would.
  VolLibHandle* held = nullptr;
  VolLibInfo* info = nullptr;
  ASSERT_TRUE(VolLib_OpenWithInfo(lun.path, platform::kDiskOpenLocked, 0, &held, &info).Ok());
  services_.clock->ClearSleeps();
  const int opensBefore = services_.disks->Count("Open");

  const std::string message = MessageOf([&] { service_->RemoveLun(0, "vault"); });
  EXPECT_THAT(message, HasSubstr("Failed to remove LUN " + lun.path +
                                 " after 30 seconds. Giving up. For more details please see "
                                 "zeld.log on host " + home_.HostUuid()));
  EXPECT_THAT(message, HasSubstr(": LUN has become offline."));
  EXPECT_EQ(services_.disks->Count("Open") - opensBefore, 31);
  EXPECT_EQ(services_.clock->Sleeps(), std::vector<uint64_t>(30, kSecond));
  EXPECT_EQ(service_->GetLunInfo("vault", 0).status, "offline");
  EXPECT_TRUE(fs::exists(lun.path));

  VolLib_Close(held);
  VolLib_FreeInfo(info);
  service_->RemoveLun(0, "vault");
  EXPECT_FALSE(fs::exists(lun.path));
}

TEST_F(LunTest, AnUpdateWhoseGrowthIsStillUnderWayIsTriedFiveTimes) {
  Add(0);
  Api::LunInfo offline = Lun("vault", 0);
  offline.status = "offline";
  ASSERT_EQ(Update(offline), "");
  // The file says 2 GiB while the disk has 1 GiB: a growth still under way.
  std::string conf = Conf();
  conf.replace(conf.find("size 2097152", conf.find("alias \"vault\"")), 12, "size 4194304");
  home_.WriteConf(conf);
  NokCtl::Orva::IscsiTarget::ConfigCache::CleanupCachedConfig();
  const uint64_t generation = NokCtl::Orva::IscsiTarget::ConfHandle(
      NokCtl::Orva::IscsiTarget::ConfHandle::kShareMode, home_.ConfPath()).GetCurrentGenerationNum();
  services_.clock->ClearSleeps();

  EXPECT_EQ(Update(Lun("vault", 0, "8GiB")), "LUN update still failed after 5 retries.");
  EXPECT_EQ(services_.clock->Sleeps(), std::vector<uint64_t>(4, 5 * kSecond));
  EXPECT_EQ(NokCtl::Orva::IscsiTarget::ConfHandle(
                NokCtl::Orva::IscsiTarget::ConfHandle::kShareMode, home_.ConfPath()).GetCurrentGenerationNum(),
            generation + 5);
}

// Failing each platform call of an add in turn: every run ends in the LUN
// or in its error, and never leaves a disk or an announced object that
// zel.conf does not name.
TEST(LunFaultSweepTest, AddLunLeavesNoOrphanWhicheverCallFails) {
  // Run 0 fails nothing and counts the calls of a whole add.
  int calls = 0;
  for (int failing = 0; failing <= calls; ++failing) {
    SCOPED_TRACE("failing call " + std::to_string(failing));
    ServiceHome home;
    TestServices services = home.InstallTestHost();
    std::unique_ptr<Api::OrvaIscsiTarget> service = NewService();
    Api::TargetCreateParam param;
    param.alias = "vault";
    service->AddTarget(param);
    const int before = static_cast<int>(services.journal->Calls().size());
    if (failing > 0) services.journal->FailCallNumber(failing, NOK_IO_ERROR);

    Api::LunInfo lun;
    lun.target = "vault";
    lun.size = "1GiB";
    const std::string error = MessageOf([&] { service->AddLun(lun); });
    if (failing == 0) {
      ASSERT_EQ(error, "");
      calls = static_cast<int>(services.journal->Calls().size()) - before;
    }

    services.journal->FailCallNumber(0, 0);  // disarmed: the check below must not fail
    NokCtl::Orva::IscsiTarget::ConfigCache::CleanupCachedConfig();
    std::vector<Api::LunInfo> luns;
    service->GetLuns("vault", luns, false);
    std::set<std::string> named, objects;
    for (const Api::LunInfo& entry : luns) named.insert(entry.uuid);
    const std::string dir = Util::GetNamespaceRoot() + "/" + param.uuid;
    for (const auto& file : fs::directory_iterator(dir)) {
      if (file.path().extension() == ".qdsk") {
        EXPECT_EQ(named.count(file.path().stem().string()), 1u) << file.path() << " " << error;
      }
    }
    std::vector<platform::DirectoryEntry> owned;
    services.directory->Target().QueryByHost(platform::kStorageObjectEntryType,
                                             home.HostUuid(), &owned);
    for (const platform::DirectoryEntry& entry : owned) {
      if (entry.key != param.uuid && entry.key != kNamespaceUuid && entry.key != kFinanceUuid &&
          entry.key != kLedgerUuid && entry.key != kArchiveUuid) {
        EXPECT_EQ(named.count(entry.key), 1u) << entry.key << " " << error;
      }
    }
    if (error.empty()) {
      EXPECT_EQ(luns.size(), 1u);
    }
  }
  EXPECT_GT(calls, 5);
}

// zelctl's part: a removal waits for a real second process holding the
// disk, says nothing about it when stderr is no terminal, and completes
// once the holder lets go.
TEST(ZelctlLunTest, RemovalWaitsForAHolderInAnotherProcess) {
  ServiceHome home;
  auto zelctl = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {ZELCTL_PATH, "--home", home.Path()});
    return RunProgram(args);
  };
  ASSERT_EQ(zelctl({"target", "add", "--alias", "vault"}).exitCode, 0);
  const ProcessResult added = zelctl({"lun", "add", "--target", "vault", "--size", "1GiB"});
  ASSERT_EQ(added.exitCode, 0) << added.err;
  EXPECT_THAT(added.out, HasSubstr("size: 1GiB"));
  const size_t at = added.out.find("path: ");
  ASSERT_NE(at, std::string::npos);
  const std::string path = added.out.substr(at + 6, added.out.find('\n', at) - at - 6);
  EXPECT_EQ(zelctl({"lun", "update", "--target", "vault", "--id", "0"}).exitCode, 2);

  ChildProcess holder([&](ChildControl& control) {
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0 || ::flock(fd, LOCK_EX) != 0) return 1;
    control.Ready();
    ::sleep(2);
    return 0;
  });
  ASSERT_TRUE(holder.AwaitReady());
  const ProcessResult removed = zelctl({"lun", "remove", "--target", "vault", "--id", "0"});
  EXPECT_EQ(holder.Join(), 0);
  EXPECT_EQ(removed.exitCode, 0) << removed.err;
  EXPECT_EQ(removed.err, "");
  EXPECT_EQ(removed.out, "Removed LUN 0 of target vault\n");
  EXPECT_FALSE(fs::exists(path));
}

}  // namespace
}  // namespace test
}  // namespace zel
