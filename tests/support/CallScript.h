// What every double of a host service shares: each call is recorded as one
// line, "Call arg ..." (its own list, and a journal shared by several
// doubles when a test wants the order across services), and a call can be
// scripted to fail: "the next 2 calls of Delete fail with NOK_IO_ERROR, then
// go through". A fault is keyed by a call name ("ModuleLoad") or by a whole
// call line ("ModuleLoad zel"); a whole line wins. Thread-safe.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace zel {
namespace test {

// A scripted answer: `code` for calls that return a status or an exit code,
// `message` (or the status's text) for calls that throw OrvaCtlException.
struct Fault {
  int code = 0;
  std::string message;
  [[noreturn]] void Throw() const;
};

// Lines of several doubles in the order of their calls.
class Journal {
 public:
  void Add(const std::string& line) {
    std::lock_guard<std::mutex> guard(mutex_);
    lines_.push_back(line);
  }
  std::vector<std::string> Lines() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return lines_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

class CallScript {
 public:
  static constexpr int kAlways = -1;

  // The next `times` calls matching `key` (every one with kAlways) answer
  // the fault without reaching the target; later calls go through.
  void FailNext(const std::string& key, int code, int times = 1);
  void FailNext(const std::string& key, const std::string& message, int times = 1);
  // Drops the faults still pending for `key`.
  void Heal(const std::string& key);
  // Runs `hook` at every later call named `call`, before its fault or target.
  void Before(const std::string& call, std::function<void()> hook);

  // Every call so far, in order; how many were named `call`.
  std::vector<std::string> Calls() const;
  int Count(const std::string& call) const;
  void JournalInto(Journal* journal);

 protected:
  // Records the call and returns the fault that answers it, if any.
  template <typename... Args>
  std::optional<Fault> Enter(const std::string& call, const Args&... args) {
    std::ostringstream line;
    line << std::boolalpha << call;
    ((line << ' ' << args), ...);
    return Record(call, line.str());
  }

 private:
  std::optional<Fault> Record(const std::string& call, const std::string& line);
  void Script(const std::string& key, const Fault& fault, int times);

  mutable std::mutex mutex_;
  std::vector<std::pair<std::string, std::string>> calls_;  // (name, line)
  std::map<std::string, std::deque<Fault>> pending_;
  std::map<std::string, Fault> always_;
  std::map<std::string, std::function<void()>> hooks_;
  Journal* journal_ = nullptr;
};

}  // namespace test
}  // namespace zel
