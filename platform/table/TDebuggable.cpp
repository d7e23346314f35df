#include <cstdarg>

#include "runtime/LogWriter.h"
#include "table/TCtreeTable.h"

TDebuggable::~TDebuggable() = default;

void TDebuggable::debug(int level, const char* format, ...) {
  if (!format || !g_ptrLogWriter->IsEnabled(level)) return;
  va_list args;
  va_start(args, format);
  g_ptrLogWriter->WriteV(level, "TDebuggable::debug", __LINE__, format, args);
  va_end(args);
}
