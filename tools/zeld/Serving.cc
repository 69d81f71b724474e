#include "Serving.h"

#include <nlohmann/json.hpp>

#include "common/Daemon.h"
#include "platform/Log.h"
#include "platform/local/AtomicFile.h"
#include "zel/OrvaCtlException.h"

namespace zeltools {
namespace {
const char kTag[] = "zeld";
}  // namespace

Serving::Serving(std::string hostUuid, std::string statusPath, Reconciler::EngineFactory factory)
    : hostUuid_(std::move(hostUuid)),
      statusPath_(std::move(statusPath)),
      reconciler_(std::move(factory)) {}

void Serving::Reconcile(bool full) {
  try {
    if (full) reconciler_.Verify();
    const DesiredState desired = ReadDesiredState(hostUuid_);
    generation_ = desired.generation;
    const ReconcileReport report = reconciler_.Apply(desired);
    for (const std::string& problem : report.problems) {
      ZEL_LOG_WARNING("%s: Not applied: %s\n", kTag, problem.c_str());
    }
    WriteStatus(report.problems.empty() ? "ok" : "applied with problems", report);
  } catch (const HostCtl::Lib::HostCtlException& e) {
    ZEL_LOG_ERROR("%s: Reconcile failed: %s\n", kTag, e.GetMessage().c_str());
    WriteStatus("failed: " + e.GetMessage(), {});
  } catch (const std::exception& e) {
    ZEL_LOG_ERROR("%s: Reconcile failed: %s\n", kTag, e.what());
    WriteStatus(std::string("failed: ") + e.what(), {});
  }
}

void Serving::Stop() {
  reconciler_.Stop();
  WriteStatus("stopped", {});
}

void Serving::WriteStatus(const std::string& result, const ReconcileReport& report) {
  nlohmann::json engines = nlohmann::json::array();
  for (const auto& [portal, running] : reconciler_.Engines()) {
    engines.push_back({{"portal", portal}, {"running", running}});
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
