#include "EntryJson.h"

#include <ctime>

namespace {

// True when `text` is well-formed UTF-8 (no overlong forms or surrogates).
bool IsUtf8(const std::string& text) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text.data());
  const unsigned char* end = p + text.size();
  while (p < end) {
    unsigned char c = *p;
    if (c < 0x80) {
      ++p;
      continue;
    }
    int extra;
    uint32_t code;
    if ((c & 0xE0) == 0xC0) {
      extra = 1;
      code = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      extra = 2;
      code = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      extra = 3;
      code = c & 0x07;
    } else {
      return false;
    }
    if (end - p <= extra) return false;
    for (int i = 1; i <= extra; ++i) {
      if ((p[i] & 0xC0) != 0x80) return false;
      code = (code << 6) | (p[i] & 0x3F);
    }
    static const uint32_t kMinimum[4] = {0, 0x80, 0x800, 0x10000};
    if (code < kMinimum[extra] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
      return false;
    p += extra + 1;
  }
  return true;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

const char* KindName(const struct stat& st, bool isDir) {
  if (isDir) return "dir";
  switch (st.st_mode & S_IFMT) {
    case S_IFDIR: return "dir";
    case S_IFLNK: return "symlink";
    case S_IFCHR: return "char";
    case S_IFBLK: return "block";
    case S_IFIFO: return "fifo";
    case S_IFSOCK: return "socket";
    default: return "file";
  }
}

char KindLetter(const struct stat& st, bool isDir) {
  const char* name = KindName(st, isDir);
  switch (name[0]) {
    case 'd': return 'd';
    case 's': return name[1] == 'y' ? 'l' : 's';
    case 'c': return 'c';
    case 'b': return 'b';
    case 'f': return name[1] == 'i' && name[2] == 'f' ? 'p' : 'f';
    default: return 'f';
  }
}

void PutPath(nlohmann::json& object, const char* field, const std::string& path) {
  object[field] = path;
  if (IsUtf8(path)) return;
  static const char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(path.size() * 2);
  for (unsigned char c : path) {
    hex += kHex[c >> 4];
    hex += kHex[c & 15];
  }
  object[std::string(field) + "_hex"] = hex;
}

std::string GetPath(const nlohmann::json& object, const char* field) {
  auto hex = object.find(std::string(field) + "_hex");
  if (hex != object.end() && hex->is_string()) {
    const std::string& digits = hex->get_ref<const std::string&>();
    std::string bytes;
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
      int high = HexDigit(digits[i]), low = HexDigit(digits[i + 1]);
      if (high < 0 || low < 0) break;
      bytes += static_cast<char>(high * 16 + low);
    }
    return bytes;
  }
  auto text = object.find(field);
  return text != object.end() && text->is_string() ? text->get<std::string>() : std::string();
}

nlohmann::json EntryJson(const std::string& path, const struct stat& st, bool isDir,
                         unsigned long long ref) {
  nlohmann::json object;
  PutPath(object, "path", path);
  object["kind"] = KindName(st, isDir);
  object["size"] = static_cast<int64_t>(st.st_size);
  object["mtime"] = static_cast<int64_t>(st.st_mtim.tv_sec);
  object["mtime_nsec"] = static_cast<int64_t>(st.st_mtim.tv_nsec);
  object["ctime"] = static_cast<int64_t>(st.st_ctim.tv_sec);
  object["ctime_nsec"] = static_cast<int64_t>(st.st_ctim.tv_nsec);
  object["inode"] = static_cast<uint64_t>(st.st_ino);
  object["dev"] = static_cast<uint64_t>(st.st_dev);
  object["ref"] = ref;
  return object;
}

struct stat StatFromJson(const nlohmann::json& object) {
  struct stat st = {};
  std::string kind = object.value("kind", "file");
  st.st_mode = kind == "dir"       ? S_IFDIR
               : kind == "symlink" ? S_IFLNK
               : kind == "char"    ? S_IFCHR
               : kind == "block"   ? S_IFBLK
               : kind == "fifo"    ? S_IFIFO
               : kind == "socket"  ? S_IFSOCK
                                   : S_IFREG;
  st.st_size = object.value("size", int64_t{0});
  st.st_mtim.tv_sec = object.value("mtime", int64_t{0});
  st.st_mtim.tv_nsec = object.value("mtime_nsec", int64_t{0});
  st.st_ctim.tv_sec = object.value("ctime", int64_t{0});
  st.st_ctim.tv_nsec = object.value("ctime_nsec", int64_t{0});
  st.st_ino = object.value("inode", uint64_t{0});
  st.st_dev = object.value("dev", uint64_t{0});
  return st;
}

std::string JsonLine(const nlohmann::json& object) {
  return object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string UtcTime(time_t seconds) {
  struct tm parts;
  char text[32];
  gmtime_r(&seconds, &parts);
  std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}
