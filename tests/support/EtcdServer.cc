#include "support/EtcdServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include "platform/local/EtcdClient.h"

namespace zel::test {
namespace {

// Only a broken member makes a test wait this long.
constexpr auto kStartPatience = std::chrono::seconds(30);
constexpr auto kStopPatience = std::chrono::seconds(10);

// A port of 127.0.0.1 that nothing listens on now.
std::string FreeLoopbackUrl() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("no free loopback port");
  }
  ::close(fd);
  return "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
}

}  // namespace

bool EtcdServer::Installed() { return ::access(kProgram, X_OK) == 0; }

EtcdServer::EtcdServer(int members) {
  std::string cluster;
  for (int i = 0; i < members; ++i) {
    Member member{"m" + std::to_string(i), FreeLoopbackUrl(), FreeLoopbackUrl(),
                  home_.Path() + "/m" + std::to_string(i)};
    cluster += (i ? "," : "") + member.name + "=" + member.peer;
    members_.push_back(member);
  }
  args_ = {"--initial-cluster", cluster, "--initial-cluster-state", "new",
           "--election-timeout", "100", "--heartbeat-interval", "10"};
  for (Member& member : members_) Start(member);
  ready_ = true;
  for (Member& member : members_) ready_ = ready_ && Answers(member.client);
}

EtcdServer::~EtcdServer() {
  for (Member& member : members_) {
    if (member.pid > 0) ::kill(member.pid, SIGTERM);
  }
  // SIGKILL for a member that has not stopped in time.
  const auto deadline = std::chrono::steady_clock::now() + kStopPatience;
  for (size_t i = 0; i < members_.size(); ++i) {
    while (members_[i].pid > 0 && std::chrono::steady_clock::now() < deadline) {
      if (::waitpid(members_[i].pid, nullptr, WNOHANG) == members_[i].pid) members_[i].pid = -1;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    Kill(int(i));
  }
}

std::vector<std::string> EtcdServer::Endpoints() const {
  std::vector<std::string> endpoints;
  for (const Member& member : members_) endpoints.push_back(member.client);
  return endpoints;
}

void EtcdServer::Start(Member& member) {
  std::vector<std::string> argv = {kProgram, "--name", member.name, "--data-dir", member.dataDir,
                                   "--listen-client-urls", member.client,
                                   "--advertise-client-urls", member.client,
                                   "--listen-peer-urls", member.peer,
                                   "--initial-advertise-peer-urls", member.peer};
  argv.insert(argv.end(), args_.begin(), args_.end());
  // Everything the child needs is made before the fork: other threads may hold locks then.
  const int log = ::open((home_.Path() + "/" + member.name + ".log").c_str(),
                         O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  std::vector<char*> args;
  for (std::string& arg : argv) args.push_back(arg.data());
  args.push_back(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(log, 1);
    ::dup2(log, 2);
    ::execv(kProgram, args.data());
    ::_exit(127);
  }
  ::close(log);
  if (pid < 0) throw std::runtime_error("fork failed");
  member.pid = pid;
}

void EtcdServer::Kill(int member) {
  if (member < 0 || members_[member].pid <= 0) return;
  ::kill(members_[member].pid, SIGKILL);
  ::waitpid(members_[member].pid, nullptr, 0);
  members_[member].pid = -1;
}

bool EtcdServer::Restart(int member) {
  Kill(member);
  Start(members_[member]);
  return Answers(members_[member].client);
}

// A linearizable range answers once the member is up and the cluster has a leader.
bool EtcdServer::Answers(const std::string& endpoint) {
  platform::EtcdClient client({endpoint});
  const auto deadline = std::chrono::steady_clock::now() + kStartPatience;
  nlohmann::json reply;
  while (!client.Call("/v3/kv/range", {{"key", "AA=="}}, &reply).Ok()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

}  // namespace zel::test
