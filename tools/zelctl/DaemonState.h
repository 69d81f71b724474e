// Whether this home's zeld runs, as `service status` reports it.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace zelctl {

// True when the pid file under `home` (absolute) names a live process that
// is a zeld working on `home`: a pid that a dead daemon left behind may
// since belong to any other program, or to another home's zeld.
bool HomeDaemonRunning(const std::string& home);

// What the running zeld of `home` last said of its work: "engine" (running,
// idle, or which portals' engines do not run), "servedTargets", "redirectedTargets",
// "lastReconcile" (when, and how it ended); "problems" when there are.
// Empty when it has said nothing readable.
nlohmann::ordered_json DaemonReport(const std::string& home);

}  // namespace zelctl
