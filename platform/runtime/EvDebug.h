// EvDebug: the runtime's tagged debug log. Error() writes one level -1 line
// "<tag>: <message>" through g_ptrLogWriter.
#pragma once

#include "runtime/WzRuntimeExport.h"

namespace EvDebug {
WZRT_API void Error(const char* tag, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
}  // namespace EvDebug
