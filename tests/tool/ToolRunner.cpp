#include "ToolRunner.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace {

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> ToolResult::OutLines() const { return SplitLines(out); }
std::vector<std::string> ToolResult::ErrLines() const { return SplitLines(err); }

ToolResult RunTool(const std::vector<std::string>& args, const std::string& scratch) {
  const std::string outPath = scratch + "/tool.out";
  const std::string errPath = scratch + "/tool.err";
  std::vector<std::string> argv{WZSCANDB_TOOL};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> pointers;
  for (std::string& arg : argv) pointers.push_back(arg.data());
  pointers.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  pid_t pid = 0;
  int rc = posix_spawn(&pid, pointers[0], &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw std::runtime_error("cannot start " + argv[0]);

  int waitStatus = 0;
  while (waitpid(pid, &waitStatus, 0) < 0) {
  }
  ToolResult result;
  result.status = WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -1;
  result.out = ReadFile(outPath);
  result.err = ReadFile(errPath);
  return result;
}
