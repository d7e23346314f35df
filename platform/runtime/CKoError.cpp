// CKoError: error values with a stack of frames.
#include "runtime/CKoError.h"

#include <cstring>
#include <new>

#include "runtime/FXErrorUtil.h"
#include "runtime/FXString.h"

namespace {

const std::string& EmptyString() {
  // Built in static storage (an empty string needs no heap) and never
  // destroyed, so a success value's messages cost no allocation and stay
  // readable during process exit.
  alignas(std::string) static unsigned char storage[sizeof(std::string)];
  static const std::string* empty = new (storage) std::string();
  return *empty;
}

const char* Win32Text(long long code) {
  switch (code) {
    case 2: return "The system cannot find the file specified.";
    case 3: return "The system cannot find the path specified.";
    case 5: return "Access is denied.";
    case kWin32NoMoreFiles: return "There are no more files.";
    case 32: return "The process cannot access the file because it is being used by another process.";
    case 80: return "The file exists.";
    case 87: return "The parameter is incorrect.";
    case 112: return "There is not enough space on the disk.";
    case kWin32IndexFailure: return "An error occurred while performing index maintenance.";
    default: return nullptr;
  }
}

}  // namespace

CKoError::CKoError(EKoErrorKind kind, long long code, const FXCodeLocation& location,
                   std::string message)
    : kind_(kind), code_(code) {
  frames_.push_back(CKoErrorFrame{location, std::move(message)});
}

void CKoError::Success() noexcept {
  kind_ = EKoErrorKind::kNone;
  code_ = 0;
  frames_.clear();
  frames_.shrink_to_fit();
}

const std::string& CKoError::GetOriginMessage() const noexcept {
  return frames_.empty() ? EmptyString() : frames_.front().message;
}

const std::string& CKoError::GetTopMessage() const noexcept {
  return frames_.empty() ? EmptyString() : frames_.back().message;
}

CKoError CKoError::Push(const FXCodeLocation& location, const char* format, ...) const {
  va_list args;
  va_start(args, format);
  CKoError result = PushV(location, format, args);
  va_end(args);
  return result;
}

CKoError CKoError::PushV(const FXCodeLocation& location, const char* format,
                         va_list args) const {
  if (IsSuccess()) return CKoError();
  CKoError result(*this);
  result.frames_.push_back(CKoErrorFrame{location, FXString::FormatV(format, args)});
  return result;
}

std::string CKoError::CodeText(EKoErrorKind kind, long long code) {
  switch (kind) {
    case EKoErrorKind::kErrNo: {
      if (code < 0 || code > 0x7fffffff) return std::string();
      char buffer[256];
      // GNU strerror_r: returns either buffer or a static string.
      return strerror_r(static_cast<int>(code), buffer, sizeof buffer);
    }
    case EKoErrorKind::kWin32: {
      const char* text = Win32Text(code);
      return text ? std::string(text) : std::string();
    }
    case EKoErrorKind::kInt:
    case EKoErrorKind::kNone:
      break;
  }
  return std::string();
}

std::string CKoError::AsString() const {
  if (IsSuccess()) return "Success";
  const char* kindName = kind_ == EKoErrorKind::kErrNo   ? "errno"
                         : kind_ == EKoErrorKind::kWin32 ? "win32"
                                                         : "status";
  std::string text = FXString::Format("Error (%s %lld", kindName, code_);
  std::string codeText = CodeText(kind_, code_);
  if (!codeText.empty()) {
    text += ": ";
    text += codeText;
  }
  text += ")";
  for (auto frame = frames_.rbegin(); frame != frames_.rend(); ++frame) {
    text += FXString::Format("\n  at %s:%d %s: ", frame->location.file ? frame->location.file : "",
                             frame->location.line,
                             frame->location.function ? frame->location.function : "");
    text += frame->message;
  }
  return text;
}
