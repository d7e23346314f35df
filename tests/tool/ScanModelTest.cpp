// Rounds of random changes to a scratch tree, each followed by a scan: the
// scan's report (through --json and -0 in turn) must be what ScanModel works
// out from find(1) snapshots, the database must then hold the tree as it is
// (walk --json), and it must stay consistent. Some rounds make a folder
// unreadable to the scan (it runs without the capabilities that let root
// read anything).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "ScanModel.h"
#include "ToolFixture.h"

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
    for (auto it = fs::recursive_directory_iterator(tree_); it != fs::recursive_directory_iterator(); ++it) {
      bool isDir = it->symlink_status().type() == fs::file_type::directory;
      if (!foldersOnly || isDir) paths.push_back(fs::relative(it->path(), tree_).string());
    }
    return paths;
  }
  std::string NewName() {
    static const std::vector<std::string> kNames = {"a", "b", "c d", "co,mma", "new\nline", "q\"uote",
                                                   "x.o", "\xc3\xbc", "bad\xffname",
                                                   std::string(70, 'n')};
    return Pick(kNames) + "_" + std::to_string(counter_++);
  }
  std::string Join(const std::string& dir, const std::string& name) {
    return dir.empty() ? name : dir + "/" + name;
  }
  // One random change; false when it did not apply.
  bool Change() {
    std::vector<std::string> files, folders = Entries(true, true), all = Entries(false, false);
    for (const std::string& path : all)
      if (fs::symlink_status(T(path)).type() == fs::file_type::regular) files.push_back(path);
    std::error_code error;
    switch (std::uniform_int_distribution<int>(0, 9)(rng_)) {
      case 0: WriteFile(Join(Pick(folders), NewName()), std::string(counter_ % 7, 'x')); return true;
      case 1: return ::mkdir(T(Join(Pick(folders), NewName())).c_str(), 0755) == 0;
      case 2:
        if (files.empty()) return false;
        WriteFile(Pick(files), "more");
        return true;
      case 3: {
        if (all.empty()) return false;
        struct timespec times[2] = {{1700000000 + counter_++, 5}, {1700000000 + counter_, 123456789}};
        return ::utimensat(AT_FDCWD, T(Pick(all)).c_str(), times, AT_SYMLINK_NOFOLLOW) == 0;
      }
      case 4: return !files.empty() && ::chmod(T(Pick(files)).c_str(), 0600 + (counter_++ % 2) * 0040) == 0;
      case 5: return !all.empty() && fs::remove_all(T(Pick(all)), error) > 0;
      case 6: case 7: {  // rename or move anything, never into itself
        if (all.empty()) return false;
        std::string from = Pick(all), to = Join(Pick(folders), NewName());
        if (to.compare(0, from.size() + 1, from + "/") == 0) return false;
        return ::rename(T(from).c_str(), T(to).c_str()) == 0;
      }
      case 8: {  // a file becomes a folder or the other way round
        if (all.empty()) return false;
        std::string path = Pick(all);
        bool wasDir = fs::symlink_status(T(path)).type() == fs::file_type::directory;
        fs::remove_all(T(path), error);
        if (wasDir) WriteFile(path, "now a file");
        return wasDir || ::mkdir(T(path).c_str(), 0755) == 0;
      }
      default: return ::symlink("target", T(Join(Pick(folders), NewName())).c_str()) == 0;
    }
  }
  // A folder present in the database and on disk with all its ancestors.
  std::string BlockableFolder(const Tree& stored) {
    std::vector<std::string> candidates;
    for (const std::string& path : Entries(true, false)) {
      bool ok = true;
      for (std::string p = path; ok && !p.empty(); p = p.find('/') == std::string::npos ? "" : p.substr(0, p.rfind('/')))
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
  ScanSets firstSets = ParseJsonReport(first.out, tree_);
  EXPECT_EQ(stored.size(), firstSets.added.size());

  for (int round = 1; round <= 14; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    for (int changes = 0; changes < 8;) changes += Change();
    std::map<std::string, char> blocked;
    if (round % 3 == 0) {
      std::string folder = BlockableFolder(stored);
      if (!folder.empty()) {
        blocked[folder] = round % 2 ? '0' : '6';
        ASSERT_EQ(0, ::chmod(T(folder).c_str(), round % 2 ? 0 : 0644));
      }
    }
    Tree disk = Snapshot(tree_);
    Tree expectedStore;
    ScanSets expected = ExpectScan(stored, disk, blocked, expectedStore);
    const bool json = round % 2 == 0;
    ToolResult scan = Run({"scan", tree_, "--db", db_, "--ref-time", std::to_string(100 + round),
                           json ? "--json" : "-0"},
                          /*obeyPermissions=*/!blocked.empty());
    for (const auto& [folder, mode] : blocked) ::chmod(T(folder).c_str(), 0755);
    if (scan.status == kCannotDropCapabilities) GTEST_SKIP() << "cannot drop CAP_DAC_OVERRIDE";
    EXPECT_EQ(expected.unreadable.empty() ? 0 : 5, scan.status) << scan.err;
    ScanSets actual = json ? ParseJsonReport(scan.out, tree_) : ParseNullReport(scan.out, tree_);
    ASSERT_EQ(Describe(expected), Describe(actual));

    ToolResult walk = Run({"walk", db_, tree_, "--json"});
    ASSERT_EQ(0, walk.status) << walk.err;
    Tree nextStored = expectedStore;
    expectedStore.erase("");
    Tree walked = ParseWalk(walk.out);
    ASSERT_EQ(expectedStore.size(), walked.size());
    for (const auto& [path, attr] : expectedStore) {
      ASSERT_EQ(1u, walked.count(path)) << path;
      const Attr& got = walked.at(path);
      EXPECT_TRUE(got.type == attr.type && got.inode == attr.inode && got.size == attr.size &&
                  got.mtimeNs == attr.mtimeNs && got.ctimeNs == attr.ctimeNs)
          << path;
    }
    EXPECT_EQ(0, Run({"validate", db_}).status);
    stored = nextStored;
  }
}

}  // namespace
