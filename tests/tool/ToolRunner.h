// ToolRunner: runs the wzscandb binary with arguments and collects its exit
// status, standard output and standard error (through files in a scratch
// directory, so that large outputs cannot block on a pipe).
#pragma once

#include <string>
#include <vector>

struct ToolResult {
  int status = -1;  // exit status, or -1 when the tool did not exit normally
  std::string out;
  std::string err;

  std::vector<std::string> OutLines() const;
  std::vector<std::string> ErrLines() const;
};

// Runs WZSCANDB_TOOL with `args`; `scratch` is a directory for the captured
// output files.
ToolResult RunTool(const std::vector<std::string>& args, const std::string& scratch);

std::vector<std::string> SplitLines(const std::string& text);
