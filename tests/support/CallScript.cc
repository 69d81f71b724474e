#include "support/CallScript.h"

#include "platform/NokStatus.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace test {

void Fault::Throw() const {
  throw HostCtl::Lib::Orva::OrvaCtlException(
      message.empty() ? NOK_ReturnStatusToString(static_cast<NOK_ReturnStatus>(code)) : message);
}

void CallScript::FailNext(const std::string& key, int code, int times) {
  Script(key, Fault{code, ""}, times);
}

void CallScript::FailNext(const std::string& key, const std::string& message, int times) {
  Script(key, Fault{0, message}, times);
}

void CallScript::Script(const std::string& key, const Fault& fault, int times) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (times == kAlways) always_[key] = fault;
  for (int i = 0; i < times; ++i) pending_[key].push_back(fault);
}

void CallScript::Heal(const std::string& key) {
  std::lock_guard<std::mutex> guard(mutex_);
  pending_.erase(key);
  always_.erase(key);
}

void CallScript::Before(const std::string& call, std::function<void()> hook) {
  std::lock_guard<std::mutex> guard(mutex_);
  hooks_[call] = std::move(hook);
}

std::vector<std::string> CallScript::Calls() const {
  std::lock_guard<std::mutex> guard(mutex_);
  std::vector<std::string> lines;
  for (const auto& call : calls_) lines.push_back(call.second);
  return lines;
}

int CallScript::Count(const std::string& call) const {
  std::lock_guard<std::mutex> guard(mutex_);
  int count = 0;
  for (const auto& recorded : calls_) count += recorded.first == call ? 1 : 0;
  return count;
}

void CallScript::JournalInto(Journal* journal) {
  std::lock_guard<std::mutex> guard(mutex_);
  journal_ = journal;
}

std::optional<Fault> CallScript::Record(const std::string& call, const std::string& line) {
  std::function<void()> hook;
  std::optional<Fault> fault;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    calls_.emplace_back(call, line);
    if (journal_ != nullptr) journal_->Add(line);
    if (auto found = hooks_.find(call); found != hooks_.end()) hook = found->second;
    for (const std::string& key : {line, call}) {
      if (auto queued = pending_.find(key); queued != pending_.end() && !queued->second.empty()) {
        fault = queued->second.front();
        queued->second.pop_front();
        break;
      }
      if (auto always = always_.find(key); always != always_.end()) {
        fault = always->second;
        break;
      }
    }
  }
  if (hook) hook();
  return fault;
}

}  // namespace test
}  // namespace zel
