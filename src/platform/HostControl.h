// What the service switches on a host when it is enabled or disabled: the
// programs it runs, kernel modules, the firewall ruleset, the integer kernel
// options and the legacy host configuration file. In the embedded profile
// these act on state files under the home; on a real host they map onto the
// host's own tools.
#pragma once

#include <string>
#include <vector>

#include "platform/NokStatus.h"

namespace zel {
namespace platform {

class CommandRunner {
 public:
  virtual ~CommandRunner() = default;
  // Runs argv[0] with its arguments, without a shell, waits, and returns
  // its exit code; 127 when it could not be started, 128+N when signal N
  // ended it.
  virtual int Exec(const std::vector<std::string>& argv) = 0;
};

class KernelModules {
 public:
  virtual ~KernelModules() = default;
  virtual bool ModuleIsLoaded(const std::string& name) = 0;
  virtual NOK_ReturnStatus ModuleLoad(const std::string& name) = 0;
  virtual NOK_ReturnStatus ModuleUnload(const std::string& name) = 0;
};

class Firewall {
 public:
  virtual ~Firewall() = default;
  virtual NOK_ReturnStatus FirewallRulesetSetStatus(const std::string& ruleset, bool enabled) = 0;
};

class KernelOptions {
 public:
  virtual ~KernelOptions() = default;
  // NOK_OK with the value of option `field` of group `component`;
  // NOK_NOT_FOUND when it is not set; another status when the options
  // cannot be read.
  virtual NOK_ReturnStatus GetIntOption(const std::string& component, const std::string& field,
                                        int* value) = 0;
};

// The legacy host configuration file: boolean values at its root. Each
// call throws OrvaCtlException on failure; writes are atomic.
class LegacyConfigFile {
 public:
  virtual ~LegacyConfigFile() = default;
  virtual bool HasValue(const std::string& key) = 0;
  virtual bool GetBool(const std::string& key) = 0;
  virtual void SetBool(const std::string& key, bool value) = 0;
};

}  // namespace platform
}  // namespace zel
