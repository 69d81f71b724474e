#include "platform/local/LocalLegacyConfig.h"

#include <nlohmann/json.hpp>

#include "platform/local/AtomicFile.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace platform {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using nlohmann::json;

const char kWhat[] = "Legacy configuration";

class LocalLegacyConfigFile final : public LegacyConfigFile {
 public:
  explicit LocalLegacyConfigFile(std::string path) : path_(std::move(path)) {}

  bool HasValue(const std::string& key) override { return Load().contains(key); }

  bool GetBool(const std::string& key) override {
    const json document = Load();
    const auto value = document.find(key);
    if (value == document.end()) Fail("has no value for '" + key + "'");
    return value->get<bool>();
  }

  void SetBool(const std::string& key, bool value) override {
    FileLock lock(path_ + ".lock");
    json document = Load();
    document[key] = value;
    WriteJsonFileAtomically(path_, document, 0600);
  }

 private:
  [[noreturn]] void Fail(const std::string& problem) const {
    throw OrvaCtlException(std::string(kWhat) + " " + path_ + " " + problem);
  }

  // The document, every value checked to be a boolean; an empty object
  // when there is no file.
  json Load() const {
    json document;
    if (!ReadJsonFile(path_, kWhat, &document)) return json::object();
    for (const auto& item : document.items()) {
      if (!item.value().is_boolean()) Fail("holds '" + item.key() + "', which is not true or false");
    }
    return document;
  }

  const std::string path_;
};

}  // namespace

std::unique_ptr<LegacyConfigFile> NewLocalLegacyConfigFile(const HostConfig& config) {
  return std::make_unique<LocalLegacyConfigFile>(config.home + "/legacy-config.json");
}

}  // namespace platform
}  // namespace zel
