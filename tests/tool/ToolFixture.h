// ToolFixture: a scratch tree, a database directory beside it, and the
// wzscandb binary run on them, its exit status, standard output and standard
// error collected (through files, so that large outputs cannot block).
#pragma once

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "runtime/LogWriter.h"
#include "support/TempDir.h"

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
inline std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

struct ToolResult {
  int status = -1;  // exit status, or -1 when the tool did not exit normally
  std::string out, err;
  std::vector<std::string> OutLines() const { return SplitLines(out); }
};

// Exit status of a child that could not give up the capabilities that let
// root read any directory.
constexpr int kCannotDropCapabilities = 125;

class ToolFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    g_ptrLogWriter->SetNone();  // this process's own library calls stay quiet
    ASSERT_EQ(0, ::mkdir((temp_ / "tree").c_str(), 0755));
    char* real = ::realpath((temp_ / "tree").c_str(), nullptr);
    ASSERT_NE(nullptr, real);
    tree_ = real;
    std::free(real);
    db_ = temp_ / "db";
  }

  // Runs the tool with `args`. With `obeyPermissions` it runs without the
  // capabilities that let root ignore file permissions (CAP_DAC_OVERRIDE,
  // CAP_DAC_READ_SEARCH), so that a directory of mode 000 is unreadable to
  // it even under root; when they cannot be dropped the status is
  // kCannotDropCapabilities.
  ToolResult Run(std::vector<std::string> args, bool obeyPermissions = false) {
    args.insert(args.begin(), WZSCANDB_TOOL);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    const std::string outPath = temp_ / "tool.out", errPath = temp_ / "tool.err";
    pid_t pid = fork();
    if (pid == 0) {
      int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(127);
      unsetenv("WZ_LOG_FILE");  // the tool's log follows these when set
      unsetenv("WZ_LOG_LEVEL");
      // Dropped from the bounding set, the capabilities do not come back
      // when root executes the tool.
      if (obeyPermissions && (prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0) != 0 ||
                              prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH, 0, 0, 0) != 0))
        _exit(kCannotDropCapabilities);
      execv(argv[0], argv.data());
      _exit(127);
    }
    int waitStatus = 0;
    while (pid > 0 && waitpid(pid, &waitStatus, 0) < 0) {
    }
    return {pid > 0 && WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -1, ReadFile(outPath),
            ReadFile(errPath)};
  }
  ToolResult Scan(unsigned refTime, std::vector<std::string> more = {}) {
    std::vector<std::string> args{"scan", tree_, "--db", db_, "--ref-time", std::to_string(refTime)};
    args.insert(args.end(), more.begin(), more.end());
    return Run(args);
  }
  std::string T(const std::string& relative) const {
    return relative.empty() ? tree_ : tree_ + "/" + relative;
  }
  void MakeDir(const std::string& relative) { ASSERT_EQ(0, ::mkdir(T(relative).c_str(), 0755)); }
  void WriteFile(const std::string& relative, const std::string& content) {
    std::ofstream(T(relative), std::ios::binary | std::ios::app) << content;
  }
  // a/{f1.txt f2.txt} b/c/g.txt keep.txt link -> a
  void MakeScratchTree() {
    MakeDir("a");
    WriteFile("a/f1.txt", "one");
    WriteFile("a/f2.txt", "two two");
    MakeDir("b");
    MakeDir("b/c");
    WriteFile("b/c/g.txt", "g");
    WriteFile("keep.txt", "keep");
    ASSERT_EQ(0, ::symlink("a", T("link").c_str()));
  }
  // The bytes of the database files in `dir`.
  static std::string Files(const std::string& dir) {
    return ReadFile(dir + "/WzScanDB.dat") + ReadFile(dir + "/WzScanDB.idx") +
           ReadFile(dir + "/WzScanDB.changes");
  }
  // A failure: `status` and one line on stderr, "wzscandb: ..." with `fragment`.
  static void ExpectFailure(const ToolResult& result, int status, const std::string& fragment) {
    EXPECT_EQ(status, result.status) << result.err;
    EXPECT_EQ(1u, SplitLines(result.err).size()) << result.err;
    EXPECT_NE(std::string::npos, result.err.find(fragment)) << result.err;
    EXPECT_EQ(0u, result.err.rfind("wzscandb: ", 0)) << result.err;
  }
  // A table of commands run in order: each exits with `status`; a failure
  // (status > 0) as ExpectFailure says, a success printing nothing on stderr
  // and `text` on stdout, exactly with `whole`, else somewhere in it.
  struct Row {
    std::vector<std::string> args;
    int status;
    std::string text;
    bool whole = false;
  };
  void ExpectRows(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
      SCOPED_TRACE((row.args.empty() ? "(none)" : row.args[0]) + " -> " + row.text);
      const ToolResult result = Run(row.args);
      if (row.status) {
        ExpectFailure(result, row.status, row.text);
      } else {
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_EQ("", result.err);
        EXPECT_TRUE(row.whole ? result.out == row.text : result.out.find(row.text) != std::string::npos)
            << result.out;
      }
    }
  }

  TempDir temp_;
  std::string tree_, db_;
};
