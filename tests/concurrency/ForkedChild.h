// ForkedChild: a function run in a child process made with fork(), for tests
// of processes that share a table's files.
//
//   ForkedChild child([&](ForkedChild::Channel& channel) {
//     ... channel.Tell('c');  channel.Listen();  channel.report += "...";
//     return 0;                                  // the child's exit status
//   });
//   child.Heard();  child.Say();                 // one byte each way
//   ForkedChild::Result result = child.Wait();   // status, signal, report
//
// The child ends with _exit (no atexit handlers, no gtest output of its own)
// and dies by SIGALRM after `alarmSeconds`, so a hang fails instead of
// stalling the suite. The parent must have no other threads when it forks.
// A child still running when the object goes away is killed and reaped.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

class ForkedChild {
 public:
  struct Channel {
    int up = -1, down = -1;
    std::string report;  // sent to the parent when the function returns
    void Tell(char c) { (void)!::write(up, &c, 1); }
    // Waits for a byte from the parent; false when the parent closed its end.
    bool Listen() {
      char c;
      return ::read(down, &c, 1) == 1;
    }
  };
  struct Result {
    bool exited = false;
    int status = -1;  // exit status when exited
    int signal = 0;   // the signal that ended it otherwise
    std::string report;
    std::string Describe() const {
      return (exited ? "exit " + std::to_string(status) : "signal " + std::to_string(signal)) +
             (report.empty() ? "" : ": " + report);
    }
  };

  explicit ForkedChild(const std::function<int(Channel&)>& body, unsigned alarmSeconds = 120) {
    int up[2], down[2];
    if (pipe(up) != 0 || pipe(down) != 0) throw std::runtime_error("pipe failed");
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
      ::close(up[0]);
      ::close(down[1]);
      for (int fd : ParentEnds()) ::close(fd);  // other children's pipes
      alarm(alarmSeconds);
      Channel channel;
      channel.up = up[1];
      channel.down = down[0];
      int status = 99;
      try {
        status = body(channel);
      } catch (const std::exception& e) {
        channel.report += std::string("exception: ") + e.what();
      }
      (void)!::write(up[1], channel.report.data(), channel.report.size());
      _exit(status);
    }
    ::close(up[1]);
    ::close(down[0]);
    up_ = up[0];
    down_ = down[1];
    ParentEnds().push_back(up_);
    ParentEnds().push_back(down_);
  }
  ~ForkedChild() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      Wait();
    }
    Forget(up_);
    Forget(down_);
  }
  ForkedChild(const ForkedChild&) = delete;
  ForkedChild& operator=(const ForkedChild&) = delete;

  pid_t pid() const { return pid_; }
  // Waits for one byte the child told; 0 when it ended without one.
  char Heard() {
    char c = 0;
    return ::read(up_, &c, 1) == 1 ? c : 0;
  }
  void Say(char c = 'g') { (void)!::write(down_, &c, 1); }
  // Closes the parent's end of the down pipe: the child's Listen() answers false.
  void Hangup() {
    Forget(down_);
  }
  void Kill(int signal = SIGKILL) {
    if (pid_ > 0) kill(pid_, signal);
  }
  Result Wait() {
    Result result;
    char buffer[4096];
    for (ssize_t n; (n = ::read(up_, buffer, sizeof buffer)) > 0;)
      result.report.append(buffer, static_cast<size_t>(n));
    int status = 0;
    if (pid_ > 0 && waitpid(pid_, &status, 0) == pid_) {
      result.exited = WIFEXITED(status);
      result.status = result.exited ? WEXITSTATUS(status) : -1;
      result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }
    pid_ = -1;
    return result;
  }

 private:
  // The parent's ends of every child's pipes, closed in each new child.
  static std::vector<int>& ParentEnds() {
    static std::vector<int> ends;
    return ends;
  }
  static void Forget(int& fd) {
    if (fd < 0) return;
    ::close(fd);
    auto& ends = ParentEnds();
    ends.erase(std::remove(ends.begin(), ends.end(), fd), ends.end());
    fd = -1;
  }

  pid_t pid_ = -1;
  int up_ = -1, down_ = -1;
};
