#include "support/HostDoubles.h"

#include <algorithm>
#include <future>
#include <stdexcept>

#include "platform/NokStatus.h"
#include "zel/OrvaCtlException.h"

namespace zel::test {

using platform::DirectoryEntry;

void Fault::Throw() const {
  throw HostCtl::Lib::Orva::OrvaCtlException(
      message.empty() ? NOK_ReturnStatusToString(static_cast<NOK_ReturnStatus>(code)) : message);
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
  return static_cast<int>(std::count_if(calls_.begin(), calls_.end(),
                                        [&](const auto& recorded) { return recorded.first == call; }));
}

void CallScript::JournalInto(CallScript* journal) {
  std::lock_guard<std::mutex> guard(mutex_);
  journal_ = journal;
}

std::optional<Fault> CallScript::Record(const std::string& call, const std::string& line) {
  std::function<void()> hook;
  std::optional<Fault> fault;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    calls_.emplace_back(call, line);
    if (static_cast<int>(calls_.size()) == failAt_) fault = Fault{failCode_, ""};
    if (journal_ != nullptr) {
      if (auto journaled = journal_->Record(call, line)) fault = journaled;
    }
    if (auto found = hooks_.find(call); found != hooks_.end()) hook = found->second;
    for (const std::string& key : {line, call}) {
      if (fault) break;
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

void DirectoryDouble::AsyncUpdate(const DirectoryEntry& entry, UpdatePredicate accept,
                                  Completion done) {
  if (auto fault = Enter("AsyncUpdate", entry.type, entry.key, entry.entryId)) {
    if (done) done(static_cast<NOK_ReturnStatus>(fault->code), nullptr);
  } else {
    target_->AsyncUpdate(entry, std::move(accept), std::move(done));
  }
}

UnreachableDirectory::UnreachableDirectory(NOK_ReturnStatus status) : DirectoryDouble(nullptr) {
  for (const char* call :
       {"Query", "QueryByHost", "AsyncUpdate", "Delete", "Subscribe", "Unsubscribe",
        "GrantLease", "RenewLease", "RevokeLease"}) {
    FailNext(call, static_cast<int>(status), kAlways);
  }
}

NOK_ReturnStatus PublishAndWait(platform::Directory& directory, const DirectoryEntry& entry) {
  std::promise<NOK_ReturnStatus> completed;
  directory.AsyncUpdate(entry, nullptr, [&completed](NOK_ReturnStatus status,
                                                     const DirectoryEntry*) {
    completed.set_value(status);
  });
  return completed.get_future().get();
}

int CommandRunnerDouble::Exec(const std::vector<std::string>& argv) {
  std::string arguments;
  for (size_t i = 1; i < argv.size(); ++i) arguments += (i > 1 ? " " : "") + argv[i];
  const std::string program = argv.empty() ? "" : argv[0];
  if (auto fault = argv.size() > 1 ? Enter(program, arguments) : Enter(program)) {
    return fault->code;
  }
  return target_->Exec(argv);
}

namespace {

struct ExitZero final : platform::CommandRunner {
  int Exec(const std::vector<std::string>&) override { return 0; }
};

struct Nic {
  std::string name;
  platform::NokNicState state;
  std::string ipv4, ipv6;
};

class NicTable final : public platform::NetworkInterfaces {
 public:
  // Runs `change` on the interface; `add` makes a missing one, otherwise it
  // must be there. A null `change` removes it.
  void Edit(Str name, bool add, const std::function<void(Nic&)>& change) {
    std::lock_guard<std::mutex> guard(mutex_);
    auto found = Find(name);
    if (!change) {
      if (found != nics_.end()) nics_.erase(found);
      return;
    }
    if (found == nics_.end() && !add) throw std::logic_error("no fake interface " + name);
    change(found != nics_.end() ? *found : nics_.emplace_back(Nic{name, platform::NOKNIC_NONE, "", ""}));
  }
  std::vector<std::string> GetNokKernelNicNames() override {
    std::lock_guard<std::mutex> guard(mutex_);
    std::vector<std::string> names;
    for (const Nic& nic : nics_) names.push_back(nic.name);
    return names;
  }
  platform::NokNicState GetNokKernelNicState(Str name) override {
    std::lock_guard<std::mutex> guard(mutex_);
    auto found = Find(name);
    return found != nics_.end() ? found->state : platform::NOKNIC_NONE;
  }
  void GetPreferredZelNetworkAddressForNokNic(Str name, std::string* ipv4,
                                              std::string* ipv6) override {
    std::lock_guard<std::mutex> guard(mutex_);
    auto found = Find(name);
    *ipv4 = found != nics_.end() ? found->ipv4 : "";
    *ipv6 = found != nics_.end() ? found->ipv6 : "";
  }

 private:
  std::vector<Nic>::iterator Find(Str name) {
    return std::find_if(nics_.begin(), nics_.end(), [&](const Nic& nic) { return nic.name == name; });
  }

  std::mutex mutex_;
  std::vector<Nic> nics_;
};

NicTable& Table(platform::NetworkInterfaces& target) { return static_cast<NicTable&>(target); }

}  // namespace

ScriptedCommandRunner::ScriptedCommandRunner()
    : CommandRunnerDouble(std::make_unique<ExitZero>()) {}

FakeHostControl InstallFakeHostControl() {
  platform::Host& host = platform::CurrentHost();
  return {&Attach(host, std::make_unique<ScriptedCommandRunner>()),
          &Attach(host, std::make_unique<FakeKernelModules>()),
          &Attach(host, std::make_unique<FakeFirewall>())};
}

FakeNetworkInterfaces::FakeNetworkInterfaces()
    : NetworkInterfacesDouble(std::make_unique<NicTable>()) {}

void FakeNetworkInterfaces::Set(Str name, platform::NokNicState state, Str ipv4, Str ipv6) {
  Table(Target()).Edit(name, true, [&](Nic& nic) { nic = {name, state, ipv4, ipv6}; });
}

void FakeNetworkInterfaces::SetState(Str name, platform::NokNicState state) {
  Table(Target()).Edit(name, false, [&](Nic& nic) { nic.state = state; });
}

void FakeNetworkInterfaces::SetAddresses(Str name, Str ipv4, Str ipv6) {
  Table(Target()).Edit(name, false, [&](Nic& nic) { nic.ipv4 = ipv4, nic.ipv6 = ipv6; });
}

void FakeNetworkInterfaces::Remove(Str name) { Table(Target()).Edit(name, false, nullptr); }

void FakeNetworkInterfaces::FailListing(Str message) {
  for (const char* call : {"GetNokKernelNicNames", "GetPreferredZelNetworkAddressForNokNic"}) {
    Heal(call);
    if (!message.empty()) FailNext(call, message, kAlways);
  }
}

FakeNetworkInterfaces* InstallFakeNetworkInterfaces() {
  return &Attach(platform::CurrentHost(), std::make_unique<FakeNetworkInterfaces>());
}

}  // namespace zel::test
