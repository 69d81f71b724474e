// Real etcd members on loopback free ports, for the tests of the etcd
// directory: one, or a cluster of three, each in its own temporary data
// directory with its log there. Every member is stopped by pid when the
// object goes.
#pragma once

#include <string>
#include <vector>

#include "support/TestHost.h"

namespace zel::test {

class EtcdServer {
 public:
  static constexpr const char* kProgram = "/usr/bin/etcd";

  // False when etcd is not installed: the tests that need it skip.
  static bool Installed();

  // Starts `members` members (1 or 3) and waits until they answer; Ready()
  // tells whether they did. Tests compact the history through the gateway.
  explicit EtcdServer(int members = 1);
  ~EtcdServer();
  EtcdServer(const EtcdServer&) = delete;
  EtcdServer& operator=(const EtcdServer&) = delete;

  bool Ready() const { return ready_; }
  std::vector<std::string> Endpoints() const;

  // SIGKILL, as a crash; Restart starts it again on its data and ports and
  // waits until it answers (true) or gives up.
  void Kill(int member);
  bool Restart(int member);

 private:
  struct Member {
    std::string name, client, peer, dataDir;
    int pid = -1;  // a pid_t
  };
  void Start(Member& member);
  bool Answers(const std::string& endpoint);

  TempHome home_;
  std::vector<Member> members_;
  std::vector<std::string> args_;
  bool ready_ = false;
};

}  // namespace zel::test
