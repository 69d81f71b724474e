// The service on a fresh home as an operator drives it: real zelctl, real
// zeld, real orvamgmtd, each a separate process.
#include <signal.h>
#include <sys/wait.h>

#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/Process.h"
#include "support/TestHost.h"

namespace {

using zel::test::ProcessResult;
using zel::test::RunProgram;

class ServiceIntegrationTest : public ::testing::Test {
 protected:
  void TearDown() override {
    Zelctl({"service", "disable"});
    StopAgent();
  }

  ProcessResult Zelctl(std::vector<std::string> args) {
    args.insert(args.begin(), {ZELCTL_PATH, "--home", home_.Path()});
    return RunProgram(args);
  }

  nlohmann::json Status() {
    const ProcessResult status = Zelctl({"--json", "service", "status"});
    EXPECT_EQ(status.exitCode, 0) << status.err;
    return nlohmann::json::parse(status.out);
  }

  long PidIn(const std::string& file) {
    std::ifstream in(home_.Path() + "/run/" + file);
    long pid = 0;
    in >> pid;
    return pid;
  }

  // Alive and not a zombie: a detached daemon's parent here may never reap
  // it.
  bool Alive(long pid) {
    if (pid <= 0 || kill(static_cast<pid_t>(pid), 0) != 0) return false;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string field, state;
    stat >> field >> field >> state;
    return state != "Z";
  }

  void StopAgent() {
    const long agent = PidIn("orvamgmtd.pid");
    if (!Alive(agent)) return;
    kill(static_cast<pid_t>(agent), SIGTERM);
    for (int i = 0; i < 200 && Alive(agent); ++i) usleep(50000);
  }

  zel::test::TempHome home_;
};

TEST_F(ServiceIntegrationTest, EnableStartsARealDaemonAndDisableStopsIt) {
  ASSERT_EQ(Zelctl({"namespace", "create"}).exitCode, 0);
  const ProcessResult enable = Zelctl({"service", "enable"});
  ASSERT_EQ(enable.exitCode, 0) << enable.err;

  const long zeld = PidIn("zeld.pid");
  EXPECT_TRUE(Alive(zeld));
  const nlohmann::json enabled = Status();
  EXPECT_EQ(enabled["enabled"], true);
  EXPECT_EQ(enabled["daemonRunning"], true);
  EXPECT_TRUE(enabled["publishedInterfaces"].is_array());

  EXPECT_EQ(Zelctl({"service", "enable", "--fail-if-same"}).err,
            "Orva iSCSI Target service is already enabled on this host\n");

  ASSERT_EQ(Zelctl({"service", "disable"}).exitCode, 0);
  EXPECT_FALSE(Alive(zeld));
  const nlohmann::json disabled = Status();
  EXPECT_EQ(disabled["enabled"], false);
  EXPECT_EQ(disabled["daemonRunning"], false);
}

TEST_F(ServiceIntegrationTest, EnableWithoutNamespaceChangesNothing) {
  const ProcessResult enable = Zelctl({"service", "enable"});
  EXPECT_EQ(enable.exitCode, 1);
  EXPECT_EQ(enable.err,
            "Orva iSCSI namespace does not exist. Please create namespace if not already "
            "created.\n");
  EXPECT_EQ(Status()["enabled"], false);
  EXPECT_EQ(PidIn("zeld.pid"), 0);
}

TEST_F(ServiceIntegrationTest, AgentRestoresAnEnabledServiceAfterBothWereKilled) {
  ASSERT_EQ(Zelctl({"namespace", "create"}).exitCode, 0);
  ASSERT_EQ(Zelctl({"service", "enable"}).exitCode, 0);
  ASSERT_EQ(RunProgram({ORVAMGMTD_PATH, "--home", home_.Path()}).exitCode, 0);

  // A host restart, as far as the service can tell: both processes die
  // without a word.
  const long zeld = PidIn("zeld.pid");
  kill(static_cast<pid_t>(PidIn("orvamgmtd.pid")), SIGKILL);
  kill(static_cast<pid_t>(zeld), SIGKILL);
  for (int i = 0; i < 200 && Alive(zeld); ++i) usleep(50000);
  ASSERT_FALSE(Alive(zeld));

  ASSERT_EQ(RunProgram({ORVAMGMTD_PATH, "--home", home_.Path()}).exitCode, 0);
  EXPECT_TRUE(Alive(PidIn("zeld.pid")));
  EXPECT_NE(PidIn("zeld.pid"), zeld);
  EXPECT_EQ(Status()["daemonRunning"], true);
}

}  // namespace
