// The walks' memory setting.
#include "WzScanDB/WalkQueueSetting.h"

#include "runtime/LogWriter.h"
#include "runtime/WZPlatformInfo.h"

namespace WzScanDBInternal {

size_t WalkQueueBytesFromSettings() {
  int kib = 0;
  if (!WZPlatformInfo::getRegInt("~FileSystemAgent", "nWzScanDBWalkQueueKB", &kib))
    return kDefaultWalkQueueBytes;
  if (kib < 1) {
    WZ_LOG(-1, "size_t WzScanDBInternal::WalkQueueBytesFromSettings()", __LINE__,
           "Ignoring the setting nWzScanDBWalkQueueKB = %d: it must be at least 1 (KiB); "
           "using %zu KiB",
           kib, kDefaultWalkQueueBytes >> 10);
    return kDefaultWalkQueueBytes;
  }
  return static_cast<size_t>(kib) << 10;
}

}  // namespace WzScanDBInternal
