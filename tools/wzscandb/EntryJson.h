// The JSON and kind forms of a file-system entry as a scan database holds it.
//
// Every JSON object that describes an entry carries:
//   "path"        the path as the command's text form prints it
//   "kind"        "file", "dir", "symlink", "char", "block", "fifo" or "socket"
//   "size"        size in bytes
//   "mtime", "mtime_nsec", "ctime", "ctime_nsec"
//                 modification and status-change times: seconds since the
//                 epoch and nanoseconds (two integers, exact in any parser)
//   "inode", "dev" the entry's inode and device numbers
//   "ref"         the reference time of the last scan that met it
// A path that is not valid UTF-8 is written with U+FFFD in place of the bad
// bytes, and its exact bytes in "<field>_hex" (two hex digits a byte).
#pragma once

#include <sys/stat.h>

#include <string>

#include <nlohmann/json.hpp>

// "dir" for folders; otherwise the kind of st_mode ("file" when the status
// holds no kind, as for records without a stored status).
const char* KindName(const struct stat& st, bool isDir);
// The one-letter form of KindName: d, f, l, c, b, p, s.
char KindLetter(const struct stat& st, bool isDir);

// Sets `field` (and "<field>_hex" when needed) to `path`.
void PutPath(nlohmann::json& object, const char* field, const std::string& path);
// The exact bytes of a path written by PutPath; empty when `field` is absent.
std::string GetPath(const nlohmann::json& object, const char* field);

// The fields above, "path" included.
nlohmann::json EntryJson(const std::string& path, const struct stat& st, bool isDir,
                         unsigned long long ref);
// Fills a status from EntryJson's fields (kind, size, times, inode, dev).
struct stat StatFromJson(const nlohmann::json& object);

// One line of JSON; invalid UTF-8 cannot occur (PutPath replaced it).
std::string JsonLine(const nlohmann::json& object);

// "2026-11-22 03:12:00" in UTC.
std::string UtcTime(time_t seconds);
