// EvDebug: tagged error lines through g_ptrLogWriter.
#include "runtime/EvDebug.h"

#include <cstdarg>

#include "runtime/FXString.h"
#include "runtime/LogWriter.h"

namespace EvDebug {

void Error(const char* tag, const char* format, ...) {
  if (!g_ptrLogWriter->IsEnabled(-1)) return;
  va_list args;
  va_start(args, format);
  std::string message = FXString::FormatV(format, args);
  va_end(args);
  g_ptrLogWriter->Write(-1, "void EvDebug::Error(const char*, const char*, ...)", __LINE__,
                        "%s: %s", tag ? tag : "", message.c_str());
}

}  // namespace EvDebug
