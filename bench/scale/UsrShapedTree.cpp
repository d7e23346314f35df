// UsrShapedTree: the generator.
#include "UsrShapedTree.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <deque>
#include <unordered_map>

namespace {

// A value drawn from a distribution given as its 1000 quantiles, run-length
// coded: {value, how many of the 1000}. The last thousandth is the tail,
// drawn log-uniformly between two values chosen so that the mean matches.
struct Run {
  uint32_t value;
  uint32_t count;
};

// Measured on /usr of Debian 12 (see the header).
constexpr Run kFilesPerFolder[] = {
    {0, 109}, {1, 181}, {2, 164}, {3, 124}, {4, 111}, {5, 51}, {6, 48}, {7, 35}, {8, 22},
    {9, 19},  {10, 15}, {11, 10}, {12, 11}, {13, 9},  {14, 7}, {15, 5}, {16, 6}, {17, 5},
    {18, 4},  {19, 4},  {20, 3},  {21, 3},  {22, 2},  {23, 3}, {24, 1}, {25, 5}, {26, 2},
    {27, 2},  {28, 2},  {29, 1},  {30, 1},  {31, 1},  {32, 2}, {33, 1}, {34, 1}, {36, 2},
    {38, 1},  {39, 1},  {41, 1},  {43, 1},  {44, 1},  {46, 1}, {47, 1}, {48, 1}, {49, 1},
    {52, 1},  {53, 1},  {56, 1},  {59, 1},  {62, 1},  {65, 1}, {70, 1}, {75, 1}, {83, 1},
    {90, 1},  {99, 1},  {116, 1}, {134, 1}, {148, 1}, {171, 1}, {194, 1}, {229, 1}, {287, 1}};
constexpr double kFilesTail[] = {416, 4700};
constexpr Run kFoldersPerFolder[] = {{0, 614}, {1, 256}, {2, 61}, {3, 27}, {4, 12}, {5, 7},
                                     {6, 5},   {7, 3},   {8, 2},  {9, 2},  {10, 1}, {11, 1},
                                     {12, 1},  {13, 2},  {14, 1}, {17, 1}, {21, 1}, {31, 1},
                                     {53, 1},  {127, 1}};
constexpr double kFoldersTail[] = {70, 360};
constexpr Run kFileNameLength[] = {
    {2, 2},   {3, 2},   {4, 6},   {5, 16},  {6, 23},  {7, 41},  {8, 40},  {9, 64},  {10, 51},
    {11, 86}, {12, 72}, {13, 45}, {14, 35}, {15, 31}, {16, 27}, {17, 26}, {18, 23}, {19, 28},
    {20, 27}, {21, 22}, {22, 28}, {23, 18}, {24, 46}, {25, 17}, {26, 13}, {27, 11}, {28, 10},
    {29, 10}, {30, 9},  {31, 9},  {32, 8},  {33, 7},  {34, 8},  {35, 8},  {36, 7},  {37, 7},
    {38, 8},  {39, 6},  {40, 6},  {41, 7},  {42, 6},  {43, 6},  {44, 8},  {45, 5},  {46, 6},
    {47, 5},  {48, 5},  {49, 4},  {50, 4},  {51, 4},  {52, 4},  {53, 2},  {54, 3},  {55, 3},
    {56, 3},  {57, 2},  {58, 2},  {59, 3},  {60, 1},  {61, 2},  {62, 1},  {63, 2},  {64, 1},
    {65, 1},  {66, 1},  {67, 1},  {68, 1},  {69, 1},  {71, 1},  {74, 1},  {79, 1}};
constexpr double kFileNameTail[] = {79, 97};
constexpr Run kFolderNameLength[] = {
    {1, 4},   {2, 42},  {3, 66},  {4, 65},  {5, 54},  {6, 95},  {7, 81},  {8, 67},  {9, 56},
    {10, 68}, {11, 256}, {12, 26}, {13, 19}, {14, 16}, {15, 15}, {16, 11}, {17, 11}, {18, 9},
    {19, 10}, {20, 6},  {21, 4},  {22, 4},  {23, 3},  {24, 1},  {25, 2},  {26, 1},  {27, 1},
    {28, 1},  {29, 2},  {30, 1},  {33, 1},  {34, 1},  {37, 1}};
constexpr double kFolderNameTail[] = {37, 42};

// splitmix64: a small, fast generator that any 64-bit seed starts well.
class Rng {
 public:
  explicit Rng(uint64_t seed) : state_(seed) {}
  uint64_t next() {
    uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
  }
  double unit() { return (next() >> 11) * (1.0 / 9007199254740992.0); }

 private:
  uint64_t state_;
};

uint64_t Mix(uint64_t a, uint64_t b, uint64_t c) {
  Rng rng(a * 0x100000001b3ULL ^ b * 0x9e3779b97f4a7c15ULL ^ c * 0xc2b2ae3d27d4eb4fULL);
  return rng.next();
}

template <size_t N>
uint32_t Draw(Rng& rng, const Run (&runs)[N], const double (&tail)[2]) {
  uint32_t at = static_cast<uint32_t>(rng.unit() * 1000);
  for (const Run& run : runs) {
    if (at < run.count) return run.value;
    at -= run.count;
  }
  return static_cast<uint32_t>(tail[0] * std::pow(tail[1] / tail[0], rng.unit()));
}

// A name of `length` bytes (at least the suffix and one byte) of letters,
// digits, '.' and '-', ending in "_" and the child's number in base 36,
// which keeps it unique in its folder.
std::string MakeName(Rng& rng, uint32_t length, uint32_t child) {
  static const char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789.-";
  std::string suffix = "_";
  do {
    suffix.insert(1, 1, "0123456789abcdefghijklmnopqrstuvwxyz"[child % 36]);
    child /= 36;
  } while (child);
  const size_t stem = length > suffix.size() ? length - suffix.size() : 1;
  std::string name;
  name.reserve(stem + suffix.size());
  for (size_t i = 0; i < stem; ++i) name += kAlphabet[rng.next() % (sizeof kAlphabet - 1)];
  return name + suffix;
}

}  // namespace

UsrShapedTree::UsrShapedTree(uint64_t entries, uint32_t seed) : entries_(entries), seed_(seed) {
  folders_.push_back(Folder{0, 0, 0, 0, 0});  // the root
  std::unordered_map<uint32_t, uint32_t> hostChildren;  // children made so far
  uint64_t made = 0;
  for (uint32_t host = 0; made < entries; ++host) {
    const uint64_t budget = std::min<uint64_t>(kHostEntries, entries - made);
    char name[32];
    std::snprintf(name, sizeof name, "host%04u", host);
    addFolder(0, name);
    const uint32_t root = static_cast<uint32_t>(folders_.size() - 1);
    uint64_t hostMade = 1;
    std::deque<uint32_t> queue{root};
    while (hostMade < budget) {
      if (queue.empty()) {
        // The host's folders ran out: one more folder just below it.
        Rng rng(Mix(seed_, root, hostChildren[root]));
        addFolder(root, MakeName(rng, Draw(rng, kFolderNameLength, kFolderNameTail),
                                 hostChildren[root]++));
        ++hostMade;
        queue.push_back(static_cast<uint32_t>(folders_.size() - 1));
        continue;
      }
      const uint32_t f = queue.front();
      queue.pop_front();
      Rng rng(Mix(seed_, f, ~0ULL));
      uint64_t files = Draw(rng, kFilesPerFolder, kFilesTail);
      uint64_t subFolders = Draw(rng, kFoldersPerFolder, kFoldersTail);
      files = std::min(files, budget - hostMade);
      hostMade += files;
      folders_[f].files = static_cast<uint32_t>(files);
      subFolders = std::min(subFolders, budget - hostMade);
      for (uint32_t k = 0; k < subFolders; ++k) {
        const uint32_t child = static_cast<uint32_t>(files) + k;
        Rng named(Mix(seed_, f, child));
        addFolder(f, MakeName(named, Draw(named, kFolderNameLength, kFolderNameTail), child));
        queue.push_back(static_cast<uint32_t>(folders_.size() - 1));
      }
      hostMade += subFolders;
      if (f == root) hostChildren[root] = static_cast<uint32_t>(files + subFolders);
    }
    made += hostMade;
  }
  for (size_t f = folders_.size() - 1; f > 0; --f) {
    folders_[f].below += folders_[f].files;
    folders_[folders_[f].parent].below += folders_[f].below + 1;
  }
}

void UsrShapedTree::addFolder(uint32_t parent, const std::string& name) {
  folders_.push_back(Folder{parent, static_cast<uint32_t>(names_.size()), 0,
                            static_cast<uint8_t>(name.size()), 0});
  names_ += name;
}

std::string UsrShapedTree::folderPath(size_t f) const {
  if (f == 0) return "/";
  std::string path;
  for (size_t at = f; at != 0; at = folders_[at].parent)
    path.insert(0, "/" + names_.substr(folders_[at].nameOffset, folders_[at].nameLength));
  return path;
}

std::string UsrShapedTree::fileName(size_t folder, uint32_t index) const {
  Rng rng(Mix(seed_, folder, index));
  return MakeName(rng, Draw(rng, kFileNameLength, kFileNameTail), index);
}

void UsrShapedTree::forEachEntry(
    const std::function<void(const std::string&, bool)>& visit) const {
  std::string file;
  for (size_t f = 1; f < folders_.size(); ++f) {
    const std::string path = folderPath(f);
    visit(path, true);
    for (uint32_t i = 0; i < folders_[f].files; ++i) {
      file.assign(path).append("/").append(fileName(f, i));
      visit(file, false);
    }
  }
}

std::vector<size_t> UsrShapedTree::chooseFolders(uint64_t target,
                                                 std::vector<bool>& taken) const {
  taken.resize(folders_.size(), false);
  std::vector<bool> holds(folders_.size(), false);  // has a taken folder below
  for (size_t f = 1; f < folders_.size(); ++f)
    if (taken[f])
      for (size_t up = folders_[f].parent; up != 0; up = folders_[up].parent) holds[up] = true;
  std::vector<size_t> chosen;
  uint64_t total = 0;
  for (size_t f = 1; f < folders_.size() && total < target; ++f) {
    const uint64_t size = folders_[f].below + 1;
    if (taken[f] || holds[f] || total + size > target) continue;
    bool inside = false;
    for (size_t up = folders_[f].parent; up != 0 && !inside; up = folders_[up].parent)
      inside = taken[up];
    if (inside) continue;
    taken[f] = true;
    for (size_t up = folders_[f].parent; up != 0; up = folders_[up].parent) holds[up] = true;
    chosen.push_back(f);
    total += size;
  }
  return chosen;
}
