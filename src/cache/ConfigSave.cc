#include "cache/ConfigSave.h"


#include "cache/ConfigCache.h"
#include "directory/DirectoryEntries.h"
#include "platform/Log.h"
#include "storage/DatastoreLayout.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {

const char kTag[] = "Util";

void RefuseToSaveBehindThePublishedGeneration(const ConfHandle& handle) {
  uint64_t published = 0;
  if (ZeldGetConfigGenNumInBrix(&published) != NOK_OK) return;
  const uint64_t generation = handle.GetCurrentGenerationNum();
  if (generation >= published) return;
  throw OrvaCtlException(
      handle.path + " holds generation " + std::to_string(generation) + ", behind generation " +
      std::to_string(published) +
      " published in the cluster directory: the file was damaged or replaced, and saving over "
      "it would lose the cluster's configuration. Nothing was saved. The local backup copy is " +
      GetBackupConfFilePath() + ".");
}

}  // namespace

void DoActionForConfigChange(uint64_t generation) {
  if (generation == ConfigCache::kNoGeneration) return;
  const NOK_ReturnStatus status = ZeldUpdateBrixEntryForConfig(generation);
  if (status == NOK_OK) return;
  if (status == NOK_EXISTS) {
    ZEL_LOG_WARNING(
        "%s: Update ZEL conf entry into BRIX with config genration number %ld failed with "
        "NOK_EXISTS\n",
        kTag, static_cast<long>(generation));
    return;
  }
  throw OrvaCtlException(std::string("Failed to Update ZEL conf entry into BRIX with error: ") +
                         NOK_ReturnStatusToString(status));
}

uint64_t SaveAndAnnounceConfig(ConfHandle& handle, bool* rollback) {
  RefuseToSaveBehindThePublishedGeneration(handle);
  const uint64_t generation = handle.WriteConfFile();
  if (rollback != nullptr) *rollback = false;
  ConfigCache::CleanupCachedConfig();
  DoActionForConfigChange(generation);
  return generation;
}

bool IsRefreshConfNeeded(uint64_t& known) {
  const uint64_t cached = ConfigCache::GetCachedConfGenNumber();
  // All ones is the empty cache, not a generation: taking it as one would
  // make every later generation look old.
  if (cached == ConfigCache::kNoGeneration || cached <= known) return false;
  known = cached;
  return true;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
