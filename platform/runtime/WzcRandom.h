// Wzc::getRand: fills a buffer with cryptographically secure random bytes from
// getrandom(2). Throws WzException when the kernel's source fails.
#pragma once

#include "runtime/WzException.h"
#include "runtime/WzRuntimeExport.h"

namespace Wzc {
WZRT_API void getRand(void* buffer, int length);
}  // namespace Wzc
