// What must never happen to an operator's configuration: defaults or a
// namespace dropped by a command that did not ask for it, a target removed
// under another's name, secrets left in stale files, state readable by
// others, credentials in a parser's dump.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "cache/ConfigSave.h"
#include "conf/ConfHandle.h"
#include "directory/DirectoryEntries.h"
#include "edit/TargetEditor.h"
#include "platform/local/LocalNetworkInterfaces.h"
#include "service/ConfigBackup.h"
#include "storage/DatastoreLayout.h"
#include "support/Messages.h"
#include "support/Process.h"
#include "support/ServiceHome.h"

namespace zel {
namespace test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
namespace fs = std::filesystem;

constexpr const char* kSecret = "Default#Secret1";

// A home made by zelctl under umask 000, the service enabled on it, with a
// CHAP default on an interface this machine has.
class ZelctlHomeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::vector<std::string> nics =
        platform::NewLocalNetworkInterfaces(platform::EmbeddedHostConfig(home_.Path()))
            ->GetNokKernelNicNames();
    if (nics.empty()) GTEST_SKIP() << "no network interface to listen on";
    const mode_t previous = ::umask(0);
    const ProcessResult created =
        Run({"namespace", "create", "--interface", nics[0], "--auth-type", "CHAP", "--userid",
             "admin", "--secret", "-"},
            std::string(kSecret) + "\n");
    const ProcessResult enabled = Run({"service", "enable"});
    ::umask(previous);
    ASSERT_EQ(created.exitCode, 0) << created.err;
    ASSERT_EQ(enabled.exitCode, 0) << enabled.err;
  }
  void TearDown() override { Run({"service", "disable"}); }

  ProcessResult Run(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), {ZELCTL_PATH, "--home", home_.Path()});
    return RunProgram(args, input);
  }
  std::string Conf() { return ReadFile(home_.Path() + "/datastore/.iSCSI-CONFIG/etc/zel.conf"); }

  TempHome home_;
};

TEST_F(ZelctlHomeTest, EveryFileUnderTheHomeIsOwnerOnlyWhateverTheUmask) {
  std::vector<std::string> open;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(home_.Path())) {
    if (entry.is_symlink() || entry.path().filename() == "zel.conf") continue;  // zel.conf: 0660
    if ((entry.status().permissions() & (fs::perms::group_all | fs::perms::others_all)) !=
        fs::perms::none) {
      open.push_back(entry.path().string());
    }
  }
  EXPECT_THAT(open, IsEmpty());
}

TEST_F(ZelctlHomeTest, DefaultsChangeOnlyWhereGivenAndANewNamespaceRunKeepsThem) {
  const std::string chap = std::string("chap \"admin\" \"") + "RGVmYXVsdCNTZWNyZXQx\"";
  ASSERT_THAT(Conf(), HasSubstr(chap));
  ASSERT_EQ(Run({"defaults", "set", "--port", "3261"}).exitCode, 0);
  ASSERT_EQ(Run({"namespace", "create"}).exitCode, 0);
  EXPECT_THAT(Conf(), HasSubstr(chap));
  EXPECT_THAT(Conf(), HasSubstr(":3261\n"));
  ASSERT_EQ(Run({"defaults", "set", "--auth-type", "No-Authentication"}).exitCode, 0);
  EXPECT_THAT(Conf(), Not(HasSubstr("chap")));
  // The default policy asks for more members than a one-host cluster has.
  EXPECT_THAT(Run({"namespace", "info"}).out,
              HasSubstr("notCompliantBecause: failuresToTolerate 1 needs 3 cluster members; the "
                        "cluster has 1\n"));
}

TEST_F(ZelctlHomeTest, NamespaceInUseIsNotDeletedAndTargetWithoutLinkIsStillRemoved) {
  ASSERT_EQ(Run({"target", "add", "--alias", "t1"}).exitCode, 0);
  const std::string before = Conf();
  const ProcessResult whileEnabled = Run({"namespace", "delete"});
  EXPECT_EQ(whileEnabled.exitCode, 1);
  EXPECT_THAT(whileEnabled.err, HasSubstr("The service is enabled on this host"));
  ASSERT_EQ(Run({"service", "disable"}).exitCode, 0);
  const ProcessResult withTarget = Run({"namespace", "delete"});
  EXPECT_EQ(withTarget.exitCode, 1);
  EXPECT_EQ(withTarget.err, "zel.conf still holds 1 target(s): remove them before deleting the "
                            "namespace, or give --force\n");
  EXPECT_EQ(Conf(), before);

  // A removal killed after the link went leaves an entry that must still go.
  ASSERT_EQ(Run({"service", "enable"}).exitCode, 0);
  for (const fs::directory_entry& link :
       fs::directory_iterator(home_.Path() + "/datastore/.iSCSI-CONFIG/targets")) {
    fs::remove(link.path());
  }
  const ProcessResult removed = Run({"target", "remove", "t1"});
  EXPECT_EQ(removed.exitCode, 0) << removed.err;
  EXPECT_THAT(Conf(), Not(HasSubstr("alias \"t1\"")));
}

TEST_F(ZelctlHomeTest, DoctorReportsWhatKilledEditorsLeaveAndRepairsOnlyWhatNoTargetNames) {
  ASSERT_EQ(Run({"target", "add", "--alias", "t1"}).exitCode, 0);
  EXPECT_EQ(Run({"doctor"}).exitCode, 0);
  const std::string datastore = home_.Path() + "/datastore/";
  for (const fs::directory_entry& link : fs::directory_iterator(datastore + ".iSCSI-CONFIG/targets")) {
    fs::remove(link.path());
  }
  const std::string orphan = datastore + "11111111-2222-3333-4444-555555555555";
  const std::string fresh = datastore + "22222222-2222-3333-4444-555555555555";
  fs::create_directory(orphan);
  fs::create_directory(fresh);  // may be a target being added: never touched
  fs::last_write_time(orphan, fs::file_time_type::clock::now() - std::chrono::hours(1));
  WriteFile(datastore + ".iSCSI-CONFIG/etc/zel.conf.tmpAb12Cd", "left by a killed save");
  const std::string before = Conf();

  const ProcessResult found = Run({"doctor"});
  EXPECT_EQ(found.exitCode, 1);
  EXPECT_THAT(found.out, HasSubstr("repairable: target t1 ("));
  EXPECT_THAT(found.out, HasSubstr("repairable: namespace " + orphan + " belongs to no target"));
  EXPECT_THAT(found.out, HasSubstr("zel.conf.tmpAb12Cd was left by a save that died"));
  EXPECT_THAT(found.out, Not(HasSubstr(fresh)));
  EXPECT_EQ(Run({"doctor", "--repair"}).exitCode, 0);
  EXPECT_EQ(Run({"doctor"}).exitCode, 0);
  EXPECT_FALSE(fs::exists(orphan));
  EXPECT_TRUE(fs::exists(fresh));
  EXPECT_EQ(Conf(), before);
  EXPECT_EQ(Run({"target", "remove", "t1"}).exitCode, 0);
}

TEST(ConfigurationSafetyTest, RemovalRefusesAnAliasThatNowNamesAnotherTarget) {
  ServiceHome home;
  home.InstallLocalServiceHost();
  const std::string before = ReadFile(home.ConfPath());
  EXPECT_EQ(MessageOf([] {
              NokCtl::Orva::IscsiTarget::Parser::RemoveTargetFromConfFile("finance", kLabUuid);
            }),
            "Target finance was changed by another editor while it was being removed; nothing "
            "was removed.");
  EXPECT_EQ(ReadFile(home.ConfPath()), before);
}

TEST(ConfigurationSafetyTest, FileBehindThePublishedGenerationIsNotSavedOverButRestored) {
  namespace Util = NokCtl::Orva::IscsiTarget::Util;
  using NokCtl::Orva::IscsiTarget::ConfHandle;
  ServiceHome home;
  home.InstallLocalServiceHost();
  ASSERT_TRUE(Util::CopyZelConfWithLock());
  Util::DoActionForConfigChange(9);
  home.WriteConf("");  // emptied: reads as a valid, empty configuration
  EXPECT_EQ(MessageOf([&] {
              ConfHandle handle(ConfHandle::kExclusiveMode, home.ConfPath());
              Util::SaveAndAnnounceConfig(handle);
            }),
            home.ConfPath() +
                " holds generation 1, behind generation 9 published in the cluster directory: the "
                "file was damaged or replaced, and saving over it would lose the cluster's "
                "configuration. Nothing was saved. The local backup copy is " +
                Util::GetBackupConfFilePath() + ".");
  EXPECT_EQ(ReadFile(home.ConfPath()), "");

  const Util::BackupSummary backup = Util::DescribeBackupConfigFile();
  EXPECT_EQ(std::make_tuple(backup.generation, backup.targets, backup.luns),
            std::make_tuple(uint64_t{7}, 2, 2));
  EXPECT_EQ(Util::RestoreBackupConfigFile(), 10u);
  uint64_t published = 0;
  ASSERT_EQ(ZeldGetConfigGenNumInBrix(&published), NOK_OK);
  EXPECT_EQ(published, 10u);
  EXPECT_EQ(ConfHandle(ConfHandle::kShareMode, home.ConfPath()).GetCurrentGenerationNum(), 10u);
}

TEST(ConfigurationSafetyTest, ASaveRemovesTheTemporaryFilesOfSavesThatDied) {
  ServiceHome home;
  home.InstallLocalServiceHost();
  const std::string stale = home.ConfPath() + ".tmpAb12Cd", other = home.ConfPath() + ".tmpkeep";
  WriteFile(stale, "chap \"u\" \"c2VjcmV0\"");
  WriteFile(other, "not ours");
  NokCtl::Orva::IscsiTarget::ConfHandle(NokCtl::Orva::IscsiTarget::ConfHandle::kExclusiveMode,
                                        home.ConfPath())
      .WriteConfFile();
  EXPECT_FALSE(fs::exists(stale));
  EXPECT_TRUE(fs::exists(other));
}

TEST(ConfigurationSafetyTest, SyntaxErrorDumpMasksEverySecretQuotedOrNot) {
  TempHome home;
  const std::string path = home.Path() + "/broken.conf";
  WriteFile(path,
            "auth-group g {\n chap u1 U2VjcmV0T25lMTIz\n"
            " chap-mutual \"u2\" \"U2VjcmV0VHdvMTIz\" m2 TXV0dWFsMTIzNDU2 ; chap u3 \"VGhyZWUxMjM0NQ==\"\n"
            " bogus\n}\n");
  const ProcessResult check = RunProgram({ZELCTL_PATH, "conf", "check", path});
  EXPECT_EQ(check.exitCode, 1);
  EXPECT_THAT(check.err, HasSubstr("chap u1 ****************"));
  for (const char* secret : {"U2VjcmV0T25l", "U2VjcmV0VHdv", "TXV0dWFs", "VGhyZWUx"}) {
    EXPECT_THAT(check.err, Not(HasSubstr(secret)));
  }
}

}  // namespace
}  // namespace test
}  // namespace zel
