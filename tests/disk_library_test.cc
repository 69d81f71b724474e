// Local virtual disks on a real datastore and SQLite directory: damaged
// descriptors named in every error, flocks held by another process, rename
// across namespace directories, online growth on the same inode, extended
// parameters shared by every host, creation that leaves nothing on failure,
// and the cluster's disk format version.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "directory/DirectoryEntries.h"
#include "platform/EntryMarshal.h"
#include "platform/HostServices.h"
#include "platform/VolLib.h"
#include "platform/local/LocalClusterFacts.h"
#include "platform/local/LocalDiskLibrary.h"
#include "platform/local/LocalPolicyService.h"
#include "platform/local/SqliteDirectory.h"
#include "storage/DiskLunApi.h"
#include "support/HostDoubles.h"
#include "support/Messages.h"
#include "support/Process.h"
#include "support/TestHost.h"

namespace zel::platform {
namespace {

namespace fs = std::filesystem;
using test::MessageOf;

const std::string kHost = "11111111-2222-4333-8444-555555555555";
const std::string kOtherHost = "99999999-8888-4777-8666-555555555555";
const std::string kPolicy = "\"failuresToTolerate\" \"1\"";

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  return text.replace(text.find(from), from.size(), to);
}

struct stat Stat(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(0, ::stat(path.c_str(), &status)) << path;
  return status;
}

class DiskLibraryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(Root() + "/a");
    fs::create_directories(Root() + "/b");
    InstallDirectory();
    InstallDisks(kHost);
  }
  void InstallDirectory() {
    directory_ =
        &host_.Install<test::DirectoryDouble>(NewSqliteDirectory(host_.Home() + "/directory.db"));
  }
  void InstallDisks(const std::string& hostUuid) {
    host_.Install<test::DiskLibraryDouble>(std::make_unique<LocalDiskLibrary>(Root(), hostUuid));
  }
  const std::string& Root() const { return host_.Config().datastoreRoot; }
  std::string Path(const std::string& name) const { return Root() + "/" + name; }
  DiskLibrary& Disks() { return CurrentHost().Disks(); }
  DiskInfo Create(const std::string& name, uint64_t sectors = 8) {
    NokCtl::Storage::DiskLunApi::CreateVirtualDisk(Path(name), sectors, kPolicy);
    return Describe(name);
  }
  DiskInfo Describe(const std::string& name) {
    std::unique_ptr<DiskHandle> handle;
    DiskInfo info;
    EXPECT_EQ("", Disks().Open(Path(name), kDiskOpenReadOnly, &handle, &info).text);
    return info;
  }
  DiskErrorCode OpenLocked(const std::string& name, std::unique_ptr<DiskHandle>* handle,
                           uint32_t flags = kDiskOpenLocked, std::string* text = nullptr) {
    DiskInfo info;
    const DiskError error = Disks().Open(Path(name), flags, handle, &info);
    if (text != nullptr) *text = error.text;
    return error.code;
  }
  // "owner/policy/param=value..." of the object's entry, or "none".
  std::string Announced(const std::string& uuid) {
    std::vector<DirectoryEntry> entries;
    if (CurrentHost().GetDirectory().Query(kStorageObjectEntryType, uuid, &entries) != NOK_OK) {
      return "none";
    }
    StorageObjectRecord record;
    EXPECT_EQ(NOK_OK, UnmarshalStorageObjectRecord(entries.front().payload, &record, nullptr));
    std::string text = entries.front().ownerHost + "/" + record.policy;
    for (const auto& [name, value] : record.extParams) text += "/" + name + "=" + value;
    return text;
  }
  std::set<std::string> Files() const {
    std::set<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(Root())) {
      if (entry.is_regular_file()) names.insert(fs::relative(entry.path(), Root()).string());
    }
    return names;
  }

  test::ScopedTestHost host_;
  test::DirectoryDouble* directory_ = nullptr;
};

TEST_F(DiskLibraryTest, DamagedDescriptorOrExtentIsRefusedNamingTheFile) {
  const DiskInfo info = Create("a/d.qdsk");
  const std::string path = Path("a/d.qdsk"), extent = Path("a/d.extent");
  const std::string good = test::ReadFile(path);
  EXPECT_EQ((std::set<std::string>{"a/d.qdsk", "a/d.extent"}), Files());
  EXPECT_EQ(0600u, Stat(path).st_mode & 0777);
  EXPECT_EQ(0600u, Stat(extent).st_mode & 0777);
  EXPECT_EQ(8 * 512, Stat(extent).st_size);
  EXPECT_EQ(kHost + "/" + kPolicy, Announced(info.objectUuid));

  const std::string bad = "Virtual disk descriptor " + path + ": ";
  const std::string capacity = "capacity 00000000000000000008";
  const std::string extentLine = "extent 00000000000000000008 " + info.objectUuid + " d.extent\n";
  struct Case {
    std::string descriptor;
    off_t extentBytes;  // -1: no extent file
    DiskErrorCode code;
    std::string text;
  };
  const std::vector<Case> cases = {
      {"other-disk" + good.substr(16), 4096, DiskErrorCode::BadDescriptor,
       bad + "not a virtual disk descriptor (bad header)"},
      {good + "colour blue\n", 4096, DiskErrorCode::BadDescriptor,
       bad + "line 5: unexpected line 'colour blue'"},
      {Replace(good, capacity, "capacity 0000000000000000000x"), 4096, DiskErrorCode::BadDescriptor,
       bad + "line 2: capacity is not a number of 20 digits"},
      {Replace(good, capacity, "capacity 8"), 4096, DiskErrorCode::BadDescriptor,
       bad + "line 2: capacity is not a number of 20 digits"},
      {Replace(good, extentLine, ""), 4096, DiskErrorCode::BadDescriptor, bad + "names no extent"},
      {Replace(good, capacity, "capacity 00000000000000000009"), 4096, DiskErrorCode::BadDescriptor,
       bad + "extent sizes do not add up to the capacity of 9 sectors"},
      {Replace(good, " d.extent", " ../d.extent"), 4096, DiskErrorCode::BadDescriptor,
       bad + "line 4: extent file name '../d.extent' leaves the descriptor's directory"},
      {Replace(good, " d.extent", " b/d.extent"), 4096, DiskErrorCode::BadDescriptor,
       bad + "line 4: extent file name 'b/d.extent' leaves the descriptor's directory"},
      {good.substr(0, good.size() - 1), 4096, DiskErrorCode::BadDescriptor,
       bad + "does not end with a complete line"},
      {good + std::string(64 * 1024, '\n'), 4096, DiskErrorCode::BadDescriptor,
       bad + "larger than 65536 bytes"},
      {good, -1, DiskErrorCode::NotFound,
       "Extent file " + extent + " of virtual disk " + path + " not found"},
      {good, 4095, DiskErrorCode::BadDescriptor,
       "Extent file " + extent + " of virtual disk " + path +
           " holds 4095 bytes, less than its 8 sectors"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    test::WriteFile(path, c.descriptor);
    fs::remove(extent);
    if (c.extentBytes >= 0) test::WriteFile(extent, std::string(c.extentBytes, 'x'));
    VolLibHandle* handle = reinterpret_cast<VolLibHandle*>(1);
    VolLibInfo* read = reinterpret_cast<VolLibInfo*>(1);
    const VolLibError error = VolLib_OpenWithInfo(path, kDiskOpenLocked, 0, &handle, &read);
    EXPECT_EQ(c.code, error.code);
    EXPECT_EQ(c.text, VolLib_Err2String(error));
    EXPECT_EQ(nullptr, handle);
    EXPECT_EQ(nullptr, read);
  }
  std::unique_ptr<DiskHandle> handle;
  EXPECT_EQ(DiskErrorCode::BadParam, OpenLocked("a/d.qdsk", &handle, 0x2));
}

// flock belongs to the open file, so the child's lock is seen by this
// process as by any other, and goes when the child does.
TEST_F(DiskLibraryTest, LockedOpenInAnotherProcessRefusesOpensAndRenameUntilItExits) {
  Create("a/d.qdsk");
  for (const bool wholeDisk : {true, false}) {
    SCOPED_TRACE(wholeDisk);
    test::ChildProcess child([&](test::ChildControl& control) {
      std::unique_ptr<DiskHandle> held;
      const int extent = ::open(Path("a/d.extent").c_str(), O_RDWR);
      // A holder of the descriptor, or one that opened only the data.
      if (wholeDisk ? OpenLocked("a/d.qdsk", &held) != DiskErrorCode::Ok
                    : ::flock(extent, LOCK_EX | LOCK_NB) != 0) {
        return 1;
      }
      control.Ready();
      control.AwaitRelease();
      return 0;
    });
    ASSERT_TRUE(child.AwaitReady());
    std::unique_ptr<DiskHandle> handle;
    std::string text;
    EXPECT_EQ(DiskErrorCode::Locked,
              OpenLocked("a/d.qdsk", &handle, kDiskOpenExclusiveSession, &text));
    EXPECT_EQ(
        (wholeDisk ? "Virtual disk " + Path("a/d.qdsk") : "Extent file " + Path("a/d.extent")) +
            " is locked by another holder",
        text);
    EXPECT_EQ(wholeDisk ? DiskErrorCode::Locked : DiskErrorCode::Ok,
              OpenLocked("a/d.qdsk", &handle));
    handle.reset();
    EXPECT_EQ(wholeDisk ? DiskErrorCode::Locked : DiskErrorCode::Ok,
              VolLib_Rename(Path("a/d.qdsk"), Path("a/e.qdsk"), 0).code);
    if (!wholeDisk) {
      ASSERT_EQ("", VolLib_Rename(Path("a/e.qdsk"), Path("a/d.qdsk"), 0).text);
    }
    EXPECT_EQ(DiskErrorCode::Ok, OpenLocked("a/d.qdsk", &handle, kDiskOpenReadOnly));
    handle.reset();
    child.Release();
    EXPECT_EQ(0, child.Join());
    EXPECT_EQ(DiskErrorCode::Ok, OpenLocked("a/d.qdsk", &handle, kDiskOpenExclusiveSession));
  }
}

TEST_F(DiskLibraryTest, RenameMovesDataAcrossDirectoriesKeepingTheIdentity) {
  const DiskInfo before = Create("a/d.qdsk");
  test::WriteFile(Path("a/d.extent"), "payload!" + std::string(8 * 512 - 8, '\0'));
  test::WriteFile(Path("b/taken.qdsk"), "");
  EXPECT_EQ("Virtual disk " + Path("b/taken.qdsk") + " already exists",
            VolLib_Rename(Path("a/d.qdsk"), Path("b/taken.qdsk"), 0).text);
  std::unique_ptr<DiskHandle> held;
  ASSERT_EQ(DiskErrorCode::Ok, OpenLocked("a/d.qdsk", &held));
  EXPECT_EQ(DiskErrorCode::Locked, VolLib_Rename(Path("a/d.qdsk"), Path("b/e.qdsk"), 0).code);
  held.reset();
  // What a rename that died after its first step leaves: the new link.
  ASSERT_EQ(0, ::link(Path("a/d.extent").c_str(), Path("b/e.extent").c_str()));
  ASSERT_EQ("Success", VolLib_Err2String(VolLib_Rename(Path("a/d.qdsk"), Path("b/e.qdsk"), 0)));
  EXPECT_EQ((std::set<std::string>{"b/e.qdsk", "b/e.extent", "b/taken.qdsk"}), Files());
  const DiskInfo after = Describe("b/e.qdsk");
  EXPECT_EQ(before.objectUuid, after.objectUuid);
  EXPECT_EQ("e.extent", after.extents.at(0).fileName);
  EXPECT_EQ("payload!", test::ReadFile(Path("b/e.extent")).substr(0, 8));
  EXPECT_EQ(kHost + "/" + kPolicy, Announced(before.objectUuid));
}

TEST_F(DiskLibraryTest, GrowWhileHeldKeepsTheExtentSparseAndTheDescriptorInode) {
  Create("a/d.qdsk");
  const ino_t inode = Stat(Path("a/d.qdsk")).st_ino;
  std::unique_ptr<DiskHandle> held;
  ASSERT_EQ(DiskErrorCode::Ok, OpenLocked("a/d.qdsk", &held));
  ASSERT_EQ("", VolLib_Grow(Path("a/d.qdsk"), 1 << 20).text);
  const struct stat extent = Stat(Path("a/d.extent"));
  EXPECT_EQ(off_t{512} << 20, extent.st_size);
  EXPECT_LT(extent.st_blocks, 64);  // nothing was written: no data blocks
  EXPECT_EQ(inode, Stat(Path("a/d.qdsk")).st_ino);
  std::unique_ptr<DiskHandle> second;
  EXPECT_EQ(DiskErrorCode::Locked, OpenLocked("a/d.qdsk", &second));
  const DiskInfo grown = Describe("a/d.qdsk");
  EXPECT_EQ(1u << 20, grown.capacitySectors);
  EXPECT_EQ(1u << 20, grown.extents.at(0).sizeSectors);
  const VolLibError same = VolLib_Grow(Path("a/d.qdsk"), 1 << 20);
  EXPECT_EQ(DiskErrorCode::BadParam, same.code);
  EXPECT_EQ(
      "Cannot grow virtual disk " + Path("a/d.qdsk") + " of 1048576 sectors to 1048576 sectors",
      same.text);
}

// The other "host" is a child process with its own directory connection;
// both set parameters of one disk at once, and neither loses the other's.
TEST_F(DiskLibraryTest, ExtParamsAndPolicySetByAnyHostAreSharedAndNeverLost) {
  const DiskInfo info = Create("a/d.qdsk");
  uint32_t version = 0;
  EXPECT_EQ(NOK_NOT_FOUND, ZeldGetIscsiVersion("a/d.qdsk", &version));
  EXPECT_EQ(NOK_BAD_PARAM, ZeldSetIscsiVersion("/elsewhere/d.qdsk", 3));
  EXPECT_TRUE(host_.Log().Contains("Failed to convert LUN '/elsewhere/d.qdsk' to object URI"));
  EXPECT_EQ(NOK_NOT_FOUND, ZeldSetIscsiVersion("a/gone.qdsk", 3));
  EXPECT_TRUE(host_.Log().Contains("Failed to set extParams for 'a/gone.qdsk': Virtual disk " +
                                   Path("a/gone.qdsk") + " not found"));
  CurrentHost().SetDirectory(nullptr);
  constexpr int kEach = 15;
  auto setAll = [&](const std::string& prefix) {
    for (int i = 0; i < kEach; ++i) {
      if (!Disks().SetExtParam(Path("a/d.qdsk"), prefix + std::to_string(i), "v").Ok()) return 1;
    }
    return 0;
  };
  test::ChildProcess child([&](test::ChildControl& control) {
    InstallDirectory();
    InstallDisks(kOtherHost);
    if (ZeldSetIscsiVersion(Path("a/d.qdsk"), 4294967295u) != NOK_OK) return 2;
    control.Ready();
    control.AwaitRelease();
    return setAll("child");
  });
  ASSERT_TRUE(child.AwaitReady());
  InstallDirectory();
  child.Release();
  EXPECT_EQ(0, setAll("parent"));
  EXPECT_EQ(0, child.Join());
  ASSERT_EQ(NOK_OK, ZeldGetIscsiVersion(Path("a/d.qdsk"), &version));
  EXPECT_EQ(4294967295u, version);
  InstallDisks(kOtherHost);
  NokCtl::Storage::DiskLunApi::UpdateVirtualDisk(Path("a/d.qdsk"), "\"stripeWidth\" \"2\"");
  std::string value;
  EXPECT_EQ(DiskErrorCode::Ok, Disks().GetExtParam(Path("a/d.qdsk"), "child14", &value).code);
  const std::string announced = Announced(info.objectUuid);
  EXPECT_EQ(0u, announced.find(kHost + "/\"stripeWidth\" \"2\"/child0=v/")) << announced;
  EXPECT_EQ(2u * kEach + 1, std::count(announced.begin(), announced.end(), '='));
  EXPECT_NE(std::string::npos, announced.find("/orva.EAiscsiVersion=4294967295"));
}

TEST_F(DiskLibraryTest, RefusedOrFailedCreationLeavesNothingAndRemovalFinishesWhatIsLeft) {
  test::WriteFile(Path("a/taken.qdsk"), "");
  directory_->FailNext("AsyncUpdate", static_cast<int>(NOK_TIMEOUT));
  using NokCtl::Storage::DiskLunApi::CreateVirtualDisk;
  const std::vector<std::pair<std::function<void()>, std::string>> cases = {
      {[&] { CreateVirtualDisk(Path("a/d.qdsk"), 8, kPolicy); },
       "Failed to announce virtual disk " + Path("a/d.qdsk") + " ("},
      {[&] { CreateVirtualDisk(Path("a/d.qdsk"), 0, kPolicy); },
       "Invalid capacity of virtual disk " + Path("a/d.qdsk") + ": 0 sectors"},
      {[&] { CreateVirtualDisk(Path("a/taken.qdsk"), 8, kPolicy); },
       "Virtual disk " + Path("a/taken.qdsk") + " already exists"},
      {[&] { CreateVirtualDisk(Path("a/d.qdsk"), 8, "\"copies\" \"2\""); },
       "Invalid storage policy '\"copies\" \"2\"': unknown rule \"copies\""},
      {[&] { NokCtl::Storage::DiskLunApi::RemoveVirtualDisk(Path("a/d.qdsk")); },
       "Virtual disk " + Path("a/d.qdsk") + " not found"},
  };
  for (const auto& [operation, message] : cases) {
    EXPECT_EQ(message, MessageOf(operation).substr(0, message.size()));
  }
  EXPECT_TRUE(host_.Log().Texts(LogLevel::Warning).empty());
  EXPECT_EQ((std::set<std::string>{"a/taken.qdsk"}), Files());
  std::vector<DirectoryEntry> owned;
  EXPECT_EQ(NOK_NOT_FOUND, directory_->QueryByHost(kStorageObjectEntryType, kHost, &owned));

  const DiskInfo info = Create("a/d.qdsk");
  fs::remove(Path("a/d.extent"));  // a removal that stopped after the data
  NokCtl::Storage::DiskLunApi::RemoveVirtualDisk(Path("a/d.qdsk"));
  EXPECT_EQ((std::set<std::string>{"a/taken.qdsk"}), Files());
  EXPECT_EQ("none", Announced(info.objectUuid));
}

TEST_F(DiskLibraryTest, DiskFormatVersionIsTheMinimumOverMembersAndNeverGuessed) {
  HostConfig self = host_.Config(), peer = host_.Config();
  self.hostUuid = kHost;
  peer.hostUuid = kOtherHost;
  peer.diskFormatVersion = 9;
  Directory& directory = CurrentHost().GetDirectory();
  ASSERT_EQ(NOK_OK, LocalClusterFacts(peer, directory).Announce());
  auto& cluster =
      host_.Install<test::ClusterFactsDouble>(std::make_unique<LocalClusterFacts>(self, directory));
  ASSERT_EQ(NOK_OK, static_cast<LocalClusterFacts&>(cluster.Target()).Announce());
  EXPECT_EQ(9, OrvaUtil::GetMaxDiskVersionInCluster());
  // A member that published before hosts declared a format counts as current.
  ASSERT_EQ(NOK_OK, test::PublishAndWait(directory, {kClusterMemberEntryType, kClusterMembersKey,
                                                     kOtherHost, kOtherHost, "{}", 0}));
  EXPECT_EQ(kCurrentDiskFormatVersion, OrvaUtil::GetMaxDiskVersionInCluster());
  cluster.FailNext("GetClusterInfo", static_cast<int>(NOK_TIMEOUT));
  EXPECT_EQ("Failed to learn the disk format version of the cluster: Timeout",
            MessageOf([] { OrvaUtil::GetMaxDiskVersionInCluster(); }));

  const std::string hostJson = host_.Home() + "/host.json";
  const std::vector<std::pair<std::string, std::string>> refused = {
      {R"("diskFormatVersion": 0)", "'diskFormatVersion' must be from 1 to 255, not 0"},
      {R"("diskFormatVersion": 256)", "'diskFormatVersion' must be from 1 to 255, not 256"},
      {R"("naaCompanyId": "0A7E1G")", "'naaCompanyId' must be six hex digits: '0A7E1G'"},
      {R"("naaCompanyId": "0A7E150")", "'naaCompanyId' must be six hex digits: '0A7E150'"},
  };
  for (const auto& [member, message] : refused) {
    test::WriteFile(hostJson,
                    R"({"hostUuid": ")" + kHost + R"(", "hostName": "h", )" + member + "}");
    EXPECT_EQ("Host configuration " + hostJson + ": " + message,
              MessageOf([&] { LoadHostConfig(host_.Home()); }));
  }
  test::WriteFile(hostJson, R"({"hostUuid": ")" + kHost + R"(", "naaCompanyId": "0a7e1f"})");
  EXPECT_EQ("0A7E1F", LoadHostConfig(host_.Home()).naaCompanyId);
}

}  // namespace
}  // namespace zel::platform
