// FXErrorUtil: the factories of CKoError errors.
//
// Each returns an error with one frame at `location` whose message is the
// printf-style text. The form of ErrorWin32 without a format gives the frame
// the code's own text (for example 18, "There are no more files.").
#pragma once

#include "runtime/CKoError.h"

namespace FXErrorUtil {

WZRT_API CKoError ErrorInt(const FXCodeLocation& location, int code,
                           const char* format, ...)
    __attribute__((format(printf, 3, 4)));

WZRT_API CKoError ErrorErrNo(const FXCodeLocation& location, int errnoValue,
                             const char* format, ...)
    __attribute__((format(printf, 3, 4)));

WZRT_API CKoError ErrorWin32(const FXCodeLocation& location, unsigned code,
                             const char* format, ...)
    __attribute__((format(printf, 3, 4)));

WZRT_API CKoError ErrorWin32(const FXCodeLocation& location, unsigned code);

}  // namespace FXErrorUtil

// Win32-style codes used by the agent (CKoError::CodeText knows their texts).
enum : unsigned {
  kWin32NoMoreFiles = 18,        // end of a buffered iteration
  kWin32IndexFailure = 774,      // index maintenance failed
};
