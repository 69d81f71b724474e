// Runs the service's programs on a local host: fork and execve, no shell.
//
// The service names its fixed programs by their system paths
// ("/etc/init.d/zeld", "/sbin/chkconfig"). Where they really are is decided
// here, once for every caller, in this order:
//  1. host.json "commands" may replace argv[0]: its value is a command line
//     split on blanks, so a replacement may carry leading arguments of its
//     own ("/bin/sh /opt/zel/zeld-init").
//  2. The embedded profile runs "/etc/init.d/zeld" as the build's zeld-init
//     script, and answers "/sbin/chkconfig NAME on|off" itself: the boot-time
//     switch NAME is then the file home/state/boot/NAME holding "on" or "off".
//  3. The real-host profile runs "/sbin/chkconfig zel_loader on|off" as
//     "systemctl enable|disable zeld.service" (itself subject to a
//     "systemctl" replacement).
//  4. Anything else runs as given; a program without a slash is looked up
//     in PATH.
// Children get ZEL_HOME=<home> in their environment, standard input from
// /dev/null, default signal dispositions, and none of this process's other
// descriptors: a daemon started here must not keep the service's file
// locks alive. Exec is thread-safe.
#pragma once

#include <memory>

#include "platform/HostConfig.h"
#include "platform/HostControl.h"

namespace zel {
namespace platform {

std::unique_ptr<CommandRunner> NewLocalCommandRunner(const HostConfig& config);

}  // namespace platform
}  // namespace zel
