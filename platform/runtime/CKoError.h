// CKoError: the result of every operation of the agent.
//
// A value is either success or an error. An error has a kind (an integer
// status of a library, an errno value, or a Win32-style code), the code, and a
// stack of frames. The first frame is where the error was made; every caller
// that passes the error on may Push() one more frame with its own message.
//
// A success value holds no heap memory: constructing, copying and testing
// success never allocates. CKoError is a plain value type; distinct objects
// may be used from different threads, one object is not synchronised.
#pragma once

#include <cstdarg>
#include <string>
#include <vector>

#include "runtime/FXCodeLocation.h"
#include "runtime/WzRuntimeExport.h"

enum class EKoErrorKind : unsigned char {
  kNone = 0,   // success
  kInt = 1,    // integer status of a library (e.g. a table engine status)
  kErrNo = 2,  // errno value
  kWin32 = 3,  // Win32-style code
};

// One frame of an error stack.
struct WZRT_API CKoErrorFrame {
  FXCodeLocation location;
  std::string message;
};

class WZRT_API CKoError {
 public:
  // Success.
  CKoError() noexcept = default;
  // An error of the given kind and code, with one frame. Used by FXErrorUtil.
  CKoError(EKoErrorKind kind, long long code, const FXCodeLocation& location,
           std::string message);

  CKoError(const CKoError&) = default;
  CKoError(CKoError&&) noexcept = default;
  CKoError& operator=(const CKoError&) = default;
  CKoError& operator=(CKoError&&) noexcept = default;
  ~CKoError() = default;

  // Turns this object into success (drops every frame).
  void Success() noexcept;

  bool IsError() const noexcept { return kind_ != EKoErrorKind::kNone; }
  bool IsSuccess() const noexcept { return !IsError(); }

  EKoErrorKind GetKind() const noexcept { return kind_; }
  long long GetCode() const noexcept { return code_; }

  // Frames from the origin (index 0) to the most recently pushed one.
  const std::vector<CKoErrorFrame>& GetFrames() const noexcept { return frames_; }
  // Message of the frame where the error was made; empty for success.
  const std::string& GetOriginMessage() const noexcept;
  // Message of the most recently pushed frame; empty for success.
  const std::string& GetTopMessage() const noexcept;

  // A copy of this error with one more frame on top: the printf-style
  // message at `location`. Pushing onto success yields success unchanged.
  CKoError Push(const FXCodeLocation& location, const char* format, ...) const
      __attribute__((format(printf, 3, 4)));
  CKoError PushV(const FXCodeLocation& location, const char* format,
                 va_list args) const;

  // The whole stack, the top frame first, one frame a line:
  //   "  at <file>:<line> <function>: <message>"
  // preceded by a line naming the kind, the code and the code's text when
  // there is one: "Error (errno 2: No such file or directory)",
  // "Error (status 101)". Lines are separated by '\n', with none at the end.
  // Success renders as "Success".
  std::string AsString() const;

  // Readable text of a code of the given kind (strerror for errno values, the
  // runtime's own table for Win32-style codes).
  static std::string CodeText(EKoErrorKind kind, long long code);

 private:
  EKoErrorKind kind_ = EKoErrorKind::kNone;
  long long code_ = 0;
  std::vector<CKoErrorFrame> frames_;
};
