// FXPath: path text helpers. The rules for odd inputs (relative paths, runs
// of delimiters, empty texts) are listed in FXPath.h.
#include "runtime/FXPath.h"

#include <cerrno>

#include "runtime/FXErrorUtil.h"

namespace FXPath {

namespace {
size_t EndWithoutTrailingDelimiters(const std::string& text, size_t end) {
  while (end > 0 && text[end - 1] == kDelimiter) --end;
  return end;
}
}  // namespace

CKoError SplitParentPath(const std::string& path, std::string& parent, std::string& name) {
  // Built in locals: `path` may be the same object as `parent` or `name`.
  std::string newParent;
  std::string newName;
  const size_t end = EndWithoutTrailingDelimiters(path, path.size());
  if (end > 0) {
    const size_t slash = path.rfind(kDelimiter, end - 1);
    if (slash == std::string::npos) {
      newName = path.substr(0, end);
    } else {
      newName = path.substr(slash + 1, end - slash - 1);
      const size_t parentEnd = EndWithoutTrailingDelimiters(path, slash + 1);
      newParent = parentEnd == 0 ? std::string(1, kDelimiter) : path.substr(0, parentEnd);
    }
  }
  parent = std::move(newParent);
  name = std::move(newName);
  return CKoError();
}

CKoError AppendTrailingDelimiter(std::string& path) {
  if (path.empty() || path.back() != kDelimiter) path += kDelimiter;
  return CKoError();
}

CKoError Append(std::string& path, const std::string& tail, int flags) {
  if (flags != 0) {
    return FXErrorUtil::ErrorErrNo(
        FXCodeLocation("runtime/FXPath",
                       "CKoError FXPath::Append(std::string&, const std::string&, int)", __LINE__),
        EINVAL, "Unsupported path append flags %d", flags);
  }
  if (tail.empty()) return CKoError();
  if (&path == &tail) {
    const std::string copy(tail);
    return Append(path, copy, flags);
  }
  if (path.empty()) {
    path = tail;
    return CKoError();
  }
  size_t tailStart = 0;
  while (tailStart < tail.size() && tail[tailStart] == kDelimiter) ++tailStart;
  path.resize(EndWithoutTrailingDelimiters(path, path.size()));
  path += kDelimiter;
  path.append(tail, tailStart, std::string::npos);
  return CKoError();
}

}  // namespace FXPath
