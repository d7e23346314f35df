// TreeModel: a tree of folders and files in memory, to work out what the
// scan database should answer about the same tree stored as records.
//
//   TreeModel t;                                  // node 0 is the root folder
//   int a = t.addFolder(0, "a");
//   t.addFile(a, "f");
//   t.breadthFirst(a);                            // expected walk order below a
//
// Children are ordered as the parent-and-name index orders them: byte-wise on
// the first 56 bytes of the name, shorter first; names that agree on those
// keep insertion order (the index's order among equal keys is the engine's
// business). Walks are breadth-first, expanding folders in the order met.
#pragma once

#include <cstdint>
#include <deque>
#include <random>
#include <string>
#include <vector>

struct TreeModel {
  struct Node {
    std::string name;
    int parent;  // -1 for the root
    bool isDir;
    std::vector<int> children;  // in insertion order
  };
  std::vector<Node> nodes{Node{"", -1, true, {}}};

  int size() const { return static_cast<int>(nodes.size()); }
  int add(int parent, const std::string& name, bool isDir) {
    nodes.push_back(Node{name, parent, isDir, {}});
    nodes.at(parent).children.push_back(size() - 1);
    return size() - 1;
  }
  int addFolder(int parent, const std::string& name) { return add(parent, name, true); }
  int addFile(int parent, const std::string& name) { return add(parent, name, false); }

  std::vector<int> childrenInKeyOrder(int folder) const {
    std::vector<int> ordered = nodes.at(folder).children;
    std::stable_sort(ordered.begin(), ordered.end(), [this](int a, int b) {
      return nodes[a].name.substr(0, 56) < nodes[b].name.substr(0, 56);
    });
    return ordered;
  }
  // Every node below `start` (not `start` itself), breadth-first.
  std::vector<int> breadthFirst(int start) const {
    std::vector<int> order;
    for (std::deque<int> folders{start}; !folders.empty(); folders.pop_front())
      for (int child : childrenInKeyOrder(folders.front())) {
        order.push_back(child);
        if (nodes[child].isDir) folders.push_back(child);
      }
    return order;
  }
  // "sub/name" for a node below its ancestor `start`; the full path is "/"
  // for the root, "/a/b" below it.
  std::string relativePath(int start, int id) const {
    std::string path = nodes.at(id).name;
    for (int up = nodes[id].parent; up != start; up = nodes.at(up).parent)
      path = nodes.at(up).name + "/" + path;
    return path;
  }
  std::string fullPath(int id) const { return "/" + (id ? relativePath(0, id) : ""); }

  // `count` children named prefix + 6 digits; every `folderEvery`-th one
  // (0: none) is a folder. Returns their ids.
  std::vector<int> addFlat(int parent, int count, const std::string& prefix, int folderEvery) {
    std::vector<int> ids;
    for (int i = 0; i < count; ++i)
      ids.push_back(add(parent, prefix + std::to_string(1000000 + i).substr(1),
                        folderEvery > 0 && i % folderEvery == 0));
    return ids;
  }
  // `count` entries below `parent`, up to `maxFanOut` per folder, with names
  // of 1 to 80 bytes, bytes above 0x7f among them (to catch signed
  // comparisons), unique in the tree.
  void addRandom(int parent, int count, int maxFanOut, uint32_t seed) {
    static const char kAlphabet[] =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-\xc3\xa9\xe2\x82\xac";
    std::mt19937 rng(seed);
    std::deque<int> folders;
    for (int made = 0; made < count;) {
      const int folder = folders.empty() ? parent : folders.front();
      if (!folders.empty()) folders.pop_front();
      for (int i = 1 + int(rng() % unsigned(maxFanOut)); i > 0 && made < count; --i, ++made) {
        std::string name(1 + rng() % 80, ' ');
        for (char& c : name) c = kAlphabet[rng() % (sizeof kAlphabet - 1)];
        const int id = add(folder, name + "~" + std::to_string(made), rng() % 3 == 0);
        if (nodes[id].isDir) folders.push_back(id);
      }
    }
  }
};
