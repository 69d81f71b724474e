#include "support/ConfText.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "storage/DatastoreLayout.h"
#include "support/TestHost.h"

namespace zel::test {

void InstallConf(const std::string& text) {
  WriteFile(NokCtl::Orva::IscsiTarget::Util::GetConfFilePath(), text, 0600);
}

std::string WrittenText(NokCtl::Orva::IscsiTarget::ConfHandle& handle) {
  char* buffer = nullptr;
  size_t length = 0;
  std::unique_ptr<char*, void (*)(char**)> freed(&buffer, [](char** b) { free(*b); });
  {
    std::unique_ptr<FILE, int (*)(FILE*)> out(open_memstream(&buffer, &length), fclose);
    handle._WriteConfigToFile(out.get());
  }
  return std::string(buffer, length);
}

}  // namespace zel::test
