// The data path end to end: homes made and changed by zelctl, each with its
// own zeld and engine on a loopback address of its own, and a real
// initiator that discovers, logs in, reads and writes. Needs root and the
// engine; skipped otherwise.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/local/AtomicFile.h"
#include "support/Initiator.h"
#include "support/Process.h"
#include "support/TestHost.h"

namespace zel {
namespace test {
namespace {

using ::testing::ElementsAre;
using nlohmann::json;

constexpr const char* kSecret = "Web#Secret1234";
constexpr const char* kMutualSecret = "Db#Mutual12345";
const std::string kApp = "iqn.2024-01.org.example:app";
const std::string kOther = "iqn.2024-01.org.example:other";

// A TCP port nothing listens on at `address` now.
int FreePort(const std::string& address) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in where = {};
  where.sin_family = AF_INET;
  ::inet_pton(AF_INET, address.c_str(), &where.sin_addr);
  socklen_t length = sizeof where;
  ::bind(fd, reinterpret_cast<struct sockaddr*>(&where), length);
  ::getsockname(fd, reinterpret_cast<struct sockaddr*>(&where), &length);
  ::close(fd);
  return ntohs(where.sin_port);
}

size_t Count(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

// True once `condition` holds, trying for up to `seconds`.
bool Eventually(const std::function<bool()>& condition, int seconds = 10) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

// A host made by zelctl whose iSCSI interface "zel0" is `address`,
// optionally sharing the datastore and directory of `shared`.
class Host {
 public:
  Host(const std::string& address, const Host* shared = nullptr) : address_(address) {
    Zelctl({"host", "info"});
    const std::string path = home_.Path() + "/host.json";
    json config;
    platform::ReadJsonFile(path, "Host configuration", &config);
    config["nics"] = {{"zel0", {{"ipv4", address}}}};
    if (shared != nullptr) {
      config["datastorePath"] = shared->home_.Path() + "/datastore";
      config["directory"] = {{"path", shared->home_.Path() + "/directory.db"}};
    }
    platform::WriteJsonFileAtomically(path, config, 0600);
  }
  ~Host() { Zelctl({"service", "disable"}); }

  ProcessResult Zelctl(std::vector<std::string> args, const std::string& input = "") const {
    args.insert(args.begin(), {ZELCTL_PATH, "--home", home_.Path()});
    return RunProgram(args, input);
  }
  void Must(const std::vector<std::string>& args, const std::string& input = "") const {
    const ProcessResult result = Zelctl(args, input);
    ASSERT_EQ(result.exitCode, 0) << result.err;
  }
  json Status() const { return json::parse(Zelctl({"--json", "service", "status"}).out); }
  // The engines zeld last reported, with their pids.
  json Engines() const {
    return json::parse(ReadFile(home_.Path() + "/run/zeld-status.json"))["engines"];
  }
  std::string Portal(int port) const { return address_ + ":" + std::to_string(port); }

 private:
  TempHome home_;
  const std::string address_;
};

class DataPathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0 || ::access("/usr/sbin/tgtd", X_OK) != 0) {
      GTEST_SKIP() << "needs root and tgtd";
    }
    port_ = FreePort("127.0.0.2");
    host_ = std::make_unique<Host>("127.0.0.2");
    host_->Must({"namespace", "create", "--interface", "zel0", "--port", std::to_string(port_)});
    host_->Must({"service", "enable"});
  }

  LoginRequest Request(const std::string& target, const std::string& initiator,
                       const std::string& secret = kSecret) const {
    LoginRequest request;
    request.portal = host_->Portal(port_);
    request.targetIqn = target;
    request.initiatorIqn = initiator;
    request.chapUser = "web";
    request.chapSecret = secret;
    return request;
  }
  std::string Iqn(const std::string& alias) const {
    return json::parse(host_->Zelctl({"--json", "target", "get", alias}).out)["iqn"];
  }
  // A LUN of target "web", added by zelctl, and the IQN of the target.
  std::string AddWebTarget(const std::string& size) {
    host_->Must({"initiator-group", "add", "apps"});
    host_->Must({"initiator-group", "add-initiators", "apps", kApp});
    host_->Must({"target", "add", "--alias", "web", "--auth-type", "CHAP", "--userid", "web",
                 "--secret", "-", "--initiator", "apps"},
                std::string(kSecret) + "\n");
    host_->Must({"lun", "add", "--target", "web", "--size", size});
    const std::string iqn = Iqn("web");
    EXPECT_TRUE(Eventually([&] { return InitiatorSession().Login(Request(iqn, kApp)).ok(); }));
    return iqn;
  }

  int port_ = 0;
  std::unique_ptr<Host> host_;
};

TEST_F(DataPathTest, ARealInitiatorReadsAndWritesThroughChapAndTheAcl) {
  const std::string web = AddWebTarget("64MiB");
  host_->Must({"target", "add", "--alias", "db", "--auth-type", "CHAP-Mutual", "--userid", "web",
               "--secret", "-", "--mutual-userid", "db", "--mutual-secret", "-", "--initiator",
               kOther},
              std::string(kSecret) + "\n" + kMutualSecret + "\n");
  const std::string db = Iqn("db");
  ASSERT_TRUE(Eventually([&] { return Discover(host_->Portal(port_), kOther).size() == 1; }));
  EXPECT_THAT(Discover(host_->Portal(port_), kApp), ElementsAre(web));
  EXPECT_THAT(Discover(host_->Portal(port_), kOther), ElementsAre(db));

  InitiatorSession session;
  ASSERT_TRUE(session.Login(Request(web, kApp)).ok());
  Capacity capacity;
  ASSERT_TRUE(session.ReadCapacity16(&capacity));
  EXPECT_EQ(uint64_t{capacity.blockSize} * capacity.blockCount, 64u << 20);
  const std::string block = std::string(511, 'z') + "\n";
  ASSERT_TRUE(session.Write(8, block));
  std::string read;
  ASSERT_TRUE(session.Read(8, 1, &read));
  EXPECT_EQ(read, block);

  const struct {
    LoginRequest request;
    LoginStatus status;
  } logins[] = {
      {Request(web, kApp, "Wrong#Secret12"), LoginStatus::kAuthenticationFailure},
      {Request(web, kApp, ""), LoginStatus::kAuthenticationFailure},
      {Request(web, kOther), LoginStatus::kTargetNotFound},
  };
  for (const auto& login : logins) {
    SCOPED_TRACE(login.request.chapSecret + " " + login.request.initiatorIqn);
    LoginRequest request = login.request;
    if (request.chapSecret.empty()) request.chapUser.clear();
    EXPECT_EQ(InitiatorSession().Login(request).status, login.status);
  }
  LoginRequest mutual = Request(db, kOther);
  mutual.lun = 0;
  mutual.mutualUser = "db";
  mutual.mutualSecret = kMutualSecret;
  EXPECT_TRUE(InitiatorSession().Login(mutual).ok());
  mutual.mutualSecret = "Not#TheSecret1";
  EXPECT_FALSE(InitiatorSession().Login(mutual).ok());

  // A member added to the group is admitted, and a new secret replaces the
  // old one, without a restart.
  host_->Must({"initiator-group", "add-initiators", "apps", kOther});
  EXPECT_TRUE(Eventually([&] { return InitiatorSession().Login(Request(web, kOther)).ok(); }));
  const std::string renewed = "Web#Renewed123";
  host_->Must({"target", "update", "web", "--auth-type", "CHAP", "--userid", "web", "--secret",
               "-"},
              renewed + "\n");
  EXPECT_TRUE(
      Eventually([&] { return InitiatorSession().Login(Request(web, kApp, renewed)).ok(); }));
  EXPECT_EQ(InitiatorSession().Login(Request(web, kApp)).status,
            LoginStatus::kAuthenticationFailure);
}

TEST_F(DataPathTest, OfflineGrownAndRemovedLunsReachTheEngine) {
  const std::string web = AddWebTarget("64MiB");
  InitiatorSession session;
  ASSERT_TRUE(session.Login(Request(web, kApp)).ok());
  host_->Must({"lun", "update", "--target", "web", "--id", "0", "--status", "offline"});
  std::string read;
  EXPECT_TRUE(Eventually([&] { return session.Read(0, 1, &read).notReady; }));
  host_->Must({"lun", "update", "--target", "web", "--id", "0", "--size", "128MiB"});
  host_->Must({"lun", "update", "--target", "web", "--id", "0", "--status", "online"});
  EXPECT_TRUE(Eventually([&] {
    InitiatorSession fresh;
    Capacity capacity;
    return fresh.Login(Request(web, kApp)).ok() && fresh.ReadCapacity16(&capacity) &&
           capacity.blockCount * capacity.blockSize == (128u << 20);
  }));

  // Served while it is removed: the removal takes it offline, zeld lets go.
  const auto started = std::chrono::steady_clock::now();
  host_->Must({"lun", "remove", "--target", "web", "--id", "0"});
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
}

TEST_F(DataPathTest, AKilledEngineServesAgainWithinSeconds) {
  const std::string web = AddWebTarget("16MiB");
  const json engines = host_->Engines();
  ASSERT_EQ(engines.size(), 1u);
  ASSERT_EQ(::kill(engines[0]["pid"].get<int>(), SIGKILL), 0);
  EXPECT_TRUE(
      Eventually([&] { return InitiatorSession().Login(Request(web, kApp)).ok(); }, 5));
  // io_stop leaves no engine behind.
  EXPECT_EQ(host_->Status()["engine"], "running");
  const int pid = host_->Engines()[0]["pid"];
  host_->Must({"service", "disable"});
  EXPECT_NE(::kill(pid, 0), 0) << "tgtd " << pid << " still runs";
}

TEST_F(DataPathTest, ALoginAtAnotherHostIsRedirectedToTheOwner) {
  const std::string web = AddWebTarget("16MiB");
  Host peer("127.0.0.3", host_.get());
  peer.Must({"service", "enable"});
  LoginRequest request = Request(web, kApp);
  request.portal = peer.Portal(port_);
  LoginResult result;
  EXPECT_TRUE(Eventually([&] { return (result = InitiatorSession().Login(request)).ok(); }));
  EXPECT_EQ(result.redirectedTo, host_->Portal(port_));
}

// Three hosts on one machine, each with its agent, zeld and engine, as the
// README's demonstration runs them: balancing spreads six targets two per
// host within one period, and a host entering maintenance hands its targets
// to the others, where a real initiator reads each of them. The same on
// both directories: the shared database file, and an etcd member.
TEST(ClusterDemoTest, ThreeHostsBalanceAndAHostInMaintenanceHandsItsTargetsOver) {
  if (::geteuid() != 0 || ::access("/usr/sbin/tgtd", X_OK) != 0) GTEST_SKIP() << "needs root";
  for (const std::string directory : {"sqlite", "etcd"}) {
    SCOPED_TRACE(directory);
    if (directory == "etcd" && ::access("/usr/bin/etcd", X_OK) != 0) continue;
    const ProcessResult demo =
        RunProgram({"/usr/bin/env", "ZEL_BUILD=" ZEL_BUILD_DIR, "ZEL_DIRECTORY=" + directory, "sh",
                    ZEL_SOURCE_DIR "/scripts/cluster-demo.sh"});
    ASSERT_EQ(demo.exitCode, 0) << demo.out << demo.err;
    EXPECT_THAT(demo.out, ::testing::HasSubstr("cluster demo done"));
    EXPECT_EQ(Count(demo.out, "Total size:67108864"), 6u);
  }
}

}  // namespace
}  // namespace test
}  // namespace zel
