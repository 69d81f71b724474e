// The local host-control backends: real programs run without a shell, the
// embedded state files of modules, firewall and boot switch, the real-host
// modprobe and nft commands, the options file and the legacy file.
#include <fcntl.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/HostConfig.h"
#include "platform/local/LocalCommandRunner.h"
#include "platform/local/LocalHostControl.h"
#include "platform/local/LocalKernelOptions.h"
#include "platform/local/LocalLegacyConfig.h"
#include "support/FakeHostControl.h"
#include "support/Messages.h"
#include "support/Process.h"
#include "support/TestHost.h"

namespace zel::test {
namespace {

using platform::LogLevel;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class LocalHostControlTest : public ::testing::Test {
 protected:
  // A shell script under the home (mode 0700) and its path.
  std::string Script(const std::string& name, const std::string& body) {
    const std::string path = host_.Home() + "/" + name;
    WriteFile(path, "#!/bin/sh\n" + body, 0700);
    return path;
  }
  // A replacement command that writes its arguments into Out().
  std::string Recorder(const std::string& shell = "/bin/sh ") {
    WriteFile(host_.Home() + "/recorder.sh", "echo \"$@\" > " + Out() + "\n", 0600);
    return shell + host_.Home() + "/recorder.sh";
  }
  std::string Out() const { return host_.Home() + "/out"; }
  int Run(const std::vector<std::string>& argv) {
    return platform::NewLocalCommandRunner(config_)->Exec(argv);
  }
  ScopedTestHost host_;
  platform::HostConfig config_ = host_.Config();
};

TEST_F(LocalHostControlTest, ExitCodesOfRealProgramsAnd127WhenOneCannotStart) {
  EXPECT_EQ(Run({"/bin/true"}), 0);
  EXPECT_EQ(Run({"/bin/false"}), 1);
  EXPECT_EQ(Run({Script("three.sh", "exit 3\n")}), 3);
  EXPECT_EQ(Run({"true"}), 0);  // found in PATH
  EXPECT_EQ(Run({Script("killed.sh", "kill -9 $$\n")}), 128 + 9);
  EXPECT_THAT(host_.Log().Texts(LogLevel::Warning), IsEmpty());
  EXPECT_EQ(Run({host_.Home() + "/missing", "arg"}), 127);
  EXPECT_EQ(Run({"zel-no-such-program"}), 127);
  const std::string notExecutable = host_.Home() + "/plain.sh";
  WriteFile(notExecutable, "exit 0\n", 0600);
  EXPECT_EQ(Run({notExecutable}), 127);
  EXPECT_THAT(host_.Log().Texts(LogLevel::Warning),
              ElementsAre("HostControl: Failed to start \"" + host_.Home() +
                              "/missing arg\": No such file or directory",
                          "HostControl: Failed to start \"zel-no-such-program\": "
                          "zel-no-such-program not found in PATH",
                          "HostControl: Failed to start \"" + notExecutable +
                              "\": Permission denied"));
}

TEST_F(LocalHostControlTest, ChildSeesTheHomeAndItsArgumentsVerbatimAndNoOtherDescriptor) {
  const std::string script =
      Script("env.sh", "printf '%s|%s|%s' \"$ZEL_HOME\" \"$1\" \"$(env | grep -c '^ZEL_HOME=')\" > " +
                           Out() + "\n");
  ASSERT_EQ(Run({script, "two words; $HOME *"}), 0);
  EXPECT_EQ(ReadFile(Out()), host_.Home() + "|two words; $HOME *|1");

  // A descriptor of this process without close-on-exec, as a lock file's
  // may be: a daemon started from here must not keep it open.
  int fd = 9;
  while (fd > 3 && ::fcntl(fd, F_GETFD) != -1) --fd;
  ASSERT_GT(fd, 3) << "no free single-digit descriptor";
  const int opened = ::open("/dev/null", O_RDONLY);
  ASSERT_GE(opened, 0);
  ASSERT_EQ(::dup2(opened, fd), fd);
  ::close(opened);
  const std::string probe = Script("probe.sh", "if (: <&" + std::to_string(fd) +
                                                   ") 2>/dev/null; then exit 1; fi\nexit 0\n");
  const int code = Run({probe});
  ::close(fd);
  EXPECT_EQ(code, 0);
}

TEST_F(LocalHostControlTest, InitScriptIsTheBuildsOrAReplacementWithLeadingArguments) {
  // "status" is the one command of the script that changes nothing: 3 when
  // no daemon runs under this home.
  EXPECT_EQ(Run({"/etc/init.d/zeld", "++group=host/kap/tmp", "status"}), 3);
  config_.commands["/etc/init.d/zeld"] = Recorder("/bin/sh  ");
  EXPECT_EQ(Run({"/etc/init.d/zeld", "++group=host/kap/tmp", "restart"}), 0);
  EXPECT_EQ(ReadFile(Out()), "++group=host/kap/tmp restart\n");
}

TEST_F(LocalHostControlTest, EmbeddedBootSwitchIsAStateFileUnderTheHome) {
  const std::string path = host_.Home() + "/state/boot/zel_loader";
  EXPECT_EQ(Run({"/sbin/chkconfig", "zel_loader", "on"}), 0);
  EXPECT_EQ(ReadFile(path), "on");
  EXPECT_TRUE(host_.Log().Contains("HostControl: Boot switch: recorded \"zel_loader on\" in " +
                                   path));
  EXPECT_EQ(Run({"/sbin/chkconfig", "zel_loader", "off"}), 0);
  EXPECT_EQ(ReadFile(path), "off");
  EXPECT_EQ(Run({"/sbin/chkconfig", "zel_loader", "maybe"}), 2);
  EXPECT_EQ(Run({"/sbin/chkconfig", "../zel_loader", "on"}), 2);
  EXPECT_EQ(ReadFile(path), "off");
  EXPECT_FALSE(std::filesystem::exists(host_.Home() + "/state/zel_loader"));
}

TEST_F(LocalHostControlTest, RealHostBootSwitchIsTheDaemonsUnitUnlessChkconfigIsReplaced) {
  config_.profile = platform::Profile::RealHost;
  config_.commands["systemctl"] = Recorder();
  EXPECT_EQ(Run({"/sbin/chkconfig", "zel_loader", "on"}), 0);
  EXPECT_EQ(ReadFile(Out()), "enable zeld.service\n");
  EXPECT_EQ(Run({"/sbin/chkconfig", "zel_loader", "off"}), 0);
  EXPECT_EQ(ReadFile(Out()), "disable zeld.service\n");
  config_.commands["/sbin/chkconfig"] = Recorder();
  for (platform::Profile profile : {platform::Profile::Embedded, platform::Profile::RealHost}) {
    config_.profile = profile;
    std::filesystem::remove(Out());
    EXPECT_EQ(Run({"/sbin/chkconfig", "zel_loader", "on"}), 0);
    EXPECT_EQ(ReadFile(Out()), "zel_loader on\n");
  }
  EXPECT_FALSE(std::filesystem::exists(host_.Home() + "/state/boot"));
}

TEST_F(LocalHostControlTest, EmbeddedModulesAndFirewallAreStateFilesUnderTheHome) {
  std::unique_ptr<platform::KernelModules> modules = platform::NewLocalKernelModules(config_);
  const std::string path = host_.Home() + "/state/modules/zel";
  std::string seen;  // loaded or not after each step, twice each
  for (bool load : {true, true, false, false}) {
    seen += modules->ModuleIsLoaded("zel") ? "1" : "0";
    EXPECT_EQ(load ? modules->ModuleLoad("zel") : modules->ModuleUnload("zel"), NOK_OK);
    seen += std::filesystem::exists(path) ? "1" : "0";
  }
  EXPECT_EQ(seen, "01111000");
  EXPECT_THAT(host_.Log().Texts(LogLevel::Info),
              ElementsAre("HostControl: Loaded module zel: created " + path,
                          "HostControl: Unloaded module zel: removed " + path,
                          "HostControl: Module zel is not loaded; nothing to unload"));
  EXPECT_EQ(modules->ModuleLoad("../zel"), NOK_BAD_PARAM);
  EXPECT_FALSE(std::filesystem::exists(host_.Home() + "/state/zel"));
  std::unique_ptr<platform::Firewall> firewall = platform::NewLocalFirewall(config_);
  const std::string ruleset = host_.Home() + "/state/firewall/zel";
  EXPECT_EQ(firewall->FirewallRulesetSetStatus("zel", true), NOK_OK);
  EXPECT_EQ(ReadFile(ruleset), "enabled");
  EXPECT_EQ(firewall->FirewallRulesetSetStatus("zel", false), NOK_OK);
  EXPECT_EQ(ReadFile(ruleset), "disabled");
  EXPECT_TRUE(host_.Log().Contains("HostControl: Firewall ruleset zel disabled: recorded in " +
                                   ruleset));
}

TEST_F(LocalHostControlTest, EmbeddedStateThatCannotBeWrittenFailsTheCall) {
  WriteFile(host_.Home() + "/state", "not a directory");
  EXPECT_EQ(platform::NewLocalKernelModules(config_)->ModuleLoad("zel"), NOK_IO_ERROR);
  EXPECT_EQ(platform::NewLocalFirewall(config_)->FirewallRulesetSetStatus("zel", true),
            NOK_IO_ERROR);
  EXPECT_EQ(Run({"/sbin/chkconfig", "zel_loader", "on"}), 1);
  EXPECT_EQ(host_.Log().Texts(LogLevel::Warning).size(), 3u);
}

class RealHostControlTest : public LocalHostControlTest {
 protected:
  RealHostControlTest() {
    files_.procModules = host_.Home() + "/proc-modules";
    files_.sysModuleDir = host_.Home() + "/sys-module";
    WriteFile(files_.procModules,
              "zel_target 16384 0 - Live 0x0000000000000000\n"
              "nf_tables 311296 0 - Live 0x0000000000000000\n");
    std::filesystem::create_directories(files_.sysModuleDir + "/built_in");
    modules_ = platform::NewRealHostKernelModules(std::unique_ptr<ScriptedCommandRunner>(runner_),
                                                  files_);
  }
  platform::ModuleFiles files_;
  ScriptedCommandRunner* runner_ = new ScriptedCommandRunner;
  std::unique_ptr<platform::KernelModules> modules_;
};

TEST_F(RealHostControlTest, ModulesAreReadFromTheKernelsListsAndSwitchedWithModprobe) {
  EXPECT_TRUE(modules_->ModuleIsLoaded("zel-target"));  // modprobe's spelling
  EXPECT_TRUE(modules_->ModuleIsLoaded("pyrfw"));       // the host's nf_tables
  EXPECT_TRUE(modules_->ModuleIsLoaded("built_in"));
  EXPECT_FALSE(modules_->ModuleIsLoaded("zel"));  // a prefix of zel_target only
  EXPECT_THAT(runner_->Calls(), IsEmpty());
  EXPECT_EQ(modules_->ModuleLoad("zel"), NOK_OK);
  EXPECT_EQ(modules_->ModuleLoad("pyrfw"), NOK_OK);
  EXPECT_EQ(modules_->ModuleUnload("zel"), NOK_OK);  // not listed: nothing to run
  EXPECT_EQ(modules_->ModuleUnload("zel-target"), NOK_OK);
  EXPECT_THAT(runner_->CommandLines(),
              ElementsAre("modprobe zel", "modprobe nf_tables", "modprobe -r zel_target"));
  runner_->SetExitCode("modprobe", 1);
  EXPECT_EQ(modules_->ModuleLoad("zel"), NOK_FAILURE);
  EXPECT_TRUE(
      host_.Log().Contains("HostControl: Failed to load module zel: modprobe exited with 1"));
}

TEST_F(RealHostControlTest, FirewallRulesetIsOneNftTransaction) {
  auto runner = std::make_unique<ScriptedCommandRunner>();
  ScriptedCommandRunner* nft = runner.get();
  std::unique_ptr<platform::Firewall> firewall =
      platform::NewRealHostFirewall(std::move(runner), host_.Home());
  const std::string path = host_.Home() + "/state/firewall/zel.nft";
  const std::string dropTable = "table inet zel\ndelete table inet zel\n";
  EXPECT_EQ(firewall->FirewallRulesetSetStatus("zel", true), NOK_OK);
  EXPECT_THAT(nft->CommandLines(), ElementsAre("nft -f " + path));
  const std::string enabled = ReadFile(path);
  EXPECT_THAT(enabled, StartsWith(dropTable + "table inet zel {\n"));
  EXPECT_THAT(enabled, HasSubstr("type filter hook input priority 0; policy accept;"));
  EXPECT_THAT(enabled, HasSubstr("tcp dport 3260 accept"));
  EXPECT_EQ(firewall->FirewallRulesetSetStatus("zel", false), NOK_OK);
  EXPECT_EQ(ReadFile(path), dropTable);
  nft->SetExitCode("nft", 1);
  EXPECT_EQ(firewall->FirewallRulesetSetStatus("zel", true), NOK_FAILURE);
  EXPECT_EQ(firewall->FirewallRulesetSetStatus("zel; flush ruleset", true), NOK_BAD_PARAM);
  EXPECT_EQ(nft->CommandLines().size(), 3u);

  // The real-host factories run the replaced programs.
  config_.profile = platform::Profile::RealHost;
  config_.commands["nft"] = Recorder();
  EXPECT_EQ(platform::NewLocalFirewall(config_)->FirewallRulesetSetStatus("zel", false), NOK_OK);
  EXPECT_EQ(ReadFile(Out()), "-f " + path + "\n");
  config_.commands["modprobe"] = Recorder();
  EXPECT_EQ(platform::NewLocalKernelModules(config_)->ModuleLoad("zel"), NOK_OK);
  EXPECT_EQ(ReadFile(Out()), "zel\n");
}

class KernelOptionsTest : public LocalHostControlTest {
 protected:
  NOK_ReturnStatus Get(const std::string& component, const std::string& field) {
    value_ = -1;
    return platform::NewLocalKernelOptions(config_)->GetIntOption(component, field, &value_);
  }
  void WriteOptions(const std::string& json) { WriteFile(host_.Home() + "/options.json", json); }
  int value_ = -1;
};

TEST_F(KernelOptionsTest, FileValuesOverHostDefaults) {
  config_.options["ORVA-iSCSI.zelLoadBalanceMethod"] = 2;
  config_.options["ORVA-iSCSI.zelLoadBalancePeriod"] = 60;
  EXPECT_EQ(Get("ORVA-iSCSI", "zelLoadBalancePeriod"), NOK_OK);  // no file yet
  EXPECT_EQ(value_, 60);
  WriteOptions(R"({"ORVA-iSCSI": {"zelLoadBalancePeriod": -5}, "ORVA": {"configStore": 0}})");
  struct Case {
    const char *component, *field;
    NOK_ReturnStatus status;
    int value;
  };
  for (const Case& c : {Case{"ORVA-iSCSI", "zelLoadBalancePeriod", NOK_OK, -5},
                        Case{"ORVA-iSCSI", "zelLoadBalanceMethod", NOK_OK, 2},
                        Case{"ORVA", "configStore", NOK_OK, 0},
                        Case{"ORVA", "zelLoadBalancePeriod", NOK_NOT_FOUND, -1},
                        Case{"OTHER", "configStore", NOK_NOT_FOUND, -1}}) {
    EXPECT_EQ(Get(c.component, c.field), c.status) << c.component << "." << c.field;
    EXPECT_EQ(value_, c.value) << c.component << "." << c.field;
  }
  EXPECT_THAT(host_.Log().Texts(LogLevel::Warning), IsEmpty());
}

TEST_F(KernelOptionsTest, MalformedValuesAreRefusedNamingTheFile) {
  const std::string path = host_.Home() + "/options.json";
  WriteOptions(R"({"ORVA-iSCSI": {"a": "1", "b": 1.5, "c": 4294967296, "d": true}, "ORVA": 1})");
  for (const char* field : {"a", "b", "c", "d"}) {
    EXPECT_EQ(Get("ORVA-iSCSI", field), NOK_BAD_PARAM) << field;
    EXPECT_EQ(value_, -1);
  }
  EXPECT_EQ(Get("ORVA", "configStore"), NOK_BAD_PARAM);
  EXPECT_TRUE(host_.Log().Contains("HostControl: Options file " + path +
                                   ": 'ORVA-iSCSI.c' must be an integer of int range"));
  EXPECT_TRUE(host_.Log().Contains("HostControl: Options file " + path +
                                   ": 'ORVA' must be an object"));
  WriteOptions("[1, 2]");
  EXPECT_EQ(Get("ORVA", "configStore"), NOK_IO_ERROR);
  EXPECT_THAT(host_.Log().Texts(LogLevel::Warning).back(), HasSubstr(path));
}

class LegacyConfigTest : public LocalHostControlTest {
 protected:
  std::string Path() const { return host_.Home() + "/legacy-config.json"; }
  std::unique_ptr<platform::LegacyConfigFile> legacy_ =
      platform::NewLocalLegacyConfigFile(config_);
};

TEST_F(LegacyConfigTest, ValuesAreKeptBesideEachOtherAndAbsentOrForeignOnesRefused) {
  EXPECT_FALSE(legacy_->HasValue(ORVA_ZEL_STATUS_KEY));
  EXPECT_EQ(MessageOf([&] { legacy_->GetBool(ORVA_ZEL_STATUS_KEY); }),
            "Legacy configuration " + Path() + " has no value for '/UserVars/ZelServiceEnabled'");
  legacy_->SetBool("/UserVars/Other", false);
  legacy_->SetBool(ORVA_ZEL_STATUS_KEY, true);
  EXPECT_TRUE(legacy_->HasValue(ORVA_ZEL_STATUS_KEY));
  EXPECT_TRUE(legacy_->GetBool(ORVA_ZEL_STATUS_KEY));
  EXPECT_FALSE(legacy_->GetBool("/UserVars/Other"));
  legacy_->SetBool(ORVA_ZEL_STATUS_KEY, false);
  EXPECT_FALSE(legacy_->GetBool(ORVA_ZEL_STATUS_KEY));
  EXPECT_TRUE(legacy_->HasValue("/UserVars/Other"));
  WriteFile(Path(), R"({"/UserVars/ZelServiceEnabled": 1})");
  EXPECT_EQ(MessageOf([&] { legacy_->SetBool("/UserVars/Other", true); }),
            "Legacy configuration " + Path() +
                " holds '/UserVars/ZelServiceEnabled', which is not true or false");
  EXPECT_EQ(ReadFile(Path()), R"({"/UserVars/ZelServiceEnabled": 1})");
}

TEST_F(LegacyConfigTest, TwoProcessesWritingAtOnceLoseNoValue) {
  constexpr int kWrites = 40;
  ChildProcess child([this](ChildControl& control) {
    std::unique_ptr<platform::LegacyConfigFile> own = platform::NewLocalLegacyConfigFile(config_);
    control.Ready();
    control.AwaitRelease();
    for (int i = 0; i < kWrites; ++i) own->SetBool("/child/" + std::to_string(i), true);
    return 0;
  });
  ASSERT_TRUE(child.AwaitReady());
  child.Release();
  for (int i = 0; i < kWrites; ++i) legacy_->SetBool("/parent/" + std::to_string(i), false);
  ASSERT_EQ(child.Join(), 0);
  for (int i = 0; i < kWrites; ++i) {
    EXPECT_TRUE(legacy_->GetBool("/child/" + std::to_string(i))) << i;
    EXPECT_FALSE(legacy_->GetBool("/parent/" + std::to_string(i))) << i;
  }
}

}  // namespace
}  // namespace zel::test
