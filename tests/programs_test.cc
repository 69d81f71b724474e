// The programs as a host runs them, real processes in a temporary home: the plug-in client
// (dlopen), zeld through its init script, zelctl driving the service and the agent orvamgmtd.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/local/AtomicFile.h"
#include "platform/local/LocalClusterFacts.h"
#include "platform/local/SqliteDirectory.h"
#include "support/Process.h"
#include "support/ServiceHome.h"

namespace zel::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// The pid in the home's run/NAME.pid, or 0.
pid_t PidIn(const std::string& home, const std::string& name) {
  pid_t pid = 0;
  std::ifstream(home + "/run/" + name + ".pid") >> pid;
  return pid;
}

// An exited process not yet reaped by whoever adopted it is not running.
bool Running(pid_t pid) {
  if (pid <= 0 || ::kill(pid, 0) != 0) return false;
  const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const std::string::size_type end = stat.rfind(") ");
  return end != std::string::npos && stat[end + 2] != 'Z';
}

size_t Count(const std::string& text, const std::string& fragment) {
  size_t count = 0;
  for (auto at = text.find(fragment); at != std::string::npos; at = text.find(fragment, at + 1)) ++count;
  return count;
}

// A program knowing only the public headers loads the library, calls the service, catches its
// exception by the public type and unloads it.
TEST(PluginDlopenTest, ClientListsTargetsWithOwnersAndGetsTheServicesMessageAsItsException) {
  ServiceHome home;
  const ProcessResult run =
      RunProgram({"/usr/bin/env", "ZEL_HOME=" + home.Path(), ZEL_PLUGIN_CLIENT_PATH,
                  ZEL_LIBRARY_PATH, "targets", "target", "lab", "target", "nosuch"});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_EQ(run.out, "finance iqn.2026-11.local.zel:finance " + home.HostUuid() + "\n" +
                         "lab iqn.2026-11.local.zel:lab " + kPeerHostUuid + "\n" +
                         "lab iqn.2026-11.local.zel:lab " + kPeerHostUuid + "\n");
  EXPECT_THAT("\n" + run.err, ::testing::EndsWith("\nTarget nosuch not found\n"));
}

// Why a target of the standard preparation is not served: its interface
// has no address published by this host (the standard home publishes none).
std::string NotServed(const std::string& alias, const std::string& host, const std::string& nic) {
  return "target " + alias + " (iqn.2026-11.local.zel:" + alias + "): host " + host +
         " has published no address for interface " + nic;
}

// Every credential of the standard preparation, as given and as kept.
const std::vector<std::string> kSecrets = {
    kDefaultSecret, "RGVmYXVsdCNTZWNyZXQx", kDefaultMutualSecret, "TXV0dWFsI1NlY3JldDIy", kFinanceSecret,
    "RmluYW5jZSNTZWNyZXQx", "Lab#Outgoing1", "TGFiI091dGdvaW5nMQ==", "Lab#Incoming2", "TGFiI0luY29taW5nMg=="};

// The standard home, with the daemon stopped again whatever the test did.
class ZeldTest : public ::testing::Test {
 protected:
  ~ZeldTest() override { Init("io_stop"); }
  ProcessResult Init(const std::string& command) {
    return RunProgram({"/usr/bin/env", "ZEL_HOME=" + home_.Path(), ZELD_INIT_PATH,
                       "++group=host/kap/tmp", command});
  }
  std::string Log() const { return ReadFile(home_.Path() + "/log/zeld.log"); }
  // What the daemon's last pass said.
  nlohmann::json Status() const {
    return nlohmann::json::parse(ReadFile(home_.Path() + "/run/zeld-status.json"));
  }
  ServiceHome home_;
};

// Without a daemon stop succeeds, reload fails, status says 3; a daemon without zel.conf serves
// nothing until a reload finds it; a reload applies the file before it returns and keeps the
// daemon; a second daemon refuses; restart replaces it; a rejected file is not echoed; no
// secret is logged.
TEST_F(ZeldTest, InitScriptDrivesOneDaemonThroughItsLife) {
  EXPECT_EQ(Init("io_stop").exitCode, 0);
  const ProcessResult reloadNothing = Init("reload");
  EXPECT_EQ(std::make_pair(reloadNothing.exitCode, reloadNothing.err),
            std::make_pair(1, std::string("zeld is not running\n")));
  ProcessResult status = Init("status");
  EXPECT_EQ(std::make_pair(status.exitCode, status.out),
            std::make_pair(3, std::string("zeld is not running\n")));
  home_.RemoveNamespaceLink();
  ASSERT_EQ(Init("restart").exitCode, 0);
  const pid_t pid = PidIn(home_.Path(), "zeld");
  EXPECT_TRUE(Running(pid));
  EXPECT_EQ(Status()["lastReconcile"]["generation"], 0);
  EXPECT_TRUE(Status()["problems"].empty());
  status = Init("status");
  EXPECT_EQ(std::make_pair(status.exitCode, status.out),
            std::make_pair(0, "zeld is running (pid " + std::to_string(pid) + ")\n"));
  std::filesystem::create_directory_symlink(kNamespaceUuid,
                                            home_.Path() + "/datastore/.iSCSI-CONFIG");
  ASSERT_EQ(Init("reload").exitCode, 0);
  EXPECT_EQ(Status()["lastReconcile"]["generation"], 7);
  EXPECT_EQ(Status()["problems"],
            nlohmann::json::array({NotServed("finance", home_.HostUuid(), "nok0"),
                                   NotServed("lab", home_.HostUuid(), "nok0")}));
  std::string changed = kStandardConf;
  changed.replace(changed.find("generation 7"), 12, "generation 8");
  changed.replace(changed.find("listen nok0:3260"), 16, "listen nok1:3261");
  home_.WriteConf(changed);
  ASSERT_EQ(Init("reload").exitCode, 0);
  EXPECT_EQ(Count(Log(), "zeld: Reloading on SIGHUP"), 2u);
  EXPECT_EQ(Status()["lastReconcile"]["generation"], 8);
  EXPECT_EQ(Status()["problems"][1], NotServed("lab", home_.HostUuid(), "nok1"));
  EXPECT_EQ(PidIn(home_.Path(), "zeld"), pid) << "a reload keeps the daemon";
  const ProcessResult second = RunProgram({ZELD_PATH, "--home", home_.Path()});
  EXPECT_EQ(std::make_pair(second.exitCode, second.err),
            std::make_pair(1, "zeld: already running (pid " + std::to_string(pid) + ")\n"));
  EXPECT_TRUE(Running(pid));
  home_.WriteConf(kStandardConf);
  ASSERT_EQ(Init("restart").exitCode, 0);
  const pid_t replaced = PidIn(home_.Path(), "zeld");
  EXPECT_FALSE(Running(pid));
  EXPECT_TRUE(Running(replaced));
  EXPECT_EQ(Count(Log(), "zeld: Stopping on SIGTERM"), 1u);
  EXPECT_EQ(Status()["lastReconcile"]["generation"], 7) << "a start applies the file";
  // The reader would show a rejected file whole; the daemon must not pass that on.
  home_.WriteConf(std::string(kStandardConf) + "target {\n");
  ASSERT_EQ(Init("reload").exitCode, 0);
  EXPECT_THAT(Log(), HasSubstr("zeld: Reconcile failed: "));
  EXPECT_THAT(Status()["lastReconcile"]["result"].get<std::string>(), StartsWith("failed: "));
  EXPECT_EQ(Init("io_stop").exitCode, 0);
  EXPECT_FALSE(std::filesystem::exists(home_.Path() + "/run/zeld.pid"));
  EXPECT_FALSE(Running(replaced));
  EXPECT_EQ(Init("status").exitCode, 3);
  for (const std::string& secret : kSecrets) EXPECT_THAT(Log(), Not(HasSubstr(secret)));
}

// Wrong commands or group arguments exit 2; a daemon that cannot start fails the restart.
TEST(ZeldInitRefusalTest, UsageErrorsExitTwoAndADaemonThatCannotStartFailsTheRestart) {
  const std::vector<std::vector<std::string>> wrong = {
      {}, {"restart"}, {"++group=host/kap/tmp"}, {"++group=host/kap/tmp", "start"},
      {"--group=host/kap/tmp", "restart"}, {"++group=", "restart"},
      {"++group=host/kap/tmp", "restart", "now"}};
  for (std::vector<std::string> args : wrong) {
    args.insert(args.begin(), ZELD_INIT_PATH);
    const ProcessResult result = RunProgram(args);
    EXPECT_EQ(result.exitCode, 2) << ::testing::PrintToString(args);
    EXPECT_THAT(result.err, HasSubstr("usage: ")) << ::testing::PrintToString(args);
  }
  TempHome other;
  const std::string notADirectory = other.Path() + "/file";
  WriteFile(notADirectory, "");
  const ProcessResult started = RunProgram({"/usr/bin/env", "ZEL_HOME=" + notADirectory,
                                            ZELD_INIT_PATH, "++group=host/kap/tmp", "restart"});
  EXPECT_EQ(started.exitCode, 1);
  EXPECT_THAT(started.err, HasSubstr("zeld: Home " + notADirectory + " is not a directory"));
  EXPECT_THAT(started.err, HasSubstr("zeld could not start"));
}

// A fresh home, driven by the real zelctl; whatever was started is stopped.
class ServiceIntegrationTest : public ::testing::Test {
 protected:
  void TearDown() override {
    Zelctl({"service", "disable"});
    const pid_t agent = PidIn(home_.Path(), "orvamgmtd");
    if (Running(agent)) ::kill(agent, SIGTERM);
    for (int i = 0; i < 200 && Running(agent); ++i) ::usleep(50000);
  }
  ProcessResult Zelctl(std::vector<std::string> args, const std::string& home = "") {
    args.insert(args.begin(), {ZELCTL_PATH, "--home", home.empty() ? home_.Path() : home});
    return RunProgram(args);
  }
  nlohmann::json Status(const std::string& home = "") {
    const ProcessResult status = Zelctl({"--json", "service", "status"}, home);
    EXPECT_EQ(status.exitCode, 0) << status.err;
    return status.exitCode == 0 ? nlohmann::json::parse(status.out) : nlohmann::json();
  }
  TempHome home_;
};

// Enable starts a real daemon; restores at once all succeed (the init script serialises the
// starts); only this home's zeld counts as its daemon; the agent restores the daemon after a
// host restart killed both; disable stops it.
TEST_F(ServiceIntegrationTest, EnableStartsADaemonRestoresAndTheAgentRestartItAndDisableStops) {
  ASSERT_EQ(Zelctl({"namespace", "create"}).exitCode, 0);
  const ProcessResult enable = Zelctl({"service", "enable"});
  ASSERT_EQ(enable.exitCode, 0) << enable.err;
  ASSERT_TRUE(Running(PidIn(home_.Path(), "zeld")));
  const nlohmann::json enabled = Status();
  EXPECT_EQ(std::make_pair(enabled["enabled"], enabled["daemonRunning"]), std::make_pair(true, true));
  EXPECT_TRUE(enabled["publishedInterfaces"].is_array());
  std::vector<std::unique_ptr<ChildProcess>> restorers;
  for (int i = 0; i < 6; ++i) {
    restorers.push_back(std::make_unique<ChildProcess>([this](ChildControl& control) {
      control.Ready();
      control.AwaitRelease();
      const ProcessResult restored = Zelctl({"service", "restore"});
      return restored.out == "Restored the service on this host\n" && restored.err.empty() ? 0 : 1;
    }));
  }
  for (auto& restorer : restorers) ASSERT_TRUE(restorer->AwaitReady());
  for (auto& restorer : restorers) restorer->Release();
  for (auto& restorer : restorers) EXPECT_EQ(restorer->Join(), 0);
  const pid_t first = PidIn(home_.Path(), "zeld");
  ASSERT_TRUE(Running(first));
  TempHome other;  // its pid file names this home's zeld, then a process that is no zeld
  std::filesystem::create_directories(other.Path() + "/run");
  for (const pid_t pid : {first, ::getpid()}) {
    WriteFile(other.Path() + "/run/zeld.pid", std::to_string(pid) + "\n");
    EXPECT_EQ(Status(other.Path())["daemonRunning"], false) << pid;
  }
  // A host restart, as far as the service can tell: both processes die without a word.
  ASSERT_EQ(RunProgram({ORVAMGMTD_PATH, "--home", home_.Path()}).exitCode, 0);
  const pid_t agent = PidIn(home_.Path(), "orvamgmtd");
  ASSERT_TRUE(Running(agent));
  ::kill(agent, SIGKILL);
  ::kill(first, SIGKILL);
  // Reaped, not only dead: until then its pid still looks taken to the next agent.
  for (int i = 0; i < 200 && (Running(first) || ::kill(agent, 0) == 0); ++i) ::usleep(50000);
  ASSERT_FALSE(Running(first));
  const ProcessResult again = RunProgram({ORVAMGMTD_PATH, "--home", home_.Path()});
  ASSERT_EQ(again.exitCode, 0) << again.err;
  EXPECT_EQ(again.err, "") << "a detached agent writes to its log file only";
  const pid_t restored = PidIn(home_.Path(), "zeld");
  EXPECT_TRUE(Running(restored));
  EXPECT_NE(restored, first);
  EXPECT_EQ(Status()["daemonRunning"], true);
  ASSERT_EQ(Zelctl({"service", "disable"}).exitCode, 0);
  EXPECT_FALSE(Running(restored));
  const nlohmann::json disabled = Status();
  EXPECT_EQ(std::make_pair(disabled["enabled"], disabled["daemonRunning"]),
            std::make_pair(false, false));
}

// orvamgmtd in the foreground with its standard error on a pipe.
class AgentProcess {
 public:
  explicit AgentProcess(const std::vector<std::string>& argv) {
    int err[2];
    if (::pipe2(err, O_CLOEXEC) != 0 || (pid_ = ::fork()) < 0) throw std::runtime_error("no agent");
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
    if (pid_ > 0 && ::kill(pid_, SIGKILL) == 0) ::waitpid(pid_, nullptr, 0);
    std::fclose(err_);
  }
  pid_t Pid() const { return pid_; }
  void Signal(int signal) { ::kill(pid_, signal); }
  // The first line from now on holding `fragment` (empty: none, read to the end).
  std::string AwaitLine(const std::string& fragment) {
    char* text = nullptr;
    size_t capacity = 0;
    ssize_t length;
    std::string found;
    while (found.empty() && (length = ::getline(&text, &capacity, err_)) > 0) {
      lines_.emplace_back(text, static_cast<size_t>(length - (text[length - 1] == '\n')));
      if (!fragment.empty() && lines_.back().find(fragment) != std::string::npos) found = lines_.back();
    }
    std::free(text);
    if (found.empty() && !fragment.empty()) ADD_FAILURE() << "the agent never wrote " << fragment;
    return found;
  }
  // Reads the rest of the agent's lines; its exit code (-1 for a signal).
  int Wait() {
    AwaitLine("");
    int status = 0;
    ::waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  const std::vector<std::string>& Lines() const { return lines_; }  // read so far

 private:
  pid_t pid_ = -1;
  FILE* err_ = nullptr;
  std::vector<std::string> lines_;
};

const char kReady[] = "orvamgmtd: Ready";

// The standard home, enabled with a daemon that cannot start: the restore fails.
class OrvamgmtdTest : public ::testing::Test {
 protected:
  OrvamgmtdTest() {
    nlohmann::json config;
    platform::ReadJsonFile(home_.Path() + "/host.json", "Host configuration", &config);
    config["commands"]["/etc/init.d/zeld"] = "/bin/false";
    platform::WriteJsonFileAtomically(home_.Path() + "/host.json", config, 0644);
  }
  std::vector<std::string> Foreground() const {
    return {ORVAMGMTD_PATH, "--home", home_.Path(), "--foreground"};
  }
  std::string LogPath() const { return home_.Path() + "/log/orvamgmtd.log"; }
  std::string PidPath() const { return home_.Path() + "/run/orvamgmtd.pid"; }
  void RemoveMember(const std::string& hostUuid) {
    ASSERT_EQ(platform::NewSqliteDirectory(platform::LoadHostConfig(home_.Path()).directoryPath)
                  ->Delete(platform::kClusterMemberEntryType, platform::kClusterMembersKey, hostUuid),
              NOK_OK);
  }
  ServiceHome home_;
};

// The start restores before "Ready" and a failed restore leaves the agent serving; a second
// agent refuses; each SIGHUP fires the refresh event, this host's removal (not a peer's) the
// cluster leave event once, a link change the network event; SIGTERM stops it cleanly; the log
// file has every line.
TEST_F(OrvamgmtdTest, AgentRestoresServesItsSignalsMembershipAndLinksAndStopsCleanly) {
  // In its own network namespace when it can, to change a link without touching the host's.
  const char* const unshare = "/usr/bin/unshare";
  const char* const nsenter = "/usr/bin/nsenter";
  const std::string ip = std::filesystem::exists("/usr/sbin/ip") ? "/usr/sbin/ip" : "/sbin/ip";
  const bool ownNetwork = std::filesystem::exists(unshare) && std::filesystem::exists(nsenter) &&
                          std::filesystem::exists(ip) &&
                          RunProgram({unshare, "-Urn", "/bin/true"}).exitCode == 0;
  std::vector<std::string> argv = Foreground();
  if (ownNetwork) argv.insert(argv.begin(), {unshare, "-Urn", "--"});
  AgentProcess agent(argv);
  agent.AwaitLine(kReady);
  std::vector<std::string> own;
  for (const std::string& line : agent.Lines()) {
    if (line.rfind("orvamgmtd: ", 0) == 0) own.push_back(line);
  }
  EXPECT_THAT(own, ElementsAre("orvamgmtd: Starting (pid " + std::to_string(agent.Pid()) + ", home " +
                                   home_.Path() + ", library " + ZEL_LIBRARY_PATH + ")",
                               "orvamgmtd: Restoring the iSCSI target service",
                               ::testing::StartsWith("orvamgmtd: Restore failed: "),
                               kReady));
  EXPECT_EQ(ReadFile(PidPath()), std::to_string(agent.Pid()) + "\n");
  const ProcessResult second = RunProgram(Foreground());
  EXPECT_EQ(std::make_pair(second.exitCode, second.err),
            std::make_pair(1, "orvamgmtd: already running (pid " + std::to_string(agent.Pid()) +
                                  ")\n"));
  for (int i = 0; i < 2; ++i) {
    agent.Signal(SIGHUP);
    agent.AwaitLine("orvamgmtd: SIGHUP received: firing the system refresh event");
  }
  RemoveMember(kPeerHostUuid);
  RemoveMember(platform::LoadHostConfig(home_.Path()).hostUuid);
  agent.AwaitLine("orvamgmtd: This host left the cluster membership: firing the cluster leave event");
  if (ownNetwork) {
    const ProcessResult up = RunProgram({nsenter, "-t", std::to_string(agent.Pid()), "-U", "-n",
                                         "--preserve-credentials", ip, "link", "set", "lo", "up"});
    ASSERT_EQ(up.exitCode, 0) << up.err;
    EXPECT_THAT(agent.AwaitLine("orvamgmtd: Network change ("),
                ::testing::MatchesRegex("orvamgmtd: Network change \\([0-9]+ notifications\\): firing the "
                             "network change event"));
  } else {
    std::cout << "[  SKIPPED ] the link change needs unprivileged network namespaces\n";
  }
  agent.Signal(SIGTERM);
  EXPECT_EQ(agent.Wait(), 0);
  EXPECT_THAT(agent.Lines(), Contains(HasSubstr("firing the cluster leave event")).Times(1));
  EXPECT_THAT(agent.Lines(), Contains("orvamgmtd: SIGTERM received: stopping"));
  EXPECT_EQ(agent.Lines().back(), "orvamgmtd: Stopped");
  EXPECT_FALSE(std::filesystem::exists(PidPath()));
  // The file has the same lines time-stamped, and what the library wrote while unloaded.
  const std::string log = ReadFile(LogPath());
  EXPECT_TRUE(std::regex_search(log, std::regex(R"(\n\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )"
                                                R"(orvamgmtd: SIGTERM received: stopping\n)"))) << log;
  const auto stopping = log.find("orvamgmtd: SIGTERM received: stopping");
  EXPECT_NE(log.find("orvamgmtd: Stopped", stopping), std::string::npos);
  EXPECT_NE(log.find("OrvaIscsiTargetImpl: Calling ZelNokCtlFini()", stopping), std::string::npos);
}

// A host whose agent dies leaves the membership within its lease: the agent binds the member
// entry to a lease it renews, and nothing renews it after a kill -9.
TEST_F(OrvamgmtdTest, KilledAgentsHostLeavesTheMembershipWhenItsLeaseRunsOut) {
  home_.SetHostSetting("directory", {{"leaseSeconds", 2}});
  const platform::HostConfig config = platform::LoadHostConfig(home_.Path());
  std::unique_ptr<platform::Directory> directory = platform::NewSqliteDirectory(config.directoryPath);
  platform::LocalClusterFacts facts(config, *directory);
  const auto member = [&]() -> std::optional<platform::ClusterMember> {
    platform::ClusterInfo info;
    EXPECT_EQ(facts.GetClusterInfo(&info), NOK_OK);
    for (const platform::ClusterMember& m : info.members) {
      if (m.hostUuid == config.hostUuid) return m;
    }
    return std::nullopt;
  };
  AgentProcess agent(Foreground());
  agent.AwaitLine("MembershipLease: This host's membership is held under a lease of 2 s");
  ASSERT_TRUE(member() && member()->alive);
  agent.Signal(SIGKILL);
  agent.Wait();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (member() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_FALSE(member());
}

// host.json's declared interfaces reach the running agent: an edit that changes them is one
// network change, after which the library publishes the new ones; an edit that leaves them, or a
// file that does not parse, is none. `host maintenance enter` sets the flag; the agent sees it and
// hands this host's target to the peer, and zelctl reports where it went.
TEST_F(OrvamgmtdTest, DeclaredInterfaceEditsAndMaintenanceReachTheRunningAgent) {
  const std::string path = home_.Path() + "/host.json";
  const auto edit = [&path](const std::function<void(nlohmann::json&)>& change) {
    nlohmann::json config;
    platform::ReadJsonFile(path, "Host configuration", &config);
    change(config);
    platform::WriteJsonFileAtomically(path, config, 0644);
  };
  edit([](nlohmann::json& config) { config["nics"] = {{"zel0", {{"ipv4", "127.0.0.2"}}}}; });
  std::vector<std::string> argv = Foreground();  // no link change of the machine reaches it
  if (RunProgram({"/usr/bin/unshare", "-Urn", "/bin/true"}).exitCode == 0) {
    argv.insert(argv.begin(), {"/usr/bin/unshare", "-Urn", "--"});
  }
  AgentProcess agent(argv);
  agent.AwaitLine(kReady);
  edit([](nlohmann::json& config) { config["controlTickSeconds"] = 5; });
  agent.AwaitLine("orvamgmtd: host.json changed, its declared interfaces did not");
  edit([](nlohmann::json& config) {
    config["nics"]["zel0"]["state"] = "down";
    config["nics"]["zel1"] = {{"ipv4", "127.0.0.3"}};
  });
  agent.AwaitLine("orvamgmtd: host.json declares other interfaces");
  agent.AwaitLine("orvamgmtd: Network change (");
  agent.AwaitLine("Util: Successfully updated BRIX interface entry for nok nic zel1");
  const std::string good = ReadFile(path);
  WriteFile(path, "{");
  agent.AwaitLine("orvamgmtd: host.json could not be read: the declared interfaces stay");
  WriteFile(path, good);
  agent.AwaitLine("orvamgmtd: host.json changed, its declared interfaces did not");

  const ProcessResult entered =
      RunProgram({ZELCTL_PATH, "--home", home_.Path(), "host", "maintenance", "enter"});
  EXPECT_EQ(std::make_pair(entered.exitCode, entered.out),
            std::make_pair(0, std::string("This host is in maintenance\nMoved target finance to peer-host\n")))
      << entered.err;
  agent.AwaitLine("orvamgmtd: This host entered maintenance (2 members): firing the maintenance");
  agent.Signal(SIGTERM);
  EXPECT_EQ(agent.Wait(), 0);
  EXPECT_THAT(agent.Lines(), Contains(HasSubstr("orvamgmtd: Network change (")).Times(1));
}

}  // namespace
}  // namespace zel::test
