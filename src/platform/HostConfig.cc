#include "platform/HostConfig.h"

#include <arpa/inet.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>

#include <nlohmann/json.hpp>

#include "platform/FileIO.h"
#include "platform/local/AtomicFile.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace platform {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using nlohmann::json;

const char kWhat[] = "Host configuration";

// Creates the home, owner-only, unless it is there already. Another process
// creating it at the same moment is fine.
void EnsureHome(const std::string& home) {
  struct stat existing;
  if (::stat(home.c_str(), &existing) == 0) {
    if (!S_ISDIR(existing.st_mode)) throw OrvaCtlException("Home " + home + " is not a directory");
    return;
  }
  // The home holds the store's secrets.
  if (FileIO_CreateOwnerOnlyDirectories(home) != FILEIO_SUCCESS) {
    throw OrvaCtlException("Failed to create home " + home + ": " + std::strerror(errno));
  }
}

std::string LocalHostName() {
  char name[HOST_NAME_MAX + 1] = {};
  if (::gethostname(name, sizeof name - 1) != 0) {
    throw OrvaCtlException(std::string("Failed to read the host name: ") + std::strerror(errno));
  }
  return name;
}

bool HasIdentity(const json& document) {
  return document.contains("hostUuid") && document.contains("hostName");
}

// Fills in whatever part of the identity the file lacks, keeping everything
// an operator put there.
void CompleteIdentity(json* document) {
  if (!document->contains("hostUuid")) {
    (*document)["hostUuid"] = boost::uuids::to_string(boost::uuids::random_generator()());
  }
  if (!document->contains("hostName")) (*document)["hostName"] = LocalHostName();
}

// Reads the typed values of host.json, naming the file and the key in every
// complaint.
class Reader {
 public:
  Reader(const std::string& path, const std::string& home) : path_(path), home_(home) {}

  [[noreturn]] void Fail(const std::string& problem) const {
    throw OrvaCtlException(std::string(kWhat) + " " + path_ + ": " + problem);
  }

  std::string Text(const json& value, const std::string& key) const {
    if (!value.is_string()) Fail("'" + key + "' must be a string");
    return value.get<std::string>();
  }

  // Relative paths are taken from the home, whatever the working directory
  // of the process reading them.
  std::string Path(const json& value, const std::string& key) const {
    const std::string text = Text(value, key);
    if (text.empty()) Fail("'" + key + "' must not be empty");
    return text.front() == '/' ? text : home_ + "/" + text;
  }

  bool Flag(const json& value, const std::string& key) const {
    if (!value.is_boolean()) Fail("'" + key + "' must be true or false");
    return value.get<bool>();
  }

  int Integer(const json& value, const std::string& key) const {
    if (!value.is_number_integer()) Fail("'" + key + "' must be an integer");
    const int64_t number = value.get<int64_t>();
    if (number < std::numeric_limits<int>::min() || number > std::numeric_limits<int>::max()) {
      Fail("'" + key + "' is out of range");
    }
    return static_cast<int>(number);
  }

  const json& Object(const json& value, const std::string& key) const {
    if (!value.is_object()) Fail("'" + key + "' must be an object");
    return value;
  }

  std::string Uuid(const json& value, const std::string& key) const {
    const std::string text = Text(value, key);
    try {
      return boost::uuids::to_string(boost::uuids::string_generator()(text));
    } catch (const std::runtime_error&) {
      Fail("'" + key + "' is not a UUID: '" + text + "'");
    }
  }

 private:
  const std::string& path_;
  const std::string& home_;
};

// An etcd endpoint: a plain-HTTP base URL "http://HOST:PORT" without a path,
// the form the directory's client appends its calls to.
bool IsEndpointUrl(const std::string& url) {
  static const std::string kScheme = "http://";
  if (url.compare(0, kScheme.size(), kScheme) != 0) return false;
  const std::string authority = url.substr(kScheme.size());
  const size_t colon = authority.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == authority.size()) return false;
  return authority.find('/') == std::string::npos &&
         authority.find_first_not_of("0123456789", colon + 1) == std::string::npos;
}

void ApplyDirectory(const Reader& reader, const json& directory, HostConfig* config) {
  for (const auto& item : reader.Object(directory, "directory").items()) {
    const std::string key = "directory." + item.key();
    const json& value = item.value();
    if (item.key() == "backend") {
      config->directoryBackend = reader.Text(value, key);
      if (config->directoryBackend != "sqlite" && config->directoryBackend != "etcd") {
        reader.Fail("'" + key + "' must be \"sqlite\" or \"etcd\", not '" +
                    config->directoryBackend + "'");
      }
    } else if (item.key() == "path") {
      config->directoryPath = reader.Path(value, key);
    } else if (item.key() == "endpoints") {
      if (!value.is_array() || value.empty()) reader.Fail("'" + key + "' must be a list of URLs");
      config->directoryEndpoints.clear();
      for (const json& endpoint : value) {
        const std::string url = reader.Text(endpoint, key);
        if (!IsEndpointUrl(url)) {
          reader.Fail("'" + key + "' must hold URLs of the form http://HOST:PORT, not '" + url + "'");
        }
        config->directoryEndpoints.push_back(url);
      }
    } else if (item.key() == "prefix") {
      config->directoryPrefix = reader.Text(value, key);
      if (config->directoryPrefix.size() < 2 || config->directoryPrefix.front() != '/') {
        reader.Fail("'" + key + "' must start with '/' and name something after it, not '" +
                    config->directoryPrefix + "'");
      }
    } else if (item.key() == "leaseSeconds") {
      config->memberLeaseSeconds = reader.Integer(value, key);
      if (config->memberLeaseSeconds < 2 || config->memberLeaseSeconds > 3600) {
        reader.Fail("'" + key + "' must be from 2 to 3600, not " +
                    std::to_string(config->memberLeaseSeconds));
      }
    } else {
      reader.Fail("unknown key '" + key + "'");
    }
  }
  if (config->directoryBackend == "etcd" && config->directoryEndpoints.empty()) {
    reader.Fail("'directory.endpoints' must name the etcd cluster when the backend is \"etcd\"");
  }
}

void ApplyOptions(const Reader& reader, const json& options, HostConfig* config) {
  for (const auto& item : reader.Object(options, "options").items()) {
    const std::string& name = item.key();
    const std::string::size_type dot = name.find('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == name.size()) {
      reader.Fail("option '" + name + "' is not of the form GROUP.name");
    }
    config->options[name] = reader.Integer(item.value(), "options." + name);
  }
}

void ApplyCommands(const Reader& reader, const json& commands, HostConfig* config) {
  for (const auto& item : reader.Object(commands, "commands").items()) {
    config->commands[item.key()] = reader.Text(item.value(), "commands." + item.key());
  }
}

// "nics": {"zel0": {"ipv4": "127.0.0.2"}, ...}; each interface needs an
// address, and every address must read as one of its family.
void ApplyNics(const Reader& reader, const json& nics, HostConfig* config) {
  for (const auto& item : reader.Object(nics, "nics").items()) {
    const std::string where = "nics." + item.key();
    DeclaredNic nic;
    for (const auto& field : reader.Object(item.value(), where).items()) {
      const std::string key = where + "." + field.key();
      const std::string address = reader.Text(field.value(), key);
      unsigned char binary[sizeof(struct in6_addr)];
      if (field.key() == "state") {
        if (address != "up" && address != "down" && address != "no-uplinks") {
          reader.Fail("'" + key + "' must be \"up\", \"down\" or \"no-uplinks\": '" + address +
                      "'");
        }
        nic.state = address;
      } else if (field.key() == "ipv4" && ::inet_pton(AF_INET, address.c_str(), binary) == 1) {
        nic.ipv4 = address;
      } else if (field.key() == "ipv6" && ::inet_pton(AF_INET6, address.c_str(), binary) == 1) {
        nic.ipv6 = address;
      } else {
        reader.Fail("'" + key + "' must be an address of its family ('ipv4' or 'ipv6') or a "
                    "state: '" + address + "'");
      }
    }
    if (nic.ipv4.empty() && nic.ipv6.empty()) reader.Fail("'" + where + "' has no address");
    config->nics[item.key()] = nic;
  }
}

void Apply(const Reader& reader, const json& document, HostConfig* config) {
  for (const auto& item : document.items()) {
    const std::string& key = item.key();
    const json& value = item.value();
    if (key == "hostUuid") {
      config->hostUuid = reader.Uuid(value, key);
    } else if (key == "hostName") {
      config->hostName = reader.Text(value, key);
    } else if (key == "faultDomain") {
      config->faultDomain = reader.Text(value, key);
    } else if (key == "clusterMember") {
      config->clusterMember = reader.Flag(value, key);
    } else if (key == "datastorePath") {
      config->datastoreRoot = reader.Path(value, key);
    } else if (key == "directory") {
      ApplyDirectory(reader, value, config);
    } else if (key == "configStorePath") {
      config->configStorePath = reader.Path(value, key);
    } else if (key == "options") {
      ApplyOptions(reader, value, config);
    } else if (key == "commands") {
      ApplyCommands(reader, value, config);
    } else if (key == "nics") {
      ApplyNics(reader, value, config);
    } else if (key == "defaultPolicy") {
      config->defaultPolicy = reader.Text(value, key);
    } else if (key == "iqnDomain") {
      config->iqnDomain = reader.Text(value, key);
      if (!IsValidIqnDomain(config->iqnDomain)) {
        reader.Fail("'iqnDomain' must be a domain name of at most 100 bytes, labels of letters, "
                    "digits and '-' separated by dots: '" + config->iqnDomain + "'");
      }
    } else if (key == "diskFormatVersion") {
      config->diskFormatVersion = reader.Integer(value, key);
      if (config->diskFormatVersion < 1 || config->diskFormatVersion > 255) {
        reader.Fail("'diskFormatVersion' must be from 1 to 255, not " +
                    std::to_string(config->diskFormatVersion));
      }
    } else if (key == "controlTickSeconds") {
      config->controlTickSeconds = reader.Integer(value, key);
      if (config->controlTickSeconds < 1 || config->controlTickSeconds > 3600) {
        reader.Fail("'controlTickSeconds' must be from 1 to 3600, not " +
                    std::to_string(config->controlTickSeconds));
      }
    } else if (key == "naaCompanyId") {
      config->naaCompanyId = reader.Text(value, key);
      if (config->naaCompanyId.size() != 6 ||
          config->naaCompanyId.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        reader.Fail("'naaCompanyId' must be six hex digits: '" + config->naaCompanyId + "'");
      }
      for (char& c : config->naaCompanyId) c = static_cast<char>(std::toupper(c));
    } else if (key == "profile") {
      const std::string profile = reader.Text(value, key);
      if (profile == "realHost") {
        config->profile = Profile::RealHost;
        config->backupConfPath = "/var/run/log/zel.conf.backup";
      } else if (profile != "embedded") {
        reader.Fail("profile must be \"embedded\" or \"realHost\"");
      }
    } else {
      // A misspelt key would otherwise be ignored without a word.
      reader.Fail("unknown key '" + key + "'");
    }
  }
}

}  // namespace

std::string ResolveHome(const std::string& explicitHome) {
  if (!explicitHome.empty()) return explicitHome;
  const char* fromEnvironment = std::getenv("ZEL_HOME");
  if (fromEnvironment != nullptr && *fromEnvironment != '\0') return fromEnvironment;
  return "/var/lib/zel";
}

bool IsValidIqnDomain(const std::string& domain) {
  if (domain.empty() || domain.size() > 100) return false;
  bool labelStart = true;
  for (const char c : domain) {
    if (c == '.') {
      if (labelStart) return false;
      labelStart = true;
    } else if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '-') {
      labelStart = false;
    } else {
      return false;
    }
  }
  return !labelStart;
}

HostConfig EmbeddedHostConfig(const std::string& home) {
  HostConfig config;
  config.profile = Profile::Embedded;
  config.home = home;
  config.datastoreRoot = home + "/datastore";
  // The service's fixed backup path, mapped under the home.
  config.backupConfPath = home + "/var/run/log/zel.conf.backup";
  config.directoryBackend = "sqlite";
  config.directoryPath = home + "/directory.db";
  config.configStorePath = home + "/config-store.json";
  config.defaultPolicy = "\"failuresToTolerate\" \"1\"";
  return config;
}

HostConfig LoadHostConfig(const std::string& home) {
  EnsureHome(home);
  const std::string path = home + "/host.json";
  json document;
  if (!ReadJsonFile(path, kWhat, &document) || !HasIdentity(document)) {
    // First use, or a file an operator seeded without the identity. Whoever
    // takes the lock first writes the identity; the others find it on their
    // second read, so every process of this home agrees on who the host is.
    FileLock lock(path + ".lock");
    if (!ReadJsonFile(path, kWhat, &document)) document = json::object();
    if (!HasIdentity(document)) {
      CompleteIdentity(&document);
      WriteJsonFileAtomically(path, document, 0600);
    }
  }
  HostConfig config = EmbeddedHostConfig(home);
  Apply(Reader(path, home), document, &config);
  return config;
}

std::map<std::string, DeclaredNic> ReadDeclaredNics(const std::string& home) {
  const std::string path = home + "/host.json";
  json document;
  if (!ReadJsonFile(path, kWhat, &document)) {
    throw OrvaCtlException(std::string(kWhat) + " " + path + " does not exist");
  }
  HostConfig config = EmbeddedHostConfig(home);
  Apply(Reader(path, home), document, &config);
  return config.nics;
}

}  // namespace platform
}  // namespace zel
