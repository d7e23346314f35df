#include "ToolError.h"

const char* const kExitStatusText =
    "Exit status: 0 success; 1 validate found the tree not consistent; 2 bad arguments, a "
    "missing database, path or directory, or a destination that already holds a database; "
    "3 database of another record type, or in use by another process; 4 an operation "
    "failed; 5 scan finished but could not read some entries (they are listed and their "
    "records kept).";

namespace {

std::string OneLine(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (c == '\n' || c == '\r') {
      if (!out.empty() && out.back() != ' ') out += ' ';
    } else {
      out += c;
    }
  }
  while (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}

const char* KindName(EKoErrorKind kind) {
  switch (kind) {
    case EKoErrorKind::kInt: return "status";
    case EKoErrorKind::kErrNo: return "errno";
    case EKoErrorKind::kWin32: return "code";
    case EKoErrorKind::kNone: break;
  }
  return "success";
}

}  // namespace

std::string ErrorLine(const CKoError& error) {
  if (error.IsSuccess()) return "success";
  std::string line;
  const auto& frames = error.GetFrames();
  for (auto it = frames.rbegin(); it != frames.rend(); ++it) {
    std::string message = OneLine(it->message);
    if (message.empty()) continue;
    if (!line.empty()) line += ": ";
    line += message;
  }
  line += " [" + std::string(KindName(error.GetKind())) + " " + std::to_string(error.GetCode());
  std::string text = OneLine(CKoError::CodeText(error.GetKind(), error.GetCode()));
  if (!text.empty()) line += ": " + text;
  line += "]";
  return line;
}

void ThrowIfError(const CKoError& error, const std::string& what) {
  if (error.IsError()) throw ToolError(kExitFailed, what + ": " + ErrorLine(error));
}
