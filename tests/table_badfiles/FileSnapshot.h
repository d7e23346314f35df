// FileSnapshot: the names and full contents of every file in a directory, to
// prove that an operation left the directory byte-for-byte as it was (no file
// changed, none created, none removed). fileBytes/writeFile read and write
// one whole file.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>

inline std::string fileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), std::streamsize(bytes.size()));
}

class FileSnapshot {
 public:
  explicit FileSnapshot(const std::string& directory) {
    for (const auto& entry : std::filesystem::directory_iterator(directory))
      files_[entry.path().filename().string()] = fileBytes(entry.path().string());
  }

  bool operator==(const FileSnapshot& other) const { return files_ == other.files_; }

  // What differs between two snapshots, for a failure message.
  std::string diff(const FileSnapshot& after) const {
    std::ostringstream out;
    for (const auto& [name, bytes] : files_) {
      auto it = after.files_.find(name);
      if (it == after.files_.end())
        out << name << " removed; ";
      else if (it->second != bytes)
        out << name << " changed (" << bytes.size() << " -> " << it->second.size() << " bytes); ";
    }
    for (const auto& [name, bytes] : after.files_)
      if (!files_.count(name)) out << name << " created (" << bytes.size() << " bytes); ";
    return out.str();
  }

 private:
  std::map<std::string, std::string> files_;
};
