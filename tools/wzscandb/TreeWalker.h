// TreeWalker: a depth-first walk of the records below a folder, read through
// a TableReader, in memory bounded by the depth of the tree times the width
// of its folders (never by its size).
//
// For each folder the walk first reports all its children in name order,
// then walks into its sub-folders one after the other, in name order. A
// child with an empty name (the record of "/" below a Lustre root) stands for
// the folder itself: it is not reported, and its children count as the
// folder's. Paths are relative to the start: a child's path is its name, a
// grandchild's "sub/name". FolderDone reports a folder once its whole
// sub-tree has been visited, the start last (path "", depth 0).
#pragma once

#include <string>

#include "TableReader.h"

class TreeVisitor {
 public:
  virtual ~TreeVisitor() = default;
  // An entry below the start, at `depth` (children of the start: 1). True
  // walks into it when it is a folder.
  virtual bool Entry(const std::string& path, const ImageView& entry, int depth) = 0;
  // A record that stands for its folder (see above): not an entry of its own.
  virtual void Alias(const ImageView& record) { (void)record; }
  // The walk is done with the folder at `path` and everything below it.
  virtual void FolderDone(const std::string& path, const ImageView& folder, int depth) {
    (void)path, (void)folder, (void)depth;
  }
};

// Walks the sub-tree of the folder whose image is `start`; `maxDepth` < 0
// means no limit, otherwise folders at that depth are not walked into.
void WalkTree(TableReader& reader, const char* start, TreeVisitor& visitor, int maxDepth = -1);
