#include "platform/local/LocalHostControl.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/FileIO.h"
#include "platform/Log.h"
#include "platform/local/AtomicFile.h"
#include "platform/local/LocalCommandRunner.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace platform {

using HostCtl::Lib::Orva::OrvaCtlException;

bool IsStateName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

std::string StatePath(const std::string& home, const std::string& kind, const std::string& name) {
  return home + "/state/" + kind + "/" + name;
}

void WriteStateFile(const std::string& path, const std::string& contents) {
  const std::string directory = std::filesystem::path(path).parent_path().string();
  if (FileIO_CreateOwnerOnlyDirectories(directory) != FILEIO_SUCCESS) {
    throw OrvaCtlException("Failed to create the directory of " + path + ": " +
                           std::strerror(errno));
  }
  WriteFileAtomically(path, contents, 0600);
}

namespace {

const char kTag[] = "HostControl";

class EmbeddedKernelModules final : public KernelModules {
 public:
  explicit EmbeddedKernelModules(std::string home) : home_(std::move(home)) {}

  bool ModuleIsLoaded(const std::string& name) override {
    return IsStateName(name) && ::access(StatePath(home_, "modules", name).c_str(), F_OK) == 0;
  }

  NOK_ReturnStatus ModuleLoad(const std::string& name) override {
    if (!IsStateName(name)) return BadName(name);
    const std::string path = StatePath(home_, "modules", name);
    if (::access(path.c_str(), F_OK) == 0) {
      ZEL_LOG_DEBUG("%s: Module %s is loaded already (%s)\n", kTag, name.c_str(), path.c_str());
      return NOK_OK;
    }
    try {
      WriteStateFile(path, "");
    } catch (const OrvaCtlException& e) {
      ZEL_LOG_WARNING("%s: Failed to load module %s: %s\n", kTag, name.c_str(),
                      e.GetMessage().c_str());
      return NOK_IO_ERROR;
    }
    ZEL_LOG_INFO("%s: Loaded module %s: created %s\n", kTag, name.c_str(), path.c_str());
    return NOK_OK;
  }

  NOK_ReturnStatus ModuleUnload(const std::string& name) override {
    if (!IsStateName(name)) return BadName(name);
    const std::string path = StatePath(home_, "modules", name);
    if (::unlink(path.c_str()) != 0) {
      if (errno == ENOENT) {
        ZEL_LOG_INFO("%s: Module %s is not loaded; nothing to unload\n", kTag, name.c_str());
        return NOK_OK;
      }
      ZEL_LOG_WARNING("%s: Failed to unload module %s: cannot remove %s: %s\n", kTag,
                      name.c_str(), path.c_str(), std::strerror(errno));
      return NOK_IO_ERROR;
    }
    ZEL_LOG_INFO("%s: Unloaded module %s: removed %s\n", kTag, name.c_str(), path.c_str());
    return NOK_OK;
  }

 private:
  static NOK_ReturnStatus BadName(const std::string& name) {
    ZEL_LOG_WARNING("%s: '%s' is not a module name\n", kTag, name.c_str());
    return NOK_BAD_PARAM;
  }

  const std::string home_;
};

class EmbeddedFirewall final : public Firewall {
 public:
  explicit EmbeddedFirewall(std::string home) : home_(std::move(home)) {}

  NOK_ReturnStatus FirewallRulesetSetStatus(const std::string& ruleset, bool enabled) override {
    if (!IsStateName(ruleset)) {
      ZEL_LOG_WARNING("%s: '%s' is not a firewall ruleset name\n", kTag, ruleset.c_str());
      return NOK_BAD_PARAM;
    }
    const std::string path = StatePath(home_, "firewall", ruleset);
    const char* state = enabled ? "enabled" : "disabled";
    try {
      WriteStateFile(path, state);
    } catch (const OrvaCtlException& e) {
      ZEL_LOG_WARNING("%s: Failed to set firewall ruleset %s %s: %s\n", kTag, ruleset.c_str(),
                      state, e.GetMessage().c_str());
      return NOK_IO_ERROR;
    }
    ZEL_LOG_INFO("%s: Firewall ruleset %s %s: recorded in %s\n", kTag, ruleset.c_str(), state,
                 path.c_str());
    return NOK_OK;
  }

 private:
  const std::string home_;
};

// Module names as the kernel lists them: modprobe takes '-' and '_' alike,
// /proc/modules and /sys/module show '_'.
std::string KernelName(const std::string& name) {
  std::string kernel = name == "pyrfw" ? "nf_tables" : name;
  std::replace(kernel.begin(), kernel.end(), '-', '_');
  return kernel;
}

class RealHostKernelModules final : public KernelModules {
 public:
  RealHostKernelModules(std::unique_ptr<CommandRunner> runner, ModuleFiles files)
      : runner_(std::move(runner)), files_(std::move(files)) {}

  bool ModuleIsLoaded(const std::string& name) override {
    if (!IsStateName(name)) return false;
    const std::string kernel = KernelName(name);
    std::ifstream modules(files_.procModules);
    std::string line;
    while (std::getline(modules, line)) {
      if (line.compare(0, kernel.size() + 1, kernel + " ") == 0) return true;
    }
    // Built-in modules are missing from /proc/modules but have a sysfs node.
    std::error_code ignored;
    return std::filesystem::is_directory(files_.sysModuleDir + "/" + kernel, ignored);
  }

  NOK_ReturnStatus ModuleLoad(const std::string& name) override {
    if (!IsStateName(name)) return NOK_BAD_PARAM;
    return Run({"modprobe", KernelName(name)}, "load", name);
  }

  NOK_ReturnStatus ModuleUnload(const std::string& name) override {
    if (!IsStateName(name)) return NOK_BAD_PARAM;
    if (!ModuleIsLoaded(name)) {
      ZEL_LOG_INFO("%s: Module %s is not loaded; nothing to unload\n", kTag, name.c_str());
      return NOK_OK;
    }
    return Run({"modprobe", "-r", KernelName(name)}, "unload", name);
  }

 private:
  NOK_ReturnStatus Run(const std::vector<std::string>& argv, const char* action,
                       const std::string& name) {
    const int code = runner_->Exec(argv);
    if (code != 0) {
      ZEL_LOG_WARNING("%s: Failed to %s module %s: %s exited with %d\n", kTag, action,
                      name.c_str(), argv[0].c_str(), code);
      return NOK_FAILURE;
    }
    ZEL_LOG_INFO("%s: Module %s: %s done\n", kTag, name.c_str(), action);
    return NOK_OK;
  }

  const std::unique_ptr<CommandRunner> runner_;
  const ModuleFiles files_;
};

// An nftables identifier that is safe inside the ruleset file.
bool IsTableName(const std::string& name) {
  return !name.empty() && std::isalpha(static_cast<unsigned char>(name[0])) &&
         std::all_of(name.begin(), name.end(), [](char c) {
           return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
         });
}

// The ruleset file applied by "nft -f" as one transaction. Declaring the
// table first makes the delete succeed whether or not it existed.
std::string RulesetText(const std::string& table, bool enabled) {
  std::ostringstream text;
  text << "table inet " << table << "\n"
       << "delete table inet " << table << "\n";
  if (enabled) {
    text << "table inet " << table << " {\n"
         << "  chain input {\n"
         << "    type filter hook input priority 0; policy accept;\n"
         << "    tcp dport 3260 accept\n"
         << "  }\n"
         << "}\n";
  }
  return text.str();
}

class RealHostFirewall final : public Firewall {
 public:
  RealHostFirewall(std::unique_ptr<CommandRunner> runner, std::string home)
      : runner_(std::move(runner)), home_(std::move(home)) {}

  NOK_ReturnStatus FirewallRulesetSetStatus(const std::string& ruleset, bool enabled) override {
    const char* state = enabled ? "enable" : "disable";
    if (!IsTableName(ruleset)) {
      ZEL_LOG_WARNING("%s: '%s' is not a firewall ruleset name\n", kTag, ruleset.c_str());
      return NOK_BAD_PARAM;
    }
    const std::string path = StatePath(home_, "firewall", ruleset + ".nft");
    try {
      WriteStateFile(path, RulesetText(ruleset, enabled));
    } catch (const OrvaCtlException& e) {
      ZEL_LOG_WARNING("%s: Failed to %s firewall ruleset %s: %s\n", kTag, state, ruleset.c_str(),
                      e.GetMessage().c_str());
      return NOK_IO_ERROR;
    }
    const int code = runner_->Exec({"nft", "-f", path});
    if (code != 0) {
      ZEL_LOG_WARNING("%s: Failed to %s firewall ruleset %s: nft -f %s exited with %d\n", kTag,
                      state, ruleset.c_str(), path.c_str(), code);
      return NOK_FAILURE;
    }
    ZEL_LOG_INFO("%s: Firewall ruleset %s: %s done (%s)\n", kTag, ruleset.c_str(), state,
                 path.c_str());
    return NOK_OK;
  }

 private:
  const std::unique_ptr<CommandRunner> runner_;
  const std::string home_;
};

}  // namespace

std::unique_ptr<KernelModules> NewRealHostKernelModules(std::unique_ptr<CommandRunner> runner,
                                                        ModuleFiles files) {
  return std::make_unique<RealHostKernelModules>(std::move(runner), std::move(files));
}

std::unique_ptr<Firewall> NewRealHostFirewall(std::unique_ptr<CommandRunner> runner,
                                              const std::string& home) {
  return std::make_unique<RealHostFirewall>(std::move(runner), home);
}

std::unique_ptr<KernelModules> NewLocalKernelModules(const HostConfig& config) {
  if (config.profile == Profile::RealHost) {
    return NewRealHostKernelModules(NewLocalCommandRunner(config), ModuleFiles());
  }
  return std::make_unique<EmbeddedKernelModules>(config.home);
}

std::unique_ptr<Firewall> NewLocalFirewall(const HostConfig& config) {
  if (config.profile == Profile::RealHost) {
    return NewRealHostFirewall(NewLocalCommandRunner(config), config.home);
  }
  return std::make_unique<EmbeddedFirewall>(config.home);
}

}  // namespace platform
}  // namespace zel
