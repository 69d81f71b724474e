// zeld's engine driver against a real tgtd on a free loopback port: what the
// control-socket client asks is what the engine's own admin tool then shows,
// refusals carry tgtd's code and the admin tool's text, secrets stay off
// every command line, and the child is seen dying and leaves nothing behind.
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>

#include "support/Process.h"
#include "zel/OrvaCtlException.h"
#include "zeld/engine/TgtProcess.h"
#include "zeld/engine/TgtShow.h"

namespace zeltools::engine {
namespace {

using zel::test::RunProgram;

const char kTgtd[] = "/usr/sbin/tgtd";
const char kAddress[] = "127.0.0.93";
const std::string kIqn = "iqn.2026-01.org.example:engine.";

bool Gone(const std::string& path) { return ::access(path.c_str(), F_OK) != 0; }

// A TCP port free on kAddress now (the kernel's choice, released at once).
int FreePort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  ::inet_pton(AF_INET, kAddress, &address.sin_addr);
  socklen_t size = sizeof address;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    ::close(fd);
    return -1;
  }
  ::close(fd);
  return ntohs(address.sin_port);
}

// Whether any process's command line holds `text`.
bool OnAnyCommandLine(const std::string& text) {
  std::unique_ptr<DIR, int (*)(DIR*)> proc(::opendir("/proc"), ::closedir);
  while (dirent* entry = ::readdir(proc.get())) {
    std::ifstream file(std::string("/proc/") + entry->d_name + "/cmdline");
    std::string line((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (line.find(text) != std::string::npos) return true;
  }
  return false;
}

class EngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "tgtd needs root";
    if (::access(kTgtd, X_OK) != 0) GTEST_SKIP() << "tgtd is not installed";
    char dir[] = "/tmp/zel-engine-XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    dir_ = dir;
    engine_ = NewEngine();
    engine_->Start();
  }
  void TearDown() override {
    engine_.reset();
    if (!dir_.empty()) RunProgram({"/bin/rm", "-rf", dir_});
  }
  std::unique_ptr<TgtProcess> NewEngine(int port = FreePort()) {
    TgtProcessOptions options;
    options.portal = std::string(kAddress) + ":" + std::to_string(port);
    options.logPath = dir_ + "/tgtd.log";
    options.firstControlPort = 7500 + ::getpid() % 400;
    return std::make_unique<TgtProcess>(options);
  }
  std::string Disk(const std::string& name) {
    std::string path = dir_ + "/" + name;
    RunProgram({"/usr/bin/truncate", "-s", "4M", path});
    return path;
  }
  zel::test::ProcessResult Tgtadm(std::vector<std::string> args) {
    args.insert(args.begin(), {"/usr/sbin/tgtadm", "-C", std::to_string(engine_->controlPort()),
                               "--lld", "iscsi"});
    return RunProgram(args);
  }

  std::string dir_;
  std::unique_ptr<TgtProcess> engine_;
};

TEST_F(EngineTest, RequestsShowInTheAdminToolsListAsParsed) {
  const TgtControl& tgt = engine_->control();
  std::string disk1 = Disk("d1"), disk2 = Disk("d2");
  for (TgtResult result :
       {tgt.NewTarget(1, kIqn + "one"), tgt.NewTarget(2, kIqn + "two"), tgt.NewLun(1, 1, disk1),
        tgt.NewLun(1, 2, disk2), tgt.SetLunOnline(1, 2, false),
        tgt.SetLunIdentity(1, 1, "ZELSN1", "ZELID1"), tgt.BindInitiatorName(1, kIqn + "initiator"),
        tgt.BindInitiatorAddress(2, "ALL"), tgt.NewAccount("in1", "secret-in-1"),
        tgt.NewAccount("out1", "secret-out-1"), tgt.BindAccount(1, "in1", TgtDirection::kIncoming),
        tgt.BindAccount(1, "out1", TgtDirection::kOutgoing),
        tgt.SetTargetState(2, TgtState::kOffline),
        tgt.SetRedirect(2, "127.0.0.94", "3260", "Temporary")}) {
    ASSERT_TRUE(result.ok()) << result.code << " " << result.message;
  }
  zel::test::ProcessResult shown = Tgtadm({"--mode", "target", "--op", "show"});
  ASSERT_EQ(shown.exitCode, 0) << shown.err;
  EXPECT_EQ(shown.out, tgt.ShowTargets().output);

  std::vector<TgtTargetView> targets = ParseTargetShow(shown.out);
  ASSERT_EQ(targets.size(), 2u);
  const TgtTargetView& one = targets[0];
  EXPECT_EQ(one.tid, 1);
  EXPECT_EQ(one.name, kIqn + "one");
  EXPECT_EQ(one.state, "ready");
  ASSERT_EQ(one.luns.size(), 3u);
  EXPECT_EQ(one.luns[0].type, "controller");
  EXPECT_EQ(one.luns[0].backingStore, "");
  const TgtLunView* lun1 = one.FindLun(1);
  const TgtLunView* lun2 = one.FindLun(2);
  ASSERT_TRUE(lun1 && lun2);
  EXPECT_EQ(lun1->backingStore, disk1);
  EXPECT_TRUE(lun1->online);
  EXPECT_EQ(lun1->scsiSerial, "ZELSN1");
  EXPECT_EQ(lun1->scsiId, "ZELID1");
  EXPECT_EQ(lun2->backingStore, disk2);
  EXPECT_FALSE(lun2->online);
  EXPECT_EQ(one.incomingUsers, std::vector<std::string>{"in1"});
  EXPECT_EQ(one.outgoingUser, "out1");
  EXPECT_EQ(one.acl, std::vector<std::string>{kIqn + "initiator"});
  EXPECT_EQ(targets[1].state, "offline");
  EXPECT_EQ(targets[1].acl, std::vector<std::string>{"ALL"});
  EXPECT_TRUE(targets[1].incomingUsers.empty() && targets[1].outgoingUser.empty());

  TgtTargetView two;
  ParseTargetParameters(Tgtadm({"--mode", "target", "--op", "show", "--tid", "2"}).out, &two);
  EXPECT_EQ(two.redirect.address, "127.0.0.94");
  EXPECT_EQ(two.redirect.port, "3260");
  EXPECT_EQ(two.redirect.reason, "Temporary");
  std::vector<TgtTargetView> served;
  ASSERT_TRUE(ReadServedTargets(tgt, &served).ok());
  ASSERT_EQ(served.size(), 2u);
  EXPECT_EQ(served[0].redirect.address, "");
  EXPECT_EQ(served[1].redirect.address, "127.0.0.94");

  // Undoing each request shows as undone.
  for (TgtResult result :
       {tgt.ClearRedirect(2), tgt.UnbindInitiatorName(1, kIqn + "initiator"),
        tgt.UnbindInitiatorAddress(2, "ALL"), tgt.UnbindAccount(1, "out1", TgtDirection::kOutgoing),
        tgt.DeleteLun(1, 2), tgt.SetLunOnline(1, 1, false), tgt.DeleteTarget(2, false)}) {
    ASSERT_TRUE(result.ok()) << result.code << " " << result.message;
  }
  ParseTargetParameters(tgt.ShowTarget(2).output, &two);
  EXPECT_EQ(two.redirect.address, "");
  targets = ParseTargetShow(Tgtadm({"--mode", "target", "--op", "show"}).out);
  ASSERT_EQ(targets.size(), 1u);
  EXPECT_EQ(targets[0].luns.size(), 2u);
  EXPECT_FALSE(targets[0].FindLun(1)->online);
  EXPECT_TRUE(targets[0].acl.empty());
  EXPECT_EQ(targets[0].outgoingUser, "");
  EXPECT_EQ(targets[0].incomingUsers, std::vector<std::string>{"in1"});
}

TEST_F(EngineTest, RefusalsCarryTgtdsCodeAndTheAdminToolsText) {
  const TgtControl& tgt = engine_->control();
  ASSERT_TRUE(tgt.NewTarget(1, kIqn + "one").ok());
  ASSERT_TRUE(tgt.NewAccount("user1", "secret-1").ok());
  ASSERT_TRUE(tgt.BindAccount(1, "user1", TgtDirection::kIncoming).ok());
  struct Case {
    const char* what;
    TgtResult result;
    int code;
    std::vector<std::string> sameByTgtadm;
  } cases[] = {
      {"second bind",
       tgt.BindAccount(1, "user1", TgtDirection::kIncoming),
       kTgtAccountExists,
       {"--mode", "account", "--op", "bind", "--tid", "1", "--user", "user1"}},
      {"existing target",
       tgt.NewTarget(1, kIqn + "other"),
       kTgtTargetExists,
       {"--mode", "target", "--op", "new", "--tid", "1", "--targetname", kIqn + "other"}},
      {"missing LUN",
       tgt.DeleteLun(1, 7),
       kTgtNoLun,
       {"--mode", "logicalunit", "--op", "delete", "--tid", "1", "--lun", "7"}},
      {"missing target",
       tgt.SetTargetState(9, TgtState::kOffline),
       kTgtNoTarget,
       {"--mode", "target", "--op", "update", "--tid", "9", "--name", "state", "--value",
        "offline"}},
      {"system with targets",
       tgt.DeleteSystem(),
       kTgtInvalidRequest,
       {"--mode", "system", "--op", "delete"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(c.result.code, c.code);
    zel::test::ProcessResult tool = Tgtadm(c.sameByTgtadm);
    EXPECT_EQ(tool.exitCode, 22);
    EXPECT_EQ(tool.err, "tgtadm: " + c.result.message + "\n");
  }

  // What the wire cannot carry is refused here, without the secret.
  TgtResult comma = tgt.NewAccount("user2", "half,other-half");
  EXPECT_EQ(comma.code, kTgtBadArgument);
  EXPECT_EQ(comma.message.find("half"), std::string::npos);
  EXPECT_EQ(tgt.NewTarget(0, kIqn + "zero").code, kTgtBadArgument);
  EXPECT_EQ(TgtControl(dir_ + "/no-socket").ShowSystem().code, kTgtUnreachable);
}

TEST_F(EngineTest, AccountSecretsNeverReachACommandLine) {
  const std::string secret = "zel-engine-secret-" + std::to_string(::getpid());
  std::atomic<bool> done{false};
  std::atomic<int> seen{0}, scans{0};
  std::thread scanner([&] {
    while (!done) {
      if (OnAnyCommandLine(secret)) ++seen;
      ++scans;
    }
  });
  for (int i = 0; i < 200 || scans < 2; ++i) {
    std::string user = "user" + std::to_string(i);
    ASSERT_TRUE(engine_->control().NewAccount(user, secret).ok());
    ASSERT_TRUE(engine_->control().DeleteAccount(user).ok());
  }
  done = true;
  scanner.join();
  EXPECT_EQ(seen, 0);
  // The scan does find a secret that is on a command line.
  pid_t child = ::fork();
  if (child == 0) {
    ::execl("/bin/sh", secret.c_str(), "-c", "sleep 5; :", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  bool found = false;
  for (int i = 0; i < 500 && !found; ++i) found = OnAnyCommandLine(secret);
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  EXPECT_TRUE(found);
}

TEST_F(EngineTest, KilledEngineIsSeenDeadAndStopLeavesNothing) {
  // A portal in use is refused before a tgtd starts (tgtd would serve every
  // address on port 3260 instead).
  int port = FreePort();
  int holder = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  ::inet_pton(AF_INET, kAddress, &address.sin_addr);
  ASSERT_EQ(::bind(holder, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::listen(holder, 1);
  std::unique_ptr<TgtProcess> refused = NewEngine(port);
  EXPECT_THROW(refused->Start(), HostCtl::Lib::Orva::OrvaCtlException);
  EXPECT_EQ(refused->pid(), -1);
  ::close(holder);

  // A second instance at the same time takes another control port.
  std::unique_ptr<TgtProcess> second = NewEngine();
  second->Start();
  EXPECT_NE(second->controlPort(), engine_->controlPort());
  ASSERT_TRUE(second->control().NewTarget(1, kIqn + "second").ok());
  ASSERT_TRUE(second->control().NewLun(1, 1, Disk("d3")).ok());
  EXPECT_TRUE(engine_->Alive());

  pid_t killed = engine_->pid();
  ASSERT_EQ(::kill(killed, SIGKILL), 0);
  bool alive = true;
  for (int i = 0; i < 1000 && alive; ++i) {
    alive = engine_->Alive();
    if (alive) ::usleep(1000);
  }
  EXPECT_FALSE(alive);
  std::string socket = TgtControl::SocketPath(engine_->controlPort());
  engine_->Stop();
  EXPECT_TRUE(Gone(socket) && Gone(socket + ".lock"));

  // A clean stop with a target and a LUN still served.
  pid_t pid = second->pid();
  socket = TgtControl::SocketPath(second->controlPort());
  second->Stop();
  EXPECT_EQ(::kill(pid, 0), -1);
  EXPECT_FALSE(second->Alive());
  EXPECT_TRUE(Gone(socket) && Gone(socket + ".lock"));
}

}  // namespace
}  // namespace zeltools::engine
