// The memory bound of a tree walk's pending folders: setting
// "nWzScanDBWalkQueueKB" of section "~FileSystemAgent", in KiB, at least 1;
// 16384 (16 MiB) when it is absent. Past the bound a walk keeps its pending
// folders in a temporary file beside the table, so the setting trades memory
// against disk traffic and never changes what a walk returns. Internal to the
// library.
#pragma once

#include <cstddef>

namespace WzScanDBInternal {

constexpr size_t kDefaultWalkQueueBytes = size_t(16) << 20;

// The bound in bytes, read from the settings file on every call. A value
// below 1 is ignored with a warning line (level -1).
size_t WalkQueueBytesFromSettings();

}  // namespace WzScanDBInternal
