// Real second processes for tests about locks, files and programs.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace zel::test {

struct ProcessResult {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// Runs a program (no shell) with `input` on its standard input and returns
// its exit code and everything it printed.
ProcessResult RunProgram(const std::vector<std::string>& argv, const std::string& input = "");

// The child's side of a ChildProcess.
class ChildControl {
 public:
  ChildControl(int readyFd, int releaseFd) : readyFd_(readyFd), releaseFd_(releaseFd) {}
  // Tells the parent that the child has reached its point (a lock taken, ...).
  void Ready();
  // Blocks until the parent calls Release (or goes away).
  void AwaitRelease();

 private:
  int readyFd_, releaseFd_;
};

// A forked child running `body`, whose return value is the child's exit
// code; the child never returns into the test framework.
class ChildProcess {
 public:
  explicit ChildProcess(const std::function<int(ChildControl&)>& body);
  ~ChildProcess() { Join(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Blocks until the child called Ready(); false if it ended first.
  bool AwaitReady();
  void Release();
  // Waits for the child and returns its exit code (-1 if it did not exit).
  int Join();

 private:
  pid_t pid_ = -1;
  int readyFd_ = -1, releaseFd_ = -1;
};

}  // namespace zel::test
