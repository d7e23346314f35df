// FXString: printf-style formatting into std::string.
#include "runtime/FXString.h"

#include <cstdio>

namespace FXString {

std::string Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string result = FormatV(format, args);
  va_end(args);
  return result;
}

std::string FormatV(const char* format, va_list args) {
  if (format == nullptr) return std::string();
  // First try a stack buffer: most texts are short.
  char buffer[512];
  va_list copy;
  va_copy(copy, args);
  int length = std::vsnprintf(buffer, sizeof buffer, format, copy);
  va_end(copy);
  if (length < 0) return std::string();
  if (static_cast<size_t>(length) < sizeof buffer) return std::string(buffer, length);

  std::string result(static_cast<size_t>(length), '\0');
  va_copy(copy, args);
  std::vsnprintf(&result[0], result.size() + 1, format, copy);
  va_end(copy);
  return result;
}

}  // namespace FXString
