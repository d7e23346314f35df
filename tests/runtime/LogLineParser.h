// Test helpers that check the shape of rendered time stamps and log lines
// without std::regex (which trips GCC's maybe-uninitialized warning in
// sanitizer builds).
#pragma once

#include <cctype>
#include <cstdlib>
#include <string>

// True when `text` has the length of `shape` and a digit wherever `shape`
// has '9'; every other character of `shape` must appear as it is.
inline bool MatchesShape(const std::string& text, const std::string& shape) {
  if (text.size() != shape.size()) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (shape[i] == '9' ? !std::isdigit(static_cast<unsigned char>(text[i]))
                        : text[i] != shape[i])
      return false;
  }
  return true;
}

constexpr const char* kStampShape = "9999-99-99 99:99:99.999999";

// A log line "<stamp> [tid N] L<level> <function>:<line> <message>" taken
// apart. The function ends at the first ":<digits> " (signatures have "::"
// followed by names, never by digits).
struct ParsedLogLine {
  unsigned long threadId = 0;
  int level = 0;
  std::string function;
  int line = 0;
  std::string message;
};

inline bool ParseLogLine(const std::string& text, ParsedLogLine* out) {
  const std::string stampShape = kStampShape;
  if (text.size() < stampShape.size() ||
      !MatchesShape(text.substr(0, stampShape.size()), stampShape))
    return false;
  size_t pos = stampShape.size();
  const std::string tidTag = " [tid ";
  if (text.compare(pos, tidTag.size(), tidTag) != 0) return false;
  pos += tidTag.size();
  char* end = nullptr;
  out->threadId = std::strtoul(text.c_str() + pos, &end, 10);
  if (end == text.c_str() + pos || std::string(end, 3) != "] L") return false;
  pos = static_cast<size_t>(end - text.c_str()) + 3;
  const char* levelStart = text.c_str() + pos;
  out->level = static_cast<int>(std::strtol(levelStart, &end, 10));
  if (end == levelStart || *end != ' ') return false;
  pos = static_cast<size_t>(end - text.c_str()) + 1;
  for (size_t colon = text.find(':', pos); colon != std::string::npos;
       colon = text.find(':', colon + 1)) {
    size_t digits = colon + 1;
    while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits])))
      ++digits;
    if (digits == colon + 1 || digits >= text.size() || text[digits] != ' ') continue;
    out->function = text.substr(pos, colon - pos);
    out->line = std::atoi(text.c_str() + colon + 1);
    out->message = text.substr(digits + 1);
    return true;
  }
  return false;
}
