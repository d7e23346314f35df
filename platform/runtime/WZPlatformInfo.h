// WZPlatformInfo: the agent's settings.
//
// Settings live in one INI-style file whose path is the environment variable
// WZ_SETTINGS_FILE (no variable: no settings). Sections are "[name]" lines,
// values "key = value" lines; lines starting with ';' or '#' are comments.
// Section and key names compare without regard to ASCII case, and the last
// of repeated keys wins. The file is read on every call, so a changed file
// takes effect at the next read. Thread-safe.
//
// getRegInt stores the value in *value and returns true when the file, the
// section and the name exist and the value is a whole number in int range.
// Otherwise it leaves *value untouched and returns false; a value that is
// present but malformed also writes one warning line (level -1).
#pragma once

#include <string>

#include "runtime/WzRuntimeExport.h"

namespace WZPlatformInfo {
WZRT_API bool getRegInt(const std::string& section, const std::string& name, int* value);
WZRT_API bool getRegString(const std::string& section, const std::string& name,
                           std::string* value);
// Name of the environment variable that holds the settings file's path.
constexpr const char* kSettingsFileVariable = "WZ_SETTINGS_FILE";
}  // namespace WZPlatformInfo
