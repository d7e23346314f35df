// Helpers of the table engine's tests: a second schema beside the generic
// record's, record images, key building through the engine, file contents.
#pragma once

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/SchemaLayout.h"
#include "table/TCtreeTable.h"

namespace tabletest {

// 64-bit integer fields and a case-insensitive string segment: index 0 unique
// on id; index 1 with duplicates on group + name; index 2 with duplicates on
// a 32-bit inode, key type 12.
inline SchemaLayout smallSchema() {
  return SchemaLayout{true,
                      64,
                      24,
                      {{"id", 0, kFieldUInt64, 8},
                       {"group", 8, kFieldUInt64, 8},
                       {"inode", 16, kFieldUInt32, 4},
                       {"kind", 20, kFieldUInt8, 1},
                       {"name", 24, kFieldString, 40}},
                      {{"id", 8, kKeyFixed, 0, 1, 0},
                       {"group_name", 24, kKeyFixed, 1, 2, 1},
                       {"inode", 4, kKeyCompressBoth, 1, 1, 3}},
                      {{0, 8, 1}, {1, 8, 1}, {4, 16, 0}, {2, 4, 1}}};
}

using Image = std::vector<uint8_t>;

inline Image genericRecord(uint8_t guid, uint8_t parent, const std::string& name) {
  Image image(440, 0);
  std::memset(image.data(), guid, 16);
  std::memset(image.data() + 16, parent, 16);
  std::memcpy(image.data() + 181, name.data(), std::min<size_t>(name.size(), 255));
  return image;
}

inline Image smallRecord(uint64_t id, uint64_t group, uint32_t inode, const std::string& name) {
  Image image(64, 0);
  std::memcpy(image.data(), &id, 8);
  std::memcpy(image.data() + 8, &group, 8);
  std::memcpy(image.data() + 16, &inode, 4);
  std::memcpy(image.data() + 24, name.data(), std::min<size_t>(name.size(), 40));
  return image;
}

inline bool fileExists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

// The key of `index` built from an image through fillKeySegment / finishKey,
// into a buffer with 32 spare bytes as the scan database does.
inline Image engineKey(TCtreeTable& table, const SchemaLayout& layout, int index,
                       const uint8_t* image, int* status = nullptr) {
  const auto& ix = layout.indexes[index];
  Image buffer(ix.keyLength + 32, 0);
  char* cursor = reinterpret_cast<char*>(buffer.data());
  int remaining = int(buffer.size()), rc = 0;
  for (int s = 0; s < ix.numSegments && rc == 0; ++s) {
    const auto& seg = layout.segments[ix.firstSegment + s];
    rc = table.fillKeySegment(&cursor, &remaining, image + layout.fields[seg.field].offset, 0,
                              index, s);
  }
  if (rc == 0) rc = table.finishKey(&cursor, &remaining, index, 0);
  if (status) *status = rc;
  buffer.resize(ix.keyLength);
  return buffer;
}

inline int createTable(TCtreeTable& table, const std::string& name, const SchemaLayout& layout) {
  int status = defineSchema(table, name, layout);
  return status ? status : table.create();
}

inline int openTable(TCtreeTable& table, const std::string& name, const SchemaLayout& layout,
                     WZIndexing::TAccessEnum mode = WZIndexing::kAccessReadWrite) {
  int status = defineSchema(table, name, layout);
  return status ? status : table.open(mode);
}

inline std::string fileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), std::streamsize(bytes.size()));
}

inline long long fileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

}  // namespace tabletest
