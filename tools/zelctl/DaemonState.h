// Whether this home's zeld runs, as `service status` reports it.
#pragma once

#include <string>

namespace zelctl {

// True when the pid file under `home` (absolute) names a live process that
// is a zeld working on `home`: a pid that a dead daemon left behind may
// since belong to any other program, or to another home's zeld.
bool HomeDaemonRunning(const std::string& home);

}  // namespace zelctl
