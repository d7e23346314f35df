// ChildProcess: a program started with fork/execv whose standard output
// goes either to /dev/null or to a pipe the parent reads; it can be killed
// with SIGKILL and waited for. Not thread-safe.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

class ChildProcess {
 public:
  // Starts argv[0] with `argv`; standard error goes to /dev/null as well.
  // Throws std::runtime_error when the process cannot be started.
  ChildProcess(const std::vector<std::string>& argv, bool pipeOutput);
  ~ChildProcess();  // kills and reaps a child still running
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  void Kill();
  // Exit status, or -1 when the process did not exit normally (killed).
  int Wait();
  // Everything the child wrote to its output pipe until it closed (after
  // Kill or Wait: the lines already written, none lost).
  std::string ReadAll();

 private:
  pid_t pid_ = -1;
  int status_ = 0;
  int output_ = -1;
};
