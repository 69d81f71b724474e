#include "support/ConfText.h"

#include <cstdio>
#include <cstdlib>

#include "storage/DatastoreLayout.h"
#include "support/TestHost.h"

namespace zel {
namespace test {

void InstallConf(const std::string& text) {
  WriteFile(NokCtl::Orva::IscsiTarget::Util::GetConfFilePath(), text, 0600);
}

std::string WrittenText(NokCtl::Orva::IscsiTarget::ConfHandle& handle) {
  char* buffer = nullptr;
  size_t length = 0;
  FILE* out = open_memstream(&buffer, &length);
  try {
    handle._WriteConfigToFile(out);
  } catch (...) {
    fclose(out);
    free(buffer);
    throw;
  }
  fclose(out);
  std::string text(buffer, length);
  free(buffer);
  return text;
}

}  // namespace test
}  // namespace zel
