// The host agent as a host runs it: a real orvamgmtd process in a temporary
// home that loads the library with dlopen, restores the service, turns
// SIGHUP, this host leaving the cluster and network changes into the
// library's events, and stops cleanly on SIGTERM. The tests follow the
// agent's standard error line by line, so every wait is for a line the
// agent writes, never for a time.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/local/AtomicFile.h"
#include "platform/local/LocalClusterFacts.h"
#include "platform/local/SqliteDirectory.h"
#include "support/Process.h"
#include "support/ServiceHome.h"

namespace zel {
namespace test {
namespace {

using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::StartsWith;

const char kReady[] = "orvamgmtd: Ready";

// orvamgmtd in the foreground with its standard error on a pipe.
class AgentProcess {
 public:
  explicit AgentProcess(const std::vector<std::string>& argv) {
    int err[2];
    if (::pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
      const int null = ::open("/dev/null", O_RDWR);
      ::dup2(null, STDIN_FILENO);
      ::dup2(null, STDOUT_FILENO);
      ::dup2(err[1], STDERR_FILENO);
      std::vector<char*> args;
      for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
      args.push_back(nullptr);
      ::execv(args[0], args.data());
      ::_exit(127);
    }
    ::close(err[1]);
    err_ = ::fdopen(err[0], "r");
  }

  ~AgentProcess() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    if (err_ != nullptr) std::fclose(err_);
  }

  pid_t Pid() const { return pid_; }
  void Signal(int signal) { ::kill(pid_, signal); }

  // The first line from now on that contains `fragment`; empty when the
  // agent closed its standard error first.
  std::string AwaitLine(const std::string& fragment) {
    std::string line;
    while (ReadLine(&line)) {
      if (line.find(fragment) != std::string::npos) return line;
    }
    ADD_FAILURE() << "the agent ended without writing \"" << fragment << "\"";
    return "";
  }

  // Reads the rest of the agent's lines and returns its exit code (-1 when
  // a signal ended it).
  int Wait() {
    std::string line;
    while (ReadLine(&line)) {
    }
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  // Every line read so far.
  const std::vector<std::string>& Lines() const { return lines_; }

 private:
  bool ReadLine(std::string* line) {
    char* text = nullptr;
    size_t capacity = 0;
    const ssize_t length = ::getline(&text, &capacity, err_);
    if (length > 0) {
      line->assign(text, static_cast<size_t>(text[length - 1] == '\n' ? length - 1 : length));
      lines_.push_back(*line);
    }
    std::free(text);
    return length > 0;
  }

  pid_t pid_ = -1;
  FILE* err_ = nullptr;
  std::vector<std::string> lines_;
};

size_t CountContaining(const std::vector<std::string>& lines, const std::string& fragment) {
  size_t count = 0;
  for (const std::string& line : lines) count += line.find(fragment) != std::string::npos;
  return count;
}

// The standard home with the service disabled, so that a restore and the
// library's event handlers change nothing on the host.
class OrvamgmtdTest : public ::testing::Test {
 protected:
  OrvamgmtdTest() { home_.SetServiceEnabled(false); }

  std::vector<std::string> Foreground() const {
    return {ORVAMGMTD_PATH, "--home", home_.Path(), "--foreground"};
  }

  std::string Log() const { return ReadFile(home_.Path() + "/log/orvamgmtd.log"); }

  // The log as soon as it holds `fragment` (a detached agent's last line
  // may still be on its way when the starter returns); bounded.
  std::string LogOnceItHas(const std::string& fragment) const {
    for (int attempt = 0; attempt < 200; ++attempt) {
      const std::string log = Log();
      if (log.find(fragment) != std::string::npos) return log;
      ::usleep(50000);
    }
    return Log();
  }
  std::string PidPath() const { return home_.Path() + "/run/orvamgmtd.pid"; }

  // Edits host.json as an operator would.
  void EditHostConfig(const std::function<void(nlohmann::json&)>& edit) {
    const std::string path = home_.Path() + "/host.json";
    nlohmann::json document;
    platform::ReadJsonFile(path, "Host configuration", &document);
    edit(document);
    platform::WriteJsonFileAtomically(path, document, 0644);
  }

  void RemoveMember(const std::string& hostUuid) {
    const platform::HostConfig config = platform::LoadHostConfig(home_.Path());
    ASSERT_EQ(
        platform::NewSqliteDirectory(config.directoryPath)
            ->Delete(platform::kClusterMemberEntryType, platform::kClusterMembersKey, hostUuid),
        NOK_OK);
  }

  ServiceHome home_;
};

TEST_F(OrvamgmtdTest, StartRestoresTheServiceBeforeReportingReady) {
  AgentProcess agent(Foreground());
  agent.AwaitLine(kReady);
  std::vector<std::string> own;
  for (const std::string& line : agent.Lines()) {
    if (line.rfind("orvamgmtd: ", 0) == 0) own.push_back(line);
  }
  ASSERT_EQ(own.size(), 4u) << ::testing::PrintToString(own);
  EXPECT_EQ(own[0], "orvamgmtd: Starting (pid " + std::to_string(agent.Pid()) + ", home " +
                        home_.Path() + ", library " + ZEL_LIBRARY_PATH + ")");
  EXPECT_EQ(own[1], "orvamgmtd: Restoring the iSCSI target service");
  EXPECT_THAT(own[2], AnyOf("orvamgmtd: Restore done", StartsWith("orvamgmtd: Restore failed: ")));
  EXPECT_EQ(own[3], kReady);
  EXPECT_EQ(ReadFile(PidPath()), std::to_string(agent.Pid()) + "\n");
}

TEST_F(OrvamgmtdTest, SighupFiresTheSystemRefreshEvent) {
  AgentProcess agent(Foreground());
  agent.AwaitLine(kReady);
  agent.Signal(SIGHUP);
  agent.AwaitLine("orvamgmtd: SIGHUP received: firing the system refresh event");
  agent.Signal(SIGHUP);
  agent.AwaitLine("orvamgmtd: SIGHUP received: firing the system refresh event");
  agent.Signal(SIGTERM);
  EXPECT_EQ(agent.Wait(), 0);
}

TEST_F(OrvamgmtdTest, SigtermStopsCleanlyAndTheLogFileKeepsEveryLine) {
  AgentProcess agent(Foreground());
  agent.AwaitLine(kReady);
  agent.Signal(SIGTERM);
  EXPECT_EQ(agent.Wait(), 0);
  EXPECT_THAT(agent.Lines(), Contains("orvamgmtd: SIGTERM received: stopping"));
  EXPECT_EQ(agent.Lines().back(), "orvamgmtd: Stopped");
  EXPECT_FALSE(std::filesystem::exists(PidPath()));

  // The file has the same lines, time-stamped, and also what the library
  // wrote while it was unloaded at the very end.
  const std::string log = Log();
  const std::regex stamped(
      R"(\n\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z orvamgmtd: SIGTERM received: stopping\n)");
  EXPECT_TRUE(std::regex_search(log, stamped)) << log;
  const auto stopping = log.find("orvamgmtd: SIGTERM received: stopping");
  EXPECT_NE(log.find("orvamgmtd: Stopped", stopping), std::string::npos);
  EXPECT_NE(log.find("OrvaIscsiTargetImpl: Calling ZelNokCtlFini()", stopping), std::string::npos);
}

TEST_F(OrvamgmtdTest, RestoreFailureIsLoggedAndTheAgentKeepsServing) {
  // An enabled service whose daemon cannot start.
  home_.SetServiceEnabled(true);
  EditHostConfig(
      [](nlohmann::json& config) { config["commands"]["/etc/init.d/zeld"] = "/bin/false"; });
  AgentProcess agent(Foreground());
  EXPECT_THAT(agent.AwaitLine("orvamgmtd: Restore "), StartsWith("orvamgmtd: Restore failed: "));
  agent.AwaitLine(kReady);
  agent.Signal(SIGHUP);
  agent.AwaitLine("orvamgmtd: SIGHUP received");
  agent.Signal(SIGTERM);
  EXPECT_EQ(agent.Wait(), 0);
}

TEST_F(OrvamgmtdTest, RemovalOfThisHostFromTheMembershipFiresClusterLeaveOnce) {
  AgentProcess agent(Foreground());
  agent.AwaitLine(kReady);
  RemoveMember(kPeerHostUuid);
  RemoveMember(platform::LoadHostConfig(home_.Path()).hostUuid);
  agent.AwaitLine(
      "orvamgmtd: This host left the cluster membership: firing the cluster leave "
      "event");
  agent.Signal(SIGTERM);
  EXPECT_EQ(agent.Wait(), 0);
  EXPECT_EQ(CountContaining(agent.Lines(), "firing the cluster leave event"), 1u);
}

TEST_F(OrvamgmtdTest, SecondAgentOfTheHomeRefusesToStart) {
  AgentProcess agent(Foreground());
  agent.AwaitLine(kReady);
  const ProcessResult second = RunProgram(Foreground());
  EXPECT_EQ(second.exitCode, 1);
  EXPECT_EQ(second.err, "orvamgmtd: already running (pid " + std::to_string(agent.Pid()) + ")\n");
  agent.Signal(SIGTERM);
  EXPECT_EQ(agent.Wait(), 0);
}

TEST_F(OrvamgmtdTest, DetachedAgentReturnsOnceReadyAndStopsOnSigterm) {
  const ProcessResult started = RunProgram({ORVAMGMTD_PATH, "--home", home_.Path()});
  ASSERT_EQ(started.exitCode, 0) << started.err;
  EXPECT_EQ(started.err, "") << "a detached agent writes to its log file only";
  const pid_t pid = static_cast<pid_t>(std::stol(ReadFile(PidPath())));
  const std::string ready = std::string(" ") + kReady + "\n";
  EXPECT_THAT(LogOnceItHas(ready), HasSubstr(ready));

  // Not our child: its end is seen through a pidfd.
  const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  ASSERT_GE(pidfd, 0);
  ASSERT_EQ(::kill(pid, SIGTERM), 0);
  struct pollfd ended = {pidfd, POLLIN, 0};
  ASSERT_EQ(::poll(&ended, 1, -1), 1);
  ::close(pidfd);
  EXPECT_FALSE(std::filesystem::exists(PidPath()));
  EXPECT_THAT(LogOnceItHas("orvamgmtd: Stopped\n"), HasSubstr("orvamgmtd: Stopped\n"));
}

// In a network namespace of its own, so that the test can change a link
// without touching the host's network.
TEST_F(OrvamgmtdTest, LinkChangeFiresTheNetworkChangeEvent) {
  const char* const unshare = "/usr/bin/unshare";
  const char* const nsenter = "/usr/bin/nsenter";
  const std::string ip = std::filesystem::exists("/usr/sbin/ip") ? "/usr/sbin/ip" : "/sbin/ip";
  if (!std::filesystem::exists(unshare) || !std::filesystem::exists(nsenter) ||
      !std::filesystem::exists(ip) || RunProgram({unshare, "-Urn", "/bin/true"}).exitCode != 0) {
    GTEST_SKIP() << "needs unshare, nsenter, ip and unprivileged network namespaces";
  }
  std::vector<std::string> argv = {unshare, "-Urn", "--"};
  for (const std::string& arg : Foreground()) argv.push_back(arg);
  AgentProcess agent(argv);
  agent.AwaitLine(kReady);

  const ProcessResult up = RunProgram({nsenter, "-t", std::to_string(agent.Pid()), "-U", "-n",
                                       "--preserve-credentials", ip, "link", "set", "lo", "up"});
  ASSERT_EQ(up.exitCode, 0) << up.err;
  EXPECT_THAT(agent.AwaitLine("orvamgmtd: Network change ("),
              ::testing::MatchesRegex(
                  "orvamgmtd: Network change \\([0-9]+ notifications\\): firing the network "
                  "change event"));
  agent.Signal(SIGTERM);
  EXPECT_EQ(agent.Wait(), 0);
}

}  // namespace
}  // namespace test
}  // namespace zel
