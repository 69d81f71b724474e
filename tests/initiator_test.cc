// The test initiator against real engines (tgtd) on loopback: the end-to-end
// tests of zeld rely on what it reports for each way of being refused.
#include <arpa/inet.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/Initiator.h"
#include "support/Process.h"
#include "support/TestHost.h"

namespace zel::test {
namespace {

const char kTgtd[] = "/usr/sbin/tgtd";
const char kInitiator[] = "iqn.2026-01.org.example:initiator";
const char kTarget[] = "iqn.2026-01.org.example:target";

// A TCP socket listening on a free port of `address`; the caller closes it.
int Listen(const std::string& address, int* port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in in{};
  in.sin_family = AF_INET;
  ::inet_pton(AF_INET, address.c_str(), &in.sin_addr);
  socklen_t size = sizeof in;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&in), size) != 0 || ::listen(fd, 4) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&in), &size) != 0) {
    throw std::runtime_error("cannot listen on " + address);
  }
  *port = ntohs(in.sin_port);
  return fd;
}

// A tgtd of the test's own with one portal, driven through tgtadm on a free
// control port, stopped cleanly (or killed) by pid.
class Engine {
 public:
  explicit Engine(const std::string& address) {
    ::close(Listen(address, &port));
    portal = address + ":" + std::to_string(port);
    control_ = 20000 + ::getpid() % 20000;
    while (::access(Socket().c_str(), F_OK) == 0) ++control_;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::freopen("/dev/null", "w", stdout);
      ::freopen("/dev/null", "w", stderr);
      const std::string control = std::to_string(control_), option = "portal=" + portal;
      ::execl(kTgtd, kTgtd, "-f", "-C", control.c_str(), "-t", "2", "--iscsi", option.c_str(),
              nullptr);
      ::_exit(127);
    }
    for (int i = 0; i < 200 && Adm("--mode target --op show", false).exitCode != 0; ++i) {
      ::usleep(25000);
    }
  }
  ~Engine() {
    Adm("--mode sys --op update --name State -v offline", false);
    Adm("--mode target --op delete --force --tid 1", false);
    Adm("--mode system --op delete", false);
    // The clean stop ends the daemon within a second or two; an unreaped
    // child still owns its pid, so the last resort cannot hit another process.
    int status = 0, i = 0;
    while (::waitpid(pid_, &status, WNOHANG) == 0 && ++i < 200) ::usleep(25000);
    if (i == 200 && ::kill(pid_, SIGKILL) == 0) ::waitpid(pid_, &status, 0);
    std::remove(Socket().c_str());
    std::remove((Socket() + ".lock").c_str());
  }
  // Runs tgtadm with `args` (split at blanks); a failure throws if `check`.
  ProcessResult Adm(const std::string& args, bool check = true) const {
    std::vector<std::string> argv = {"/usr/sbin/tgtadm", "-C", std::to_string(control_), "--lld",
                                     "iscsi"};
    std::istringstream words(args);
    for (std::string word; words >> word;) argv.push_back(word);
    ProcessResult result = RunProgram(argv);
    if (check && result.exitCode != 0) throw std::runtime_error(args + ": " + result.err);
    return result;
  }
  std::string portal;  // ADDR:PORT
  int port = 0;

 private:
  std::string Socket() const { return "/var/run/tgtd/socket." + std::to_string(control_); }
  int control_ = 0;
  pid_t pid_ = -1;
};

TEST(InitiatorTest, TellsLoginsRefusalsAndOfflineLunsApartAgainstARealEngine) {
  if (::geteuid() != 0) GTEST_SKIP() << "the engine needs root";
  if (::access(kTgtd, X_OK) != 0) GTEST_SKIP() << "no engine (tgtd) installed";
  TempHome home;
  const std::string disk = home.Path() + "/disk";
  std::ofstream(disk).close();
  ASSERT_EQ(0, ::truncate(disk.c_str(), 64 << 20));
  // The initiator's connections come from 127.0.0.1, and the engine never
  // redirects a login to the initiator's own address: the engines listen
  // elsewhere.
  Engine engine("127.0.77.1");
  engine.Adm(std::string("--mode target --op new --tid 1 --targetname ") + kTarget);
  engine.Adm("--mode logicalunit --op new --tid 1 --lun 1 --backing-store " + disk);
  engine.Adm("--mode logicalunit --op update --tid 1 --lun 1 "
             "--params vendor_id=ZELTEST,product_id=PROBE,scsi_sn=SN0001");
  engine.Adm(std::string("--mode target --op bind --tid 1 --initiator-name ") + kInitiator);
  engine.Adm("--mode account --op new --user alice --password alice-secret");
  engine.Adm("--mode account --op bind --tid 1 --user alice");
  engine.Adm("--mode account --op new --user tgt --password target-secret");
  engine.Adm("--mode account --op bind --tid 1 --user tgt --outgoing");

  EXPECT_EQ(std::vector<std::string>{kTarget}, Discover(engine.portal, kInitiator));
  const std::string stranger = "iqn.2026-01.org.example:stranger";
  EXPECT_TRUE(Discover(engine.portal, stranger).empty());

  auto as = [&](const std::string& initiator, const char* user, const char* secret,
                const char* mutualUser = "", const char* mutualSecret = "") {
    return LoginRequest{engine.portal, kTarget,    1,          initiator,
                        user,            secret,     mutualUser, mutualSecret};
  };
  const LoginRequest good = as(kInitiator, "alice", "alice-secret");
  LoginRequest unknown = good;
  unknown.targetIqn = "iqn.2026-01.org.example:none";
  struct Case { const char* what; LoginRequest request; LoginStatus status; const char* error; };
  const Case cases[] = {
      {"right CHAP", good, LoginStatus::kLoggedIn, ""},
      {"wrong secret", as(kInitiator, "alice", "wrong"), LoginStatus::kAuthenticationFailure,
       "Authentication failure"},
      {"no CHAP", as(kInitiator, "", ""), LoginStatus::kAuthenticationFailure,
       "Authentication failure"},
      {"outside the ACL", as(stranger, "alice", "alice-secret"), LoginStatus::kTargetNotFound,
       "Target not found"},
      {"unknown target", unknown, LoginStatus::kTargetNotFound, "Target not found"},
      {"mutual CHAP", as(kInitiator, "alice", "alice-secret", "tgt", "target-secret"),
       LoginStatus::kLoggedIn, ""},
      {"target's secret wrong", as(kInitiator, "alice", "alice-secret", "tgt", "forged"),
       LoginStatus::kFailed, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    InitiatorSession session;
    const LoginResult login = session.Login(c.request);
    EXPECT_EQ(c.status, login.status) << login.error;
    EXPECT_NE(std::string::npos, login.error.find(c.error)) << login.error;
  }

  InitiatorSession session;
  ASSERT_TRUE(session.Login(good).ok());
  InquiryData inquiry;
  ASSERT_TRUE(session.Inquiry(&inquiry)) << "inquiry";
  EXPECT_EQ("ZELTEST PROBE SN0001",
            inquiry.vendor + " " + inquiry.product + " " + inquiry.serial);
  Capacity capacity;
  ASSERT_TRUE(session.ReadCapacity16(&capacity));
  EXPECT_EQ("512 131072",
            std::to_string(capacity.blockSize) + " " + std::to_string(capacity.blockCount));
  // The blocks reach the backing file, and read back the same.
  std::string data(3 * 512, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 512);
  ASSERT_TRUE(session.Write(7, data));
  std::string back;
  EXPECT_TRUE(session.Read(7, 3, &back) && back == data);
  std::string onDisk(data.size(), '\0');
  std::ifstream(disk, std::ios::binary).seekg(7 * 512).read(onDisk.data(), 3 * 512);
  EXPECT_TRUE(onDisk == data);
  double rate = 0;
  EXPECT_TRUE(session.ReadSequential(8, &rate) && rate > 0);
  session.Logout();

  // An offline LUN logs in but answers NOT READY: to every command only
  // when it is also removable, otherwise to TEST UNIT READY alone.
  engine.Adm("--mode logicalunit --op update --tid 1 --lun 1 --params online=0");
  ASSERT_TRUE(session.Login(good).ok());
  EXPECT_TRUE(session.TestUnitReady().notReady);
  EXPECT_TRUE(session.Read(0, 1, &back));
  engine.Adm("--mode logicalunit --op update --tid 1 --lun 1 --params removable=1");
  const CommandResult offline = session.Read(0, 1, &back);
  EXPECT_TRUE(!offline.ok && offline.notReady) << offline.error;
  EXPECT_TRUE(session.ReadSequential(1, &rate).notReady);
  engine.Adm("--mode logicalunit --op update --tid 1 --lun 1 --params online=1");

  // A second engine sends logins for the same name to the first, where they
  // pass CHAP and the ACL.
  Engine other("127.0.77.2");
  other.Adm(std::string("--mode target --op new --tid 1 --targetname ") + kTarget);
  for (const std::string& redirect : {std::string("RedirectAddress --value 127.0.77.1"),
                                      "RedirectPort --value " + std::to_string(engine.port),
                                      std::string("RedirectReason --value Temporary")}) {
    other.Adm("--mode target --op update --tid 1 --name " + redirect);
  }
  LoginRequest moved = good;
  moved.portal = other.portal;
  const LoginResult redirected = session.Login(moved);
  ASSERT_TRUE(redirected.ok()) << redirected.error;
  EXPECT_EQ(engine.portal, redirected.redirectedTo);
  EXPECT_TRUE(session.Read(7, 3, &back) && back == data);

  // The probe reports the same as JSON, the secret from its environment.
  ::setenv("ZEL_ISCSI_CHAP_SECRET", "alice-secret", 1);
  const ProcessResult probe =
      RunProgram({ZEL_ISCSI_PROBE_PATH, "--portal", other.portal, "--initiator", kInitiator,
                  "--target", kTarget, "--chap-user", "alice", "--write-check", "2",
                  "--write-lba", "100", "--read-mib", "1"});
  ::unsetenv("ZEL_ISCSI_CHAP_SECRET");
  ASSERT_EQ(0, probe.exitCode) << probe.out << probe.err;
  const auto report = nlohmann::json::parse(probe.out);
  EXPECT_EQ("SN0001", report["serial"]);
  EXPECT_EQ(true, report["write_check"]["same"]);
  EXPECT_EQ(std::string::npos, probe.out.find("alice-secret"));

  // A portal that accepts the connection and never answers fails the login
  // within the session's timeout instead of hanging.
  int port = 0;
  const int silent = Listen("127.0.77.3", &port);
  moved.portal = "127.0.77.3:" + std::to_string(port);
  InitiatorSession impatient(std::chrono::milliseconds(1500));
  EXPECT_EQ(LoginStatus::kFailed, impatient.Login(moved).status);
  ::close(silent);
}

}  // namespace
}  // namespace zel::test
