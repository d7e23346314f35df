#include "ToolRunner.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

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

ToolResult RunTool(const std::vector<std::string>& args, const std::string& scratch,
                   bool obeyPermissions) {
  const std::string outPath = scratch + "/tool.out";
  const std::string errPath = scratch + "/tool.err";
  std::vector<std::string> argv{WZSCANDB_TOOL};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> pointers;
  for (std::string& arg : argv) pointers.push_back(arg.data());
  pointers.push_back(nullptr);

  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("cannot fork to start " + argv[0]);
  if (pid == 0) {
    int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(127);
    // The tool's log follows these when set; its output is what is tested.
    unsetenv("WZ_LOG_FILE");
    unsetenv("WZ_LOG_LEVEL");
    // Dropped from the bounding set, the capabilities do not come back when
    // root executes the tool.
    if (obeyPermissions && (prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0) != 0 ||
                            prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH, 0, 0, 0) != 0))
      _exit(kCannotDropCapabilities);
    execv(pointers[0], pointers.data());
    _exit(127);
  }
  int waitStatus = 0;
  while (waitpid(pid, &waitStatus, 0) < 0) {
  }
  ToolResult result;
  result.status = WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -1;
  result.out = ReadFile(outPath);
  result.err = ReadFile(errPath);
  return result;
}
