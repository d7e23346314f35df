#include "TreeWalker.h"

#include <cstring>
#include <vector>

#include "PathJoin.h"

namespace {

struct Frame {
  std::vector<char> folder;  // the folder's own image
  std::string path;          // relative to the start
  int depth = 0;
  ImageList children;
  std::vector<bool> walkInto;  // per child: a folder the visitor wants walked
  size_t next = 0;             // next child to consider for walking into
};

}  // namespace

void WalkTree(TableReader& reader, const char* start, TreeVisitor& visitor, int maxDepth) {
  const RecordLayout& layout = reader.layout();
  std::vector<Frame> stack;
  auto push = [&](const char* image, const std::string& path, int depth) {
    stack.emplace_back();
    Frame& frame = stack.back();
    frame.folder.assign(image, image + layout.size);
    frame.path = path;
    frame.depth = depth;
    reader.ReadChildren(image, frame.children);
    frame.walkInto.assign(frame.children.size(), false);
    for (size_t i = 0; i < frame.children.size(); ++i) {
      ImageView child(layout, frame.children.at(i));
      if (child.name().empty()) {
        visitor.Alias(child);
        frame.walkInto[i] = true;  // the folder itself, under another record
        continue;
      }
      std::string childPath = JoinPath(path, std::string(child.name()));
      bool into = visitor.Entry(childPath, child, depth + 1);
      frame.walkInto[i] = into && child.isDir() && (maxDepth < 0 || depth + 1 < maxDepth);
    }
  };

  push(start, "", 0);
  while (!stack.empty()) {
    Frame& top = stack.back();
    while (top.next < top.children.size() && !top.walkInto[top.next]) ++top.next;
    if (top.next < top.children.size()) {
      size_t i = top.next++;
      ImageView child(layout, top.children.at(i));
      bool alias = child.name().empty();
      std::string path = alias ? top.path : JoinPath(top.path, std::string(child.name()));
      int depth = alias ? top.depth : top.depth + 1;
      std::vector<char> image(top.children.at(i), top.children.at(i) + layout.size);
      push(image.data(), path, depth);  // may move `top`
      continue;
    }
    ImageView folder(layout, top.folder.data());
    bool alias = folder.name().empty() && stack.size() > 1;
    if (!alias) visitor.FolderDone(top.path, folder, top.depth);
    stack.pop_back();
  }
}
