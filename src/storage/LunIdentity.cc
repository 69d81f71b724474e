#include "storage/LunIdentity.h"

#include <cctype>

#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "platform/Host.h"
#include "platform/Log.h"
#include "platform/Uuid.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {

const char kTag[] = "Util";
constexpr size_t kNaaDigits = 32;

// "6" and the company identifier laid out like the start of the UUID text
// ("60 a7 e1 5"), so that it overwrites exactly its first seven digits.
std::string CompanyPrefix() {
  const std::string digits = "6" + zel::platform::CurrentHost().Config().naaCompanyId;
  std::string prefix;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && i % 2 == 0) prefix += ' ';
    prefix += digits[i];
  }
  return prefix;
}

}  // namespace

std::string GenerateRandomUuid() {
  const std::string text = UUID_CreateRandom();
  if (text.empty()) throw OrvaCtlException("UUID generation failure");
  boost::uuids::uuid uuid;
  if (!UUID_ConvertToBin(text, uuid.data)) throw OrvaCtlException("UUID convertion failure");
  return boost::uuids::to_string(uuid);
}

std::string GenerateDiskNaa() {
  std::string uuid = UUID_CreateRandom();
  if (uuid.empty()) throw OrvaCtlException("UUID_CreateRandom failure");
  const std::string prefix = CompanyPrefix();
  if (uuid.size() <= prefix.size()) {
    ZEL_LOG_WARNING("%s: Generated uuid %s length is not longer than IEEE EXT\n", kTag,
                    uuid.c_str());
    return std::string();
  }
  uuid.replace(0, prefix.size(), prefix);
  std::string naa;
  for (char c : uuid) {
    if (c != ' ' && c != '-') naa += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  if (naa.size() != kNaaDigits) {
    ZEL_LOG_WARNING("%s: Generated NAA length %lu is not expected, return empty NAA\n", kTag,
                    static_cast<unsigned long>(naa.size()));
    return std::string();
  }
  ZEL_LOG_INFO("%s: Use %s for naa\n", kTag, naa.c_str());
  return naa;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
