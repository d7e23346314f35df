// Walks whose pending folders do not fit in their memory bound. With the
// bound set to 1 KiB (setting nWzScanDBWalkQueueKB), a tree whose widest
// level holds 400 folders spills them to a temporary file in the database
// directory, or in $TMPDIR when that directory refuses, and every walk gives
// exactly what the default bound gives: the same batches in the same order,
// the same paths, the same flags in the table, the same removals.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "TreeReadFixture.h"

namespace {

using Lines = std::vector<std::string>;

// Files this process holds open in `directory` that have no name any more.
int SpillFilesIn(const std::string& directory) {
  int count = 0;
  for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    const std::string target = std::filesystem::read_symlink(fd.path(), ignored).string();
    count += target.rfind(directory + "/", 0) == 0 && target.find("(deleted)") != std::string::npos;
  }
  return count;
}

// Sets an environment variable for one scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value) : name_(name) {
    const char* old = std::getenv(name);
    had_ = old != nullptr;
    if (had_) old_ = old;
    setenv(name, value.c_str(), 1);
  }
  ~ScopedEnv() {
    if (had_)
      setenv(name_, old_.c_str(), 1);
    else
      unsetenv(name_);
  }

 private:
  const char* name_;
  bool had_;
  std::string old_;
};

template <class RecordType>
class BoundedQueueTest : public TreeReadTest<RecordType> {
 protected:
  // Every batch of a batched walk below the root, as "node/path" items,
  // continued until the empty batch; `spills` becomes the most spill files
  // seen in `dir` between two batches.
  void Batches(Lines& out, const std::string& dir, int& spills,
               const std::function<CKoError(std::vector<WzScanDBRecordBasePtr>&,
                                            std::vector<std::string>&, bool)>& call) {
    std::vector<WzScanDBRecordBasePtr> records;
    std::vector<std::string> paths;
    for (bool more = false;; more = true) {
      CKoError err = call(records, paths, more);
      ASSERT_FALSE(err.IsError()) << err.AsString();
      spills = std::max(spills, SpillFilesIn(dir));
      std::string line = "batch";
      for (size_t i = 0; i < records.size(); ++i)
        line += " " + std::to_string(this->tree.nodeOf(records[i])) + "/" +
                (i < paths.size() ? paths[i] : std::string());
      out.push_back(line);
      if (records.empty() || out.size() > 10000) return;
    }
  }

  void Flags(Lines& out, WzScanDB& db) {
    std::string line = "flags";
    WzScanDBRecordBasePtr probe = RecordType::Prototype();
    auto* image = static_cast<unsigned char*>(probe->getStructure());
    for (int status = db.firstRecord(-1, image); status == 0; status = db.nextRecord(-1, image))
      line += " " + std::to_string(this->tree.nodeOf(probe)) + "=" +
              std::to_string(image[RecordType::kFlagsOffset]);
    out.push_back(line);
  }

  // What a caller sees of each walk over `db`, whose files are in `dir`.
  Lines Observe(WzScanDB& db, const std::string& dir, int& spills) {
    Lines out;
    using Records = std::vector<WzScanDBRecordBasePtr>;
    using Paths = std::vector<std::string>;
    auto root = [this] { return this->tree.record(0); };
    Batches(out, dir, spills, [&](Records& r, Paths& p, bool more) {
      return db.getSubTree(root(), r, p, true, 0, more);
    });
    Flags(out, db);
    Records records;
    Paths paths;
    out.push_back(db.getSubTree(root(), records, paths, false).AsString());
    for (size_t i = 0; i < records.size(); ++i)
      out.push_back(std::to_string(this->tree.nodeOf(records[i])) + " " + paths[i]);
    Flags(out, db);

    WzScanDBRecordBasePtr item;
    std::string path;
    CKoError err = db.getFirstItem(root(), item, path);
    for (; err.IsSuccess(); err = db.getNextItem(item, path))
      out.push_back(std::to_string(this->tree.nodeOf(item)) + " " + path);
    out.push_back(err.AsString());
    Flags(out, db);

    {
      LogAt log(6);
      bool consistent = false;
      out.push_back(db.validateTree(consistent).AsString() + (consistent ? " consistent" : ""));
      Flags(out, db);
      const int wide = this->tree.model().childrenInKeyOrder(0).back();
      out.push_back(db.removeFolder(this->tree.record(wide)).AsString());
      for (const char* text : {" Records marked as ", "Filled the Buffer with "})
        for (const CLogEntry& entry : log->FindContaining(text)) out.push_back(entry.message);
      Flags(out, db);
    }
    return out;
  }
};
TYPED_TEST_SUITE(BoundedQueueTest, TreeRecordTypes);

TYPED_TEST(BoundedQueueTest, SpilledWalksGiveWhatUnboundedWalksGive) {
  TreeModel& model = this->tree.model();
  model.addRandom(model.addFolder(0, "random"), 1000, 12, 7);
  for (int folder : model.addFlat(model.addFolder(0, "wide"), 400, "d", 1))
    model.addFlat(folder, 2, "f", 0);
  this->Store();

  TempDir boundedDir;
  const std::string settings = boundedDir / "settings.ini";
  std::ofstream(settings) << "[~FileSystemAgent]\nnWzScanDBWalkQueueKB = 1\n";
  auto bounded = boost::make_shared<WzScanDB>(TypeParam::Prototype());
  {
    ScopedEnv env("WZ_SETTINGS_FILE", settings);
    ASSERT_FALSE(bounded->initialize(boundedDir.path()).IsError());
  }
  for (int id = 0; id < model.size(); ++id)
    ASSERT_FALSE(bounded->addRecordWithoutCheck(this->tree.record(id)).IsError());

  int spills = 0, boundedSpills = 0;
  const Lines expected = this->Observe(*this->db, this->dir.path(), spills);
  EXPECT_EQ(expected, this->Observe(*bounded, boundedDir.path(), boundedSpills));
  EXPECT_EQ(0, spills);
  EXPECT_GT(boundedSpills, 0);
  EXPECT_GT(expected.size(), 2000u);

  // A database directory that refuses the file: $TMPDIR takes it.
  auto walk = [this](WzScanDB& db, const std::string& dir, int& seen) {
    Lines lines;
    this->Batches(lines, dir, seen,
                  [&](std::vector<WzScanDBRecordBasePtr>& r, std::vector<std::string>& p,
                      bool more) { return db.getSubTree(this->tree.record(0), r, p, 0, more); });
    return lines;
  };
  TempDir tmp;
  std::filesystem::rename(boundedDir.path(), boundedDir.path() + ".gone");
  int fallbackSpills = 0;
  Lines walked;
  {
    ScopedEnv env("TMPDIR", tmp.path());
    walked = walk(*bounded, tmp.path(), fallbackSpills);
  }
  std::filesystem::rename(boundedDir.path() + ".gone", boundedDir.path());
  EXPECT_EQ(walk(*this->db, this->dir.path(), spills), walked);
  EXPECT_GT(fallbackSpills, 0);
  bounded->close();
}

}  // namespace
