#include "ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

ChildProcess::ChildProcess(const std::vector<std::string>& argv, bool pipeOutput) {
  int fds[2] = {-1, -1};
  if (pipeOutput && pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  std::vector<char*> pointers;
  for (const std::string& arg : argv) pointers.push_back(const_cast<char*>(arg.c_str()));
  pointers.push_back(nullptr);
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("cannot fork to start " + argv[0]);
  if (pid_ == 0) {
    const int null = open("/dev/null", O_WRONLY);
    dup2(pipeOutput ? fds[1] : null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    execv(pointers[0], pointers.data());
    _exit(127);
  }
  if (pipeOutput) {
    close(fds[1]);
    output_ = fds[0];
  }
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    Kill();
    Wait();
  }
  if (output_ >= 0) close(output_);
}

void ChildProcess::Kill() {
  if (pid_ > 0) ::kill(pid_, SIGKILL);
}

int ChildProcess::Wait() {
  if (pid_ > 0) {
    while (waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
  }
  return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
}

std::string ChildProcess::ReadAll() {
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t n = read(output_, buffer, sizeof buffer);
    if (n > 0) {
      text.append(buffer, static_cast<size_t>(n));
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      break;
    }
  }
  return text;
}
