#include "Serving.h"

#include <nlohmann/json.hpp>

#include <set>

#include "common/Daemon.h"
#include "directory/DirectoryEntries.h"
#include "platform/EntryMarshal.h"
#include "platform/Log.h"
#include "platform/local/AtomicFile.h"
#include "zel/OrvaCtlException.h"

namespace zeltools {
namespace {
const char kTag[] = "zeld";
}  // namespace

Serving::Serving(std::string hostUuid, std::string statusPath, Reconciler::EngineFactory factory,
                 std::function<void()> changed)
    : hostUuid_(std::move(hostUuid)),
      statusPath_(std::move(statusPath)),
      reconciler_(std::move(factory)),
      changed_(std::move(changed)) {}

Serving::~Serving() { WatchOwners({}); }

void Serving::WatchOwners(const DesiredState& desired) {
  zel::platform::Directory* directory = zel::directory::Brix();
  if (directory == nullptr) return;
  std::set<std::string> owners;
  for (const DesiredTarget& target : desired.targets) owners.insert(target.ownerObject);
  for (auto it = ownerWatches_.begin(); it != ownerWatches_.end();) {
    if (owners.count(it->first) != 0) {
      ++it;
      continue;
    }
    directory->Unsubscribe(it->second);
    it = ownerWatches_.erase(it);
  }
  for (const std::string& object : owners) {
    if (ownerWatches_.count(object) != 0) continue;
    ownerWatches_[object] = directory->Subscribe(
        BRIX_TYPE_STORAGE_OBJECT, object,
        [changed = changed_](NOK_ReturnStatus, const zel::platform::DirectoryEntry*) { changed(); });
  }
}

void Serving::Reconcile(bool full) {
  try {
    if (full) reconciler_.Verify();
    const DesiredState desired = ReadDesiredState(hostUuid_);
    generation_ = desired.generation;
    WatchOwners(desired);
    const ReconcileReport report = reconciler_.Apply(desired);
    incomplete_ = !report.problems.empty();
    for (const std::string& problem : report.problems) {
      ZEL_LOG_WARNING("%s: Not applied: %s\n", kTag, problem.c_str());
    }
    WriteStatus(report.problems.empty() ? "ok" : "applied with problems", report);
  } catch (const HostCtl::Lib::HostCtlException& e) {
    ZEL_LOG_ERROR("%s: Reconcile failed: %s\n", kTag, e.GetMessage().c_str());
    incomplete_ = true;
    WriteStatus("failed: " + e.GetMessage(), {});
  } catch (const std::exception& e) {
    ZEL_LOG_ERROR("%s: Reconcile failed: %s\n", kTag, e.what());
    incomplete_ = true;
    WriteStatus(std::string("failed: ") + e.what(), {});
  }
}

void Serving::Stop() {
  reconciler_.Stop();
  WriteStatus("stopped", {});
}

void Serving::WriteStatus(const std::string& result, const ReconcileReport& report) {
  nlohmann::json engines = nlohmann::json::array();
  for (const Reconciler::EngineState& engine : reconciler_.Engines()) {
    engines.push_back({{"portal", engine.portal}, {"running", engine.running}, {"pid", engine.pid}});
  }
  const nlohmann::json status = {
      {"engines", engines},
      {"served", report.served},
      {"redirected", report.redirected},
      {"problems", report.problems},
      {"lastReconcile",
       {{"at", LogTimestamp()}, {"generation", generation_}, {"result", result}}}};
  try {
    zel::platform::WriteJsonFileAtomically(statusPath_, status, 0600);
  } catch (const HostCtl::Lib::HostCtlException& e) {
    ZEL_LOG_WARNING("%s: Failed to write %s: %s\n", kTag, statusPath_.c_str(),
                    e.GetMessage().c_str());
  }
}

}  // namespace zeltools
