// Small helpers shared by the table engine's semantic tests.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "TableSchemas.h"
#include "table/TCtreeTable.h"

namespace tabletest {

inline std::string fileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline long long fileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

// A generic-schema record image: guid byte pattern, parent, name.
inline std::vector<uint8_t> genericRecord(uint8_t guid, uint8_t parent, const std::string& name) {
  std::vector<uint8_t> image(440, 0);
  std::memset(image.data(), guid, 16);
  std::memset(image.data() + 16, parent, 16);
  std::memcpy(image.data() + 181, name.data(), std::min<size_t>(name.size(), 255));
  return image;
}

// A small-schema record image.
inline std::vector<uint8_t> smallRecord(uint64_t id, uint64_t group, uint32_t inode,
                                        const std::string& name) {
  std::vector<uint8_t> image(64, 0);
  std::memcpy(image.data(), &id, 8);
  std::memcpy(image.data() + 8, &group, 8);
  std::memcpy(image.data() + 16, &inode, 4);
  std::memcpy(image.data() + 24, name.data(), std::min<size_t>(name.size(), 40));
  return image;
}

// Defines `layout` at `name` and creates the files; the table stays open.
inline int createTable(TCtreeTable& table, const std::string& name, const SchemaLayout& layout) {
  int status = defineSchema(table, name, layout);
  return status ? status : table.create();
}

inline int openTable(TCtreeTable& table, const std::string& name, const SchemaLayout& layout,
                     WZIndexing::TAccessEnum mode = WZIndexing::kAccessReadWrite) {
  int status = defineSchema(table, name, layout);
  return status ? status : table.open(mode);
}

}  // namespace tabletest
