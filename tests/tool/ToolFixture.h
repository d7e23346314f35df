// ToolFixture: a scratch tree, a database directory beside it, and the
// wzscandb binary run on them.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ToolRunner.h"
#include "runtime/LogWriter.h"
#include "support/TempDir.h"

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

  ToolResult Run(const std::vector<std::string>& args, bool obeyPermissions = false) {
    return RunTool(args, temp_.path(), obeyPermissions);
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
  // A failure: `status` and one line on stderr that contains `fragment`.
  static void ExpectFailure(const ToolResult& result, int status, const std::string& fragment) {
    EXPECT_EQ(status, result.status) << result.err;
    EXPECT_EQ(1u, result.ErrLines().size()) << result.err;
    EXPECT_NE(std::string::npos, result.err.find(fragment)) << result.err;
    EXPECT_EQ(0u, result.err.rfind("wzscandb: ", 0)) << result.err;
  }

  TempDir temp_;
  std::string tree_;
  std::string db_;
};
