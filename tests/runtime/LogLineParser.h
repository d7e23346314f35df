// Checks the shape of rendered time stamps and log lines without std::regex
// (which trips GCC's maybe-uninitialized warning in sanitizer builds).
#pragma once

#include <cctype>
#include <string>

// True when `text` has the length of `shape` and a digit wherever `shape`
// has '9'; every other character of `shape` must appear as it is.
inline bool MatchesShape(const std::string& text, const std::string& shape) {
  if (text.size() != shape.size()) return false;
  for (size_t i = 0; i < text.size(); ++i)
    if (shape[i] == '9' ? !std::isdigit(static_cast<unsigned char>(text[i])) : text[i] != shape[i]) return false;
  return true;
}

constexpr const char* kStampShape = "9999-99-99 99:99:99.999999";

// A written log line "<stamp> [tid N] L<level> <function>:<line> <message>"
// without its stamp, or "bad stamp: <line>".
inline std::string WithoutStamp(const std::string& line) {
  return line.size() > 26 && MatchesShape(line.substr(0, 26), kStampShape) ? line.substr(26) : "bad stamp: " + line;
}
