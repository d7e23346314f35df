// FXPath: path text helpers. The delimiter is '/'. Nothing here touches the
// file system.
//
// SplitParentPath(path, parent, name): splits off the last component.
//   "/a/b" -> "/a", "b"      "/a" -> "/", "a"      "/" -> "", ""
//   A trailing delimiter is ignored: "/y/a/" -> "/y", "a".
//   (The full rules for relative paths and repeated delimiters are in
//   FXPath.cpp's header comment and its tests.)
// AppendTrailingDelimiter(path): appends '/' unless path already ends in '/'.
// Append(path, tail, flags): joins `tail` to `path` with exactly one
//   delimiter between them; flags 0 is the only value used.
// Each returns success; an error only for arguments it cannot handle.
#pragma once

#include <string>

#include "runtime/CKoError.h"
#include "runtime/WzRuntimeExport.h"

namespace FXPath {
constexpr char kDelimiter = '/';

WZRT_API CKoError SplitParentPath(const std::string& path, std::string& parent,
                                  std::string& name);
WZRT_API CKoError AppendTrailingDelimiter(std::string& path);
WZRT_API CKoError Append(std::string& path, const std::string& tail, int flags);
}  // namespace FXPath
