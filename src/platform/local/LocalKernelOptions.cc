#include "platform/local/LocalKernelOptions.h"

#include <limits>
#include <map>

#include <nlohmann/json.hpp>

#include "platform/Log.h"
#include "platform/local/AtomicFile.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace platform {
namespace {

const char kTag[] = "HostControl";

class LocalKernelOptions final : public KernelOptions {
 public:
  LocalKernelOptions(std::string path, std::map<std::string, int> defaults)
      : path_(std::move(path)), defaults_(std::move(defaults)) {}

  NOK_ReturnStatus GetIntOption(const std::string& component, const std::string& field,
                                int* value) override {
    nlohmann::json document;
    bool present = false;
    try {
      present = ReadJsonFile(path_, "Options file", &document);
    } catch (const HostCtl::Lib::Orva::OrvaCtlException& e) {
      ZEL_LOG_WARNING("%s: %s\n", kTag, e.GetMessage().c_str());
      return NOK_IO_ERROR;
    }
    if (present) {
      const auto group = document.find(component);
      if (group != document.end()) {
        if (!group->is_object()) {
          ZEL_LOG_WARNING("%s: Options file %s: '%s' must be an object\n", kTag, path_.c_str(),
                          component.c_str());
          return NOK_BAD_PARAM;
        }
        const auto option = group->find(field);
        if (option != group->end()) return Integer(*option, component + "." + field, value);
      }
    }
    const auto fallback = defaults_.find(component + "." + field);
    if (fallback == defaults_.end()) return NOK_NOT_FOUND;
    *value = fallback->second;
    return NOK_OK;
  }

 private:
  NOK_ReturnStatus Integer(const nlohmann::json& option, const std::string& name, int* value) {
    const bool fits =
        (option.is_number_unsigned() &&
         option.get<uint64_t>() <= static_cast<uint64_t>(std::numeric_limits<int>::max())) ||
        (option.is_number_integer() && !option.is_number_unsigned() &&
         option.get<int64_t>() >= std::numeric_limits<int>::min() &&
         option.get<int64_t>() <= std::numeric_limits<int>::max());
    if (!fits) {
      ZEL_LOG_WARNING("%s: Options file %s: '%s' must be an integer of int range\n", kTag,
                      path_.c_str(), name.c_str());
      return NOK_BAD_PARAM;
    }
    *value = option.is_number_unsigned() ? static_cast<int>(option.get<uint64_t>())
                                         : static_cast<int>(option.get<int64_t>());
    return NOK_OK;
  }

  const std::string path_;
  const std::map<std::string, int> defaults_;
};

}  // namespace

std::unique_ptr<KernelOptions> NewLocalKernelOptions(const HostConfig& config) {
  return std::make_unique<LocalKernelOptions>(config.home + "/options.json", config.options);
}

}  // namespace platform
}  // namespace zel
