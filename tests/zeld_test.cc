// zeld and its init script as the service drives them: real daemons in a
// temporary home, started, reloaded, replaced and stopped through the
// script, reading the home's zel.conf and logging what they would serve,
// never a credential.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/Process.h"
#include "support/ServiceHome.h"

namespace zel {
namespace test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

const char kFinanceLine[] =
    "zeld: Would serve target iqn.2026-11.local.zel:finance alias \"finance\" on portal group "
    "default listen nok0:3260 with 2 LUNs (1 offline)";
const char kLabLine[] =
    "zeld: Would serve target iqn.2026-11.local.zel:lab alias \"lab\" on portal group default "
    "listen nok0:3260 with 0 LUNs (0 offline)";

// Every credential of the standard preparation, in the clear and as
// zel.conf keeps them.
const std::vector<std::string> kSecrets = {
    kDefaultSecret,  "RGVmYXVsdCNTZWNyZXQx", kDefaultMutualSecret, "TXV0dWFsI1NlY3JldDIy",
    kFinanceSecret,  "RmluYW5jZSNTZWNyZXQx", "Lab#Outgoing1",      "TGFiI091dGdvaW5nMQ==",
    "Lab#Incoming2", "TGFiI0luY29taW5nMg=="};

// A process that exited but was not reaped (zeld's parent is gone, so it
// waits for whoever adopted it) is not running.
bool Running(pid_t pid) {
  if (pid <= 0 || ::kill(pid, 0) != 0) return false;
  const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const std::string::size_type end = stat.rfind(") ");
  return end != std::string::npos && stat[end + 2] != 'Z';
}

size_t Count(const std::string& text, const std::string& fragment) {
  size_t count = 0;
  for (auto at = text.find(fragment); at != std::string::npos; at = text.find(fragment, at + 1)) {
    ++count;
  }
  return count;
}

// The standard home, with the daemon stopped again whatever the test did.
class ZeldTest : public ::testing::Test {
 protected:
  ~ZeldTest() override { Init("io_stop"); }

  ProcessResult Init(const std::string& command) {
    return RunProgram({"/usr/bin/env", "ZEL_HOME=" + home_.Path(), ZELD_INIT_PATH,
                       "++group=host/kap/tmp", command});
  }

  std::string PidPath() const { return home_.Path() + "/run/zeld.pid"; }
  bool PidFileExists() const { return std::filesystem::exists(PidPath()); }
  pid_t Pid() const { return static_cast<pid_t>(std::stol(ReadFile(PidPath()))); }
  std::string Log() const { return ReadFile(home_.Path() + "/log/zeld.log"); }

  ServiceHome home_;
};

TEST_F(ZeldTest, RestartStartsADaemonThatStatusReportsAndIoStopEnds) {
  const ProcessResult started = Init("restart");
  ASSERT_EQ(started.exitCode, 0) << started.err;
  ASSERT_TRUE(PidFileExists());
  const pid_t pid = Pid();
  EXPECT_TRUE(Running(pid));

  const ProcessResult running = Init("status");
  EXPECT_EQ(running.exitCode, 0);
  EXPECT_EQ(running.out, "zeld is running (pid " + std::to_string(pid) + ")\n");

  const ProcessResult stopped = Init("io_stop");
  EXPECT_EQ(stopped.exitCode, 0) << stopped.err;
  EXPECT_FALSE(PidFileExists());
  EXPECT_FALSE(Running(pid));
  const ProcessResult notRunning = Init("status");
  EXPECT_EQ(notRunning.exitCode, 3);
  EXPECT_EQ(notRunning.out, "zeld is not running\n");
}

TEST_F(ZeldTest, StartLogsEveryTargetOfTheFileOnce) {
  ASSERT_EQ(Init("restart").exitCode, 0);
  const std::string log = Log();
  EXPECT_THAT(log, HasSubstr("zeld: Read " + home_.Path() +
                             "/datastore/.iSCSI-CONFIG/etc/zel.conf generation 7 with 2 targets"));
  EXPECT_EQ(Count(log, kFinanceLine), 1u);
  EXPECT_EQ(Count(log, kLabLine), 1u);
}

TEST_F(ZeldTest, ReloadReadsTheChangedFileBeforeItReturns) {
  ASSERT_EQ(Init("restart").exitCode, 0);
  const pid_t pid = Pid();
  std::string changed = kStandardConf;
  changed.replace(changed.find("generation 7"), 12, "generation 8");
  changed.replace(changed.find("listen nok0:3260"), 16, "listen nok1:3261");
  home_.WriteConf(changed);

  const ProcessResult reloaded = Init("reload");
  ASSERT_EQ(reloaded.exitCode, 0) << reloaded.err;
  const std::string log = Log();
  EXPECT_THAT(log, HasSubstr("zeld: Reloading on SIGHUP"));
  EXPECT_THAT(log, HasSubstr("generation 8 with 2 targets"));
  EXPECT_THAT(log, HasSubstr("alias \"lab\" on portal group default listen nok1:3261 with 0 LUNs"));
  EXPECT_EQ(Pid(), pid) << "a reload keeps the daemon";
}

TEST_F(ZeldTest, SecondRestartReplacesTheDaemon) {
  ASSERT_EQ(Init("restart").exitCode, 0);
  const pid_t first = Pid();
  ASSERT_EQ(Init("restart").exitCode, 0);
  const pid_t second = Pid();
  EXPECT_NE(second, first);
  EXPECT_FALSE(Running(first));
  EXPECT_TRUE(Running(second));
  EXPECT_EQ(Count(Log(), "zeld: Stopping on SIGTERM"), 1u);
}

TEST_F(ZeldTest, WithoutADaemonStopSucceedsReloadFailsStatusSaysThree) {
  EXPECT_EQ(Init("io_stop").exitCode, 0);
  const ProcessResult reload = Init("reload");
  EXPECT_EQ(reload.exitCode, 1);
  EXPECT_EQ(reload.err, "zeld is not running\n");
  EXPECT_EQ(Init("status").exitCode, 3);
}

TEST_F(ZeldTest, SecondDaemonOfTheHomeRefusesToStart) {
  ASSERT_EQ(Init("restart").exitCode, 0);
  const pid_t pid = Pid();
  const ProcessResult second = RunProgram({ZELD_PATH, "--home", home_.Path()});
  EXPECT_EQ(second.exitCode, 1);
  EXPECT_EQ(second.err, "zeld: already running (pid " + std::to_string(pid) + ")\n");
  EXPECT_TRUE(Running(pid));
  EXPECT_EQ(Pid(), pid);
}

TEST_F(ZeldTest, RestartFailsWhenTheDaemonCannotStart) {
  // A home that is a file: the daemon cannot read its host configuration.
  TempHome other;
  const std::string notADirectory = other.Path() + "/file";
  WriteFile(notADirectory, "");
  const ProcessResult started = RunProgram({"/usr/bin/env", "ZEL_HOME=" + notADirectory,
                                            ZELD_INIT_PATH, "++group=host/kap/tmp", "restart"});
  EXPECT_EQ(started.exitCode, 1);
  EXPECT_THAT(started.err, HasSubstr("zeld: Home " + notADirectory + " is not a directory"));
  EXPECT_THAT(started.err, HasSubstr("zeld could not start"));
}

TEST_F(ZeldTest, MissingFileServesNothingUntilAReloadFindsIt) {
  home_.RemoveNamespaceLink();
  ASSERT_EQ(Init("restart").exitCode, 0);
  EXPECT_THAT(Log(), HasSubstr("zel.conf not found; serving nothing"));
  EXPECT_EQ(Init("status").exitCode, 0);

  std::filesystem::create_directory_symlink(kNamespaceUuid,
                                            home_.Path() + "/datastore/.iSCSI-CONFIG");
  ASSERT_EQ(Init("reload").exitCode, 0);
  EXPECT_EQ(Count(Log(), kFinanceLine), 1u);
}

TEST_F(ZeldTest, NeverLogsACredential) {
  ASSERT_EQ(Init("restart").exitCode, 0);
  ASSERT_EQ(Init("reload").exitCode, 0);
  // A file the reader rejects: the reader would show it whole, and the
  // daemon must not pass that on.
  home_.WriteConf(std::string(kStandardConf) + "target {\n");
  ASSERT_EQ(Init("reload").exitCode, 0);

  const std::string log = Log();
  EXPECT_EQ(Count(log, kFinanceLine), 2u);
  EXPECT_THAT(log, HasSubstr("zeld: Failed to read "));
  for (const std::string& secret : kSecrets) EXPECT_THAT(log, Not(HasSubstr(secret)));
}

TEST(ZeldInitUsageTest, WrongCommandOrGroupArgumentExitsTwo) {
  const std::vector<std::vector<std::string>> wrong = {
      {},
      {"restart"},
      {"++group=host/kap/tmp"},
      {"++group=host/kap/tmp", "start"},
      {"--group=host/kap/tmp", "restart"},
      {"++group=", "restart"},
      {"++group=host/kap/tmp", "restart", "now"},
  };
  for (const std::vector<std::string>& args : wrong) {
    std::vector<std::string> argv = {ZELD_INIT_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    const ProcessResult result = RunProgram(argv);
    EXPECT_EQ(result.exitCode, 2) << ::testing::PrintToString(args);
    EXPECT_THAT(result.err, HasSubstr("usage: ")) << ::testing::PrintToString(args);
  }
}

}  // namespace
}  // namespace test
}  // namespace zel
