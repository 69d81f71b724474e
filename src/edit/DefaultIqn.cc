#include "edit/DefaultIqn.h"

#include <limits.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <random>
#include <vector>

#include "platform/Host.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;

const char kPrefix[] = "iqn.1998-01.";
const char kFallbackDomain[] = "zel.local";
constexpr size_t kMaxAliasPart = 64;

bool IsAsciiAlnum(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

char AsciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

// The configured host name is read rather than asked of the resolver: a
// canonical-name lookup may wait on DNS while the service lock is held.
std::string HostDomain(const zel::platform::HostConfig& config) {
  std::string name = config.hostName;
  if (name.empty()) {
    char local[HOST_NAME_MAX + 1] = {};
    if (::gethostname(local, sizeof local - 1) == 0) name = local;
  }
  if (!name.empty() && name.back() == '.') name.pop_back();
  const std::string::size_type dot = name.find('.');
  if (dot != std::string::npos) {
    const std::string domain = name.substr(dot + 1);
    if (zel::platform::IsValidIqnDomain(domain)) return domain;
  }
  return kFallbackDomain;
}

// "storage.example.net" -> "net.example.storage"; IQNs are compared
// case-insensitively, so the lower-case form is the canonical one.
std::string ReversedDomain(const std::string& domain) {
  std::vector<std::string> labels(1);
  for (const char c : domain) {
    if (c == '.') {
      labels.emplace_back();
    } else {
      labels.back() += AsciiLower(c);
    }
  }
  std::string reversed;
  for (auto label = labels.rbegin(); label != labels.rend(); ++label) {
    if (!reversed.empty()) reversed += '.';
    reversed += *label;
  }
  return reversed;
}

void TrimSeparators(std::string* text) {
  const auto separator = [](char c) { return c == '-' || c == '.'; };
  while (!text->empty() && separator(text->back())) text->pop_back();
  std::string::size_type first = 0;
  while (first < text->size() && separator((*text)[first])) ++first;
  text->erase(0, first);
}

// A run of bytes outside the IQN's characters (a multi-byte UTF-8 letter,
// blanks) becomes a single '-', so the alias stays recognisable.
std::string ReadableAlias(const std::string& alias) {
  std::string readable;
  for (const char c : alias) {
    if (IsAsciiAlnum(c) || c == '.' || c == '-') {
      readable += AsciiLower(c);
    } else if (readable.empty() || readable.back() != '-') {
      readable += '-';
    }
  }
  TrimSeparators(&readable);
  if (readable.size() > kMaxAliasPart) {
    readable.resize(kMaxAliasPart);
    TrimSeparators(&readable);
  }
  return readable;
}

std::string RandomHex() {
  uint32_t value = 0;
  try {
    std::random_device source;
    value = static_cast<uint32_t>(source());
  } catch (const std::exception& e) {
    throw OrvaCtlException(std::string("Failed to generate a target IQN: ") + e.what());
  }
  char hex[9];
  std::snprintf(hex, sizeof hex, "%08x", value);
  return hex;
}

}  // namespace

std::string GetDefautltIQN(const std::string& alias) {
  const zel::platform::HostConfig& config = zel::platform::CurrentHost().Config();
  const std::string domain = config.iqnDomain.empty() ? HostDomain(config) : config.iqnDomain;
  std::string unique = ReadableAlias(alias);
  if (!unique.empty()) unique += '-';
  unique += RandomHex();
  return kPrefix + ReversedDomain(domain) + ":" + unique;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
