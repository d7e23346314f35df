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

// Exit status of a child that could not give up the capabilities that let
// root read any directory (see RunTool).
constexpr int kCannotDropCapabilities = 125;

// Runs WZSCANDB_TOOL with `args`; `scratch` is a directory for the captured
// output files. With `obeyPermissions` the tool runs without the
// capabilities that let root ignore file permissions (CAP_DAC_OVERRIDE and
// CAP_DAC_READ_SEARCH), so that a directory of mode 000 is unreadable to it
// even under root; when they cannot be dropped the status is
// kCannotDropCapabilities.
ToolResult RunTool(const std::vector<std::string>& args, const std::string& scratch,
                   bool obeyPermissions = false);

std::vector<std::string> SplitLines(const std::string& text);
