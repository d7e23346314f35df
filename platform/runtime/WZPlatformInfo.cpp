// WZPlatformInfo: the INI-style settings file.
//
// The format read: "[section]" lines open a section; "key = value" lines set a
// value in the current section (spaces around key and value are dropped, a
// value in double quotes loses them); blank lines and lines starting with ';'
// or '#' are ignored, as are lines of any other shape. Section and key names
// compare without regard to ASCII case. When a key appears more than once in
// a section, the last value wins. Values run to the end of the line: there are
// no trailing comments.
#include "runtime/WZPlatformInfo.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "runtime/LogWriter.h"

namespace {

std::string Trim(const std::string& text) {
  const char* kSpace = " \t\r\n\f\v";
  size_t first = text.find_first_not_of(kSpace);
  if (first == std::string::npos) return std::string();
  size_t last = text.find_last_not_of(kSpace);
  return text.substr(first, last - first + 1);
}

bool EqualNoCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

// Finds `name` in `section` of the settings file; true when found.
bool ReadSetting(const std::string& section, const std::string& name, std::string* value) {
  const char* path = std::getenv(WZPlatformInfo::kSettingsFileVariable);
  if (path == nullptr || *path == '\0') return false;
  std::ifstream file(path, std::ios::binary);
  if (!file) return false;

  bool inSection = false;
  bool found = false;
  std::string line;
  bool firstLine = true;
  while (std::getline(file, line)) {
    if (firstLine && line.compare(0, 3, "\xEF\xBB\xBF") == 0) line.erase(0, 3);
    firstLine = false;
    std::string text = Trim(line);
    if (text.empty() || text[0] == ';' || text[0] == '#') continue;
    if (text[0] == '[') {
      size_t close = text.rfind(']');
      // A broken header line ends the current section: its keys belong nowhere.
      inSection = close != std::string::npos &&
                  EqualNoCase(Trim(text.substr(1, close - 1)), section);
      continue;
    }
    if (!inSection) continue;
    size_t equals = text.find('=');
    if (equals == std::string::npos) continue;
    if (!EqualNoCase(Trim(text.substr(0, equals)), name)) continue;
    std::string found_value = Trim(text.substr(equals + 1));
    if (found_value.size() >= 2 && found_value.front() == '"' && found_value.back() == '"')
      found_value = found_value.substr(1, found_value.size() - 2);
    *value = found_value;
    found = true;
  }
  return found;
}

}  // namespace

namespace WZPlatformInfo {

bool getRegString(const std::string& section, const std::string& name, std::string* value) {
  if (value == nullptr) return false;
  std::string text;
  if (!ReadSetting(section, name, &text)) return false;
  *value = text;
  return true;
}

bool getRegInt(const std::string& section, const std::string& name, int* value) {
  if (value == nullptr) return false;
  std::string text;
  if (!ReadSetting(section, name, &text)) return false;
  errno = 0;
  char* end = nullptr;
  long long number = text.empty() ? 0 : std::strtoll(text.c_str(), &end, 10);
  if (text.empty() || end == text.c_str() || *end != '\0' || errno == ERANGE ||
      number < INT_MIN || number > INT_MAX) {
    WZ_LOG(-1,
           "bool WZPlatformInfo::getRegInt(const std::string&, const std::string&, int*)",
           __LINE__, "Setting \"%s\" in section \"%s\" is not a whole number: \"%s\"",
           name.c_str(), section.c_str(), text.c_str());
    return false;
  }
  *value = static_cast<int>(number);
  return true;
}

}  // namespace WZPlatformInfo
