#include "platform/local/JsonConfigStore.h"

#include <limits>

#include "platform/local/AtomicFile.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace platform {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using HostCtl::Orva::IscsiTarget::DefaultInfo;
using nlohmann::json;

const char kWhat[] = "Configuration store";
const char kEnabled[] = "orvaIscsiServiceEnabled";
const char kDefaults[] = "orvaIscsiDefaultConfig";

// The text members of the defaults; the port is their only number.
struct TextMember {
  const char* name;
  std::string DefaultInfo::*field;
};
const TextMember kTextMembers[] = {
    {"networkInterface", &DefaultInfo::networkInterface},
    {"authType", &DefaultInfo::authType},
    {"userid", &DefaultInfo::userid},
    {"secret", &DefaultInfo::secret},
    {"mutualUserid", &DefaultInfo::mutualUserid},
    {"mutualSecret", &DefaultInfo::mutualSecret},
};

[[noreturn]] void Malformed(const std::string& path, const std::string& problem) {
  throw OrvaCtlException(std::string(kWhat) + " " + path + ": " + problem);
}

bool FitsInt32(const json& value) {
  if (value.is_number_unsigned()) {
    return value.get<uint64_t>() <= static_cast<uint64_t>(std::numeric_limits<int32_t>::max());
  }
  return value.is_number_integer() && value.get<int64_t>() >= std::numeric_limits<int32_t>::min() &&
         value.get<int64_t>() <= std::numeric_limits<int32_t>::max();
}

// Checks the members this code reads; the messages name a member, never a
// value, since the values may be secrets.
void Check(const std::string& path, const json& document) {
  const auto enabled = document.find(kEnabled);
  if (enabled != document.end() && !enabled->is_boolean()) {
    Malformed(path, std::string("'") + kEnabled + "' must be true or false");
  }
  const auto defaults = document.find(kDefaults);
  if (defaults == document.end()) return;
  if (!defaults->is_object()) Malformed(path, std::string("'") + kDefaults + "' must be an object");
  for (const TextMember& member : kTextMembers) {
    const auto value = defaults->find(member.name);
    if (value != defaults->end() && !value->is_string()) {
      Malformed(path, std::string("'") + kDefaults + "." + member.name + "' must be a string");
    }
  }
  const auto port = defaults->find("port");
  if (port != defaults->end() && !FitsInt32(*port)) {
    Malformed(path, std::string("'") + kDefaults + ".port' must be an integer");
  }
}

}  // namespace

JsonConfigStore::JsonConfigStore(std::string path) : path_(std::move(path)) {}

json JsonConfigStore::Load() const {
  json document = json::object();
  ReadJsonFile(path_, kWhat, &document);
  Check(path_, document);
  return document;
}

void JsonConfigStore::Update(const std::function<void(json*)>& change) {
  FileLock lock(path_ + ".lock");
  json document = Load();
  change(&document);
  WriteJsonFileAtomically(path_, document, 0600);
}

bool JsonConfigStore::GetOrvaIscsiServiceEnabled(bool* enabled) {
  const json document = Load();
  const auto found = document.find(kEnabled);
  if (found == document.end()) return false;
  *enabled = found->get<bool>();
  return true;
}

void JsonConfigStore::SetOrvaIscsiServiceEnabled(bool enabled) {
  Update([enabled](json* document) { (*document)[kEnabled] = enabled; });
}

bool JsonConfigStore::GetOrvaIscsiDefaultConfig(DefaultInfo* info) {
  const json document = Load();
  const auto defaults = document.find(kDefaults);
  if (defaults == document.end()) return false;
  // Members absent from the file keep the record's own defaults.
  DefaultInfo stored;
  for (const TextMember& member : kTextMembers) {
    const auto value = defaults->find(member.name);
    if (value != defaults->end()) stored.*member.field = value->get<std::string>();
  }
  const auto port = defaults->find("port");
  if (port != defaults->end()) stored.port = port->get<int32_t>();
  *info = std::move(stored);
  return true;
}

void JsonConfigStore::SetOrvaIscsiDefaultConfig(const DefaultInfo& info) {
  json defaults = json::object();
  for (const TextMember& member : kTextMembers) defaults[member.name] = info.*member.field;
  defaults["port"] = info.port;
  Update([&defaults](json* document) { (*document)[kDefaults] = defaults; });
}

}  // namespace platform
}  // namespace zel
