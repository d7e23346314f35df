// Rounds of random changes to a scratch tree, each followed by a scan: the
// scan's report (--json) must be what ScanModel works
// out from find(1) snapshots, the database must then hold the tree as it is
// (walk --json), and it must stay consistent. Some rounds make a folder
// unreadable to the scan (it runs without the capabilities that let root
// read anything): exit status 5, a "cannot read" line for each unreadable
// entry, and the stored sub-trees kept.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "ScanModel.h"

namespace {

namespace fs = std::filesystem;

class ScanModelTest : public ToolFixture {
 protected:
  std::string Pick(const std::vector<std::string>& from) {
    return from[std::uniform_int_distribution<size_t>(0, from.size() - 1)(rng_)];
  }
  // Relative paths of the tree's entries; folders only with `foldersOnly`.
  std::vector<std::string> Entries(bool foldersOnly, bool withRoot) {
    std::vector<std::string> paths;
    if (withRoot) paths.push_back("");
    for (auto it = fs::recursive_directory_iterator(tree_); it != fs::recursive_directory_iterator(); ++it)
      if (!foldersOnly || it->symlink_status().type() == fs::file_type::directory)
        paths.push_back(fs::relative(it->path(), tree_).string());
    return paths;
  }
  std::string NewPath(const std::string& dir) {
    static const std::vector<std::string> kNames = {"a", "b", "c d", "co,mma", "new\nline", "q\"uote",
                                                   "x.o", "\xc3\xbc", "bad\xffname", std::string(70, 'n')};
    return (dir.empty() ? "" : dir + "/") + Pick(kNames) + "_" + std::to_string(counter_++);
  }
  // One random change; false when it did not apply.
  bool Change() {
    std::vector<std::string> files, folders = Entries(true, true), all = Entries(false, false);
    for (const std::string& path : all)
      if (fs::symlink_status(T(path)).type() == fs::file_type::regular) files.push_back(path);
    std::error_code error;
    switch (std::uniform_int_distribution<int>(0, 9)(rng_)) {
      case 0: WriteFile(NewPath(Pick(folders)), std::string(counter_ % 7, 'x')); return true;
      case 1: return ::mkdir(T(NewPath(Pick(folders))).c_str(), 0755) == 0;
      case 2: return !files.empty() && (WriteFile(Pick(files), "more"), true);
      case 3: {
        struct timespec times[2] = {{1700000000 + counter_++, 5}, {1700000000 + counter_, 123456789}};
        return !all.empty() && ::utimensat(AT_FDCWD, T(Pick(all)).c_str(), times, AT_SYMLINK_NOFOLLOW) == 0;
      }
      case 4: return !files.empty() && ::chmod(T(Pick(files)).c_str(), 0600 + (counter_++ % 2) * 040) == 0;
      case 5: return !all.empty() && fs::remove_all(T(Pick(all)), error) > 0;
      case 6: case 7: {  // rename or move anything, never into itself
        if (all.empty()) return false;
        std::string from = Pick(all), to = NewPath(Pick(folders));
        return to.compare(0, from.size() + 1, from + "/") != 0 && ::rename(T(from).c_str(), T(to).c_str()) == 0;
      }
      case 8: {  // a file becomes a folder or the other way round
        if (all.empty()) return false;
        std::string path = Pick(all);
        bool wasDir = fs::symlink_status(T(path)).type() == fs::file_type::directory;
        fs::remove_all(T(path), error);
        if (wasDir) WriteFile(path, "now a file");
        return wasDir || ::mkdir(T(path).c_str(), 0755) == 0;
      }
      default: return ::symlink("target", T(NewPath(Pick(folders))).c_str()) == 0;
    }
  }
  // A folder present in the database and on disk with all its ancestors.
  std::string BlockableFolder(const Tree& stored) {
    std::vector<std::string> candidates;
    for (const std::string& path : Entries(true, false)) {
      bool ok = true;
      for (std::string p = path; ok && !p.empty(); p.resize(p.find('/') == p.npos ? 0 : p.rfind('/')))
        ok = stored.count(p) && stored.at(p).type == 'd';
      if (ok) candidates.push_back(path);
    }
    return candidates.empty() ? "" : Pick(candidates);
  }

  std::mt19937 rng_{20261123};
  int counter_ = 0;
};

TEST_F(ScanModelTest, ReportAndStoredTreeFollowRandomChanges) {
  for (int i = 0; i < 12; ++i) Change();
  ToolResult first = Scan(100, {"--json"});
  ASSERT_EQ(0, first.status) << first.err;
  Tree stored = Snapshot(tree_);
  EXPECT_EQ(stored.size(), ParseJsonReport(first.out, tree_).size());  // all new

  for (int round = 1; round <= 14; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    for (int changes = 0; changes < 8;) changes += Change();
    std::map<std::string, char> blocked;
    const std::string folder = round % 3 == 0 ? BlockableFolder(stored) : "";
    if (!folder.empty()) {
      blocked[folder] = round % 2 ? '0' : '6';
      ASSERT_EQ(0, ::chmod(T(folder).c_str(), round % 2 ? 0 : 0644));
    }
    ScanExpectation expected(stored, Snapshot(tree_), blocked);
    ToolResult scan = Run({"scan", tree_, "--db", db_, "--ref-time", std::to_string(100 + round), "--json"},
                          /*obeyPermissions=*/!blocked.empty());
    if (!folder.empty()) ::chmod(T(folder).c_str(), 0755);
    if (scan.status == kCannotDropCapabilities) GTEST_SKIP() << "cannot drop CAP_DAC_OVERRIDE";
    ASSERT_EQ(expected.report, ParseJsonReport(scan.out, tree_));
    size_t unreadable = 0, notes = 0;
    for (const std::string& line : expected.report)
      if (line.rfind("unreadable ", 0) == 0 && ++unreadable) {
        EXPECT_NE(std::string::npos, scan.err.find("wzscandb: cannot read " + T(line.substr(11)) + ": "));
      }
    for (size_t at = 0; (at = scan.err.find("wzscandb: cannot read ", at)) != std::string::npos; ++at) ++notes;
    EXPECT_EQ(unreadable, notes) << scan.err;
    EXPECT_EQ(unreadable ? 5 : 0, scan.status) << scan.err;

    ToolResult walk = Run({"walk", db_, tree_, "--json"});
    ASSERT_EQ(0, walk.status) << walk.err;
    stored = expected.after;
    Tree walked = ParseWalk(walk.out);
    ASSERT_EQ(stored.size() - 1, walked.size());  // all but the scanned folder
    for (const auto& [path, attr] : walked) {
      ASSERT_EQ(1u, stored.count(path)) << path;
      const Attr& want = stored.at(path);
      EXPECT_TRUE(want.type == attr.type && want.inode == attr.inode && want.size == attr.size &&
                  want.mtimeNs == attr.mtimeNs && want.ctimeNs == attr.ctimeNs) << path;
    }
    EXPECT_EQ(0, Run({"validate", db_}).status);
  }
}

}  // namespace
