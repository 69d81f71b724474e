// Helpers for tests that read and write zel.conf through ConfHandle.
#pragma once

#include <string>

#include "conf/ConfHandle.h"

namespace zel::test {

// Writes `text` as this host's zel.conf (mode 0600, directories created).
void InstallConf(const std::string& text);
// What the writer prints for the handle's graph.
std::string WrittenText(NokCtl::Orva::IscsiTarget::ConfHandle& handle);

}  // namespace zel::test
