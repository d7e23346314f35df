// FXPath: path text helpers. The delimiter is '/'. Nothing here touches the
// file system.
//
// SplitParentPath(path, parent, name): splits off the last component.
//   "/a/b" -> "/a", "b"      "/a" -> "/", "a"      "/" -> "", ""
//   A trailing delimiter is ignored: "/y/a/" -> "/y", "a".
//   Relative paths: "a" -> "", "a"; "a/b" -> "a", "b". The empty text gives
//   "", "". Runs of delimiters count as one at the split point and trailing
//   ones are dropped from the parent: "/a//b" -> "/a", "b"; "//a//b" ->
//   "//a", "b"; "//a" -> "/", "a". `path` may be the same object as an output.
// AppendTrailingDelimiter(path): appends '/' unless path already ends in '/';
//   the empty text becomes "/".
// Append(path, tail, flags): joins `tail` to `path` with exactly one
//   delimiter between them ("/x/" + "a/b" -> "/x/a/b"); an empty path gives
//   `tail`, an empty tail leaves `path` as it is. flags 0 is the only value;
//   any other is an EINVAL error.
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
