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
    bool Listen() { return ::read(down, &scratch, 1) == 1; }
    char scratch = 0;
  };
  struct Result {
    bool exited = false;
    int status = -1, signal = 0;  // the exit status when exited, else the signal that ended it
    std::string report;
    std::string Describe() const {
      return (exited ? "exit " + std::to_string(status) : "signal " + std::to_string(signal)) +
             (report.empty() ? "" : ": " + report);
    }
  };

  explicit ForkedChild(const std::function<int(Channel&)>& body, unsigned alarmSeconds = 120) {
    int up[2], down[2];
    if (pipe(up) != 0 || pipe(down) != 0 || (pid_ = fork()) < 0) throw std::runtime_error("pipe or fork failed");
    if (pid_ == 0) {
      for (int fd : {up[0], down[1]}) ::close(fd);
      for (int fd : ParentEnds()) ::close(fd);  // other children's pipes
      alarm(alarmSeconds);
      Channel channel{up[1], down[0], {}, 0};
      const int status = body(channel);  // an exception ends the child by SIGABRT
      (void)!::write(up[1], channel.report.data(), channel.report.size());
      _exit(status);
    }
    ::close(up[1]), ::close(down[0]);
    ParentEnds().insert(ParentEnds().end(), {up_ = up[0], down_ = down[1]});
  }
  ~ForkedChild() {
    Kill();
    if (pid_ > 0) Wait();
    Forget(up_), Forget(down_);
  }
  ForkedChild(const ForkedChild&) = delete;
  ForkedChild& operator=(const ForkedChild&) = delete;

  // Waits for one byte the child told; 0 when it ended without one.
  char Heard() { return ::read(up_, &heard_, 1) == 1 ? heard_ : 0; }
  void Say(char c = 'g') { (void)!::write(down_, &c, 1); }
  // Closes the parent's end of the down pipe: the child's Listen() answers false.
  void Hangup() { Forget(down_); }
  void Kill(int signal = SIGKILL) { if (pid_ > 0) kill(pid_, signal); }
  Result Wait() {
    Result result;
    char buffer[4096];
    for (ssize_t n; (n = ::read(up_, buffer, sizeof buffer)) > 0;) result.report.append(buffer, size_t(n));
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
  static std::vector<int>& ParentEnds() { static std::vector<int> ends; return ends; }
  static void Forget(int& fd) {
    auto& ends = ParentEnds();
    if (fd >= 0) ::close(fd), ends.erase(std::remove(ends.begin(), ends.end(), fd), ends.end());
    fd = -1;
  }

  pid_t pid_ = -1;
  int up_ = -1, down_ = -1;
  char heard_ = 0;
};
