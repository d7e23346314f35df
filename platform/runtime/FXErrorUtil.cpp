// FXErrorUtil: factories of CKoError errors.
#include "runtime/FXErrorUtil.h"

#include "runtime/FXString.h"

namespace FXErrorUtil {

CKoError ErrorInt(const FXCodeLocation& location, int code, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string message = FXString::FormatV(format, args);
  va_end(args);
  return CKoError(EKoErrorKind::kInt, code, location, std::move(message));
}

CKoError ErrorErrNo(const FXCodeLocation& location, int errnoValue, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string message = FXString::FormatV(format, args);
  va_end(args);
  return CKoError(EKoErrorKind::kErrNo, errnoValue, location, std::move(message));
}

CKoError ErrorWin32(const FXCodeLocation& location, unsigned code, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string message = FXString::FormatV(format, args);
  va_end(args);
  return CKoError(EKoErrorKind::kWin32, code, location, std::move(message));
}

CKoError ErrorWin32(const FXCodeLocation& location, unsigned code) {
  std::string message = CKoError::CodeText(EKoErrorKind::kWin32, code);
  // A code without a text of its own still gets a message that names it.
  if (message.empty()) message = FXString::Format("Win32 error %u", code);
  return CKoError(EKoErrorKind::kWin32, code, location, std::move(message));
}

}  // namespace FXErrorUtil
