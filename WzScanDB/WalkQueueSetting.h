// The memory bound of a tree walk's pending folders: setting
// "nWzScanDBWalkQueueKB" of section "~FileSystemAgent", in KiB, at least 1;
// 1024 (1 MiB) when it is absent. Past the bound a walk keeps its pending
// folders in a temporary file beside the table, so the setting trades memory
// against disk traffic and never changes what a walk returns.
//
// The default is small on purpose, so that a walk's memory is the same at
// any tree size: the widest level of a /usr-shaped tree holds about 7 000
// folders per million entries, 0.7 MB of queue, 27 MB at fifty million
// entries; past 1 MiB it is written and read once, sequentially, which is
// little beside the table reads of the same walk.
// Internal to the library.
#pragma once

#include <cstddef>

namespace WzScanDBInternal {

constexpr size_t kDefaultWalkQueueBytes = size_t(1) << 20;

// The bound in bytes, read from the settings file on every call. A value
// below 1 is ignored with a warning line (level -1).
size_t WalkQueueBytesFromSettings();

}  // namespace WzScanDBInternal
