#include "support/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace zel::test {
namespace {

void MakePipe(int fds[2]) {
  if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
}

pid_t Fork() {
  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  return pid;
}

// Parent-side pipe ends of the live ChildProcess objects. A child forked
// later inherits them (no exec closes them) and would keep an earlier
// child's release pipe open: it closes them first thing.
std::vector<int> gParentPipeEnds;

void Close(int* fd) {
  if (*fd < 0) return;
  gParentPipeEnds.erase(std::remove(gParentPipeEnds.begin(), gParentPipeEnds.end(), *fd),
                        gParentPipeEnds.end());
  ::close(*fd);
  *fd = -1;
}

int WaitFor(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Reads one byte, retrying interrupted reads; false at the end of the pipe.
bool ReadByte(int fd) {
  char byte;
  ssize_t n;
  while ((n = ::read(fd, &byte, 1)) < 0 && errno == EINTR) {
  }
  return n == 1;
}

}  // namespace

ProcessResult RunProgram(const std::vector<std::string>& argv, const std::string& input) {
  int in[2], out[2], err[2];
  MakePipe(in);
  MakePipe(out);
  MakePipe(err);
  const pid_t pid = Fork();
  if (pid == 0) {
    ::dup2(in[0], 0);
    ::dup2(out[1], 1);
    ::dup2(err[1], 2);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  // Small inputs fit the pipe; the tests never send more. A child may exit
  // without reading them (a usage error): that is its answer, not a fault.
  ::signal(SIGPIPE, SIG_IGN);
  if (!input.empty() && ::write(in[1], input.data(), input.size()) < 0 && errno != EPIPE) {
    throw std::runtime_error("write to child failed");
  }
  ::close(in[1]);
  ProcessResult result;
  struct pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  for (int open = 2; open > 0;) {
    if (::poll(fds, 2, -1) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buffer[4096];
      const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<size_t>(n));
      } else {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  result.exitCode = WaitFor(pid);
  return result;
}

void ChildControl::Ready() {
  if (::write(readyFd_, "r", 1) != 1) ::_exit(120);
}

void ChildControl::AwaitRelease() { ReadByte(releaseFd_); }

ChildProcess::ChildProcess(const std::function<int(ChildControl&)>& body) {
  int ready[2], release[2];
  MakePipe(ready);
  MakePipe(release);
  pid_ = Fork();
  if (pid_ == 0) {
    for (int fd : gParentPipeEnds) ::close(fd);
    ::close(ready[0]);
    ::close(release[1]);
    ChildControl control(ready[1], release[0]);
    int code = 121;
    try {
      code = body(control);
    } catch (...) {
    }
    ::_exit(code);
  }
  ::close(ready[1]);
  ::close(release[0]);
  readyFd_ = ready[0];
  releaseFd_ = release[1];
  gParentPipeEnds.insert(gParentPipeEnds.end(), {readyFd_, releaseFd_});
}

bool ChildProcess::AwaitReady() { return ReadByte(readyFd_); }

void ChildProcess::Release() { Close(&releaseFd_); }

int ChildProcess::Join() {
  if (pid_ <= 0) return -1;
  Release();
  const int code = WaitFor(pid_);
  pid_ = -1;
  Close(&readyFd_);
  return code;
}

}  // namespace zel::test
