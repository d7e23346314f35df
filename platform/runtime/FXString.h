// FXString: printf-style formatting into std::string, of any length.
#pragma once

#include <cstdarg>
#include <string>

#include "runtime/WzRuntimeExport.h"

namespace FXString {
WZRT_API std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
WZRT_API std::string FormatV(const char* format, va_list args);
}  // namespace FXString
