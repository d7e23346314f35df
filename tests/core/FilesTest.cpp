// Removing, moving and copying whole databases, and suspending and rebuilding
// the indexes of an open one.
#include <sys/stat.h>

#include <fstream>

#include "CoreTestSupport.h"
#include "runtime/FXFile.h"

namespace coretest {
namespace {

class FilesTest : public CoreTest {
 protected:
  // A new directory `name` holding a closed database of /r/0 .. /r/<n-1>.
  std::string MakeDatabase(const std::string& name, int n) {
    std::string where = Sub(name);
    WzScanDBPtr db = NewGenericDb();
    EXPECT_TRUE(Open(*db, where).IsSuccess());
    for (int i = 0; i < n; ++i) EXPECT_TRUE(db->addDBRecord(Record(i)).IsSuccess());
    EXPECT_TRUE(db->close().IsSuccess());
    return where;
  }
  // How many of /r/0 .. /r/<n-1> the database in `where` holds.
  int CountFound(const std::string& where, int n) {
    WzScanDBPtr db = NewGenericDb();
    EXPECT_TRUE(Open(*db, where).IsSuccess());
    int found = 0;
    for (int i = 0; i < n; ++i) found += Find(*db, Record(i));
    db->close();
    return found;
  }
  static WzScanDBRecordBasePtr Record(int i) { return Generic("/r/" + std::to_string(i)); }
  std::string Sub(const std::string& name) {
    mkdir((dir / name).c_str(), 0700);
    return dir / name;
  }
  static bool Has(const std::string& where, const std::string& file) {
    return FXFile::Exists(where + "/" + file);
  }
  // Each success writes exactly one level-0 line, each failure none.
  size_t LevelZeroLinesSince(size_t* mark) {
    auto entries = capture->Entries();
    size_t n = 0;
    for (size_t i = *mark; i < entries.size(); ++i) n += entries[i].level == 0;
    *mark = entries.size();
    return n;
  }
};

TEST_F(FilesTest, RemoveMoveAndCopyWithTheirFailurePaths) {
  std::string from = MakeDatabase("from", 5), to = MakeDatabase("to", 1);
  size_t mark = capture->Entries().size();

  ASSERT_TRUE(WzScanDB::copy(from, to).IsSuccess());  // replaces what `to` held
  EXPECT_EQ(LevelZeroLinesSince(&mark), 1u);
  EXPECT_FALSE(Has(to, "WzScanDB.dat.tmp") || Has(to, "WzScanDB.idx.tmp"));
  EXPECT_EQ(CountFound(from, 5), 5);
  EXPECT_EQ(CountFound(to, 5), 5);

  std::string moved = MakeDatabase("moved", 1);  // replaced by the move
  mark = capture->Entries().size();
  ASSERT_TRUE(WzScanDB::move(to, moved).IsSuccess());
  EXPECT_EQ(LevelZeroLinesSince(&mark), 1u);
  EXPECT_FALSE(Has(to, "WzScanDB.dat") || Has(to, "WzScanDB.idx"));
  EXPECT_EQ(CountFound(moved, 5), 5);

  mark = capture->Entries().size();
  ASSERT_TRUE(WzScanDB::remove(moved).IsSuccess());
  EXPECT_EQ(LevelZeroLinesSince(&mark), 1u);
  EXPECT_FALSE(Has(moved, "WzScanDB.dat") || Has(moved, "WzScanDB.idx"));

  // Without a data file the index file is left alone.
  std::ofstream(moved + "/WzScanDB.idx") << "index";
  EXPECT_EQ(WzScanDB::remove(moved).GetCode(), ENOENT);
  EXPECT_TRUE(Has(moved, "WzScanDB.idx"));
  EXPECT_EQ(LevelZeroLinesSince(&mark), 0u);

  // An index move that fails puts the data file back beside its index.
  std::string blocked = Sub("blocked");
  mkdir((blocked + "/WzScanDB.idx").c_str(), 0700);
  std::ofstream(blocked + "/WzScanDB.idx/keep") << "not empty";
  mark = capture->Entries().size();
  CKoError error = WzScanDB::move(from, blocked);
  EXPECT_EQ(LevelZeroLinesSince(&mark), 0u);
  EXPECT_EQ(error.GetTopMessage(), "Couldn't move WzScanDB from " + from + " to " + blocked);
  EXPECT_TRUE(Has(from, "WzScanDB.dat") && Has(from, "WzScanDB.idx"));
  EXPECT_FALSE(Has(blocked, "WzScanDB.dat"));
  EXPECT_EQ(CountFound(from, 5), 5);
  // A missing source moves nothing.
  EXPECT_TRUE(WzScanDB::move(Sub("empty"), from).IsError());
  EXPECT_EQ(CountFound(from, 5), 5);

  // The index copy fails: the data file's temporary copy is removed and the
  // destination keeps what it had.
  std::string half = Sub("half"), dest = MakeDatabase("dest", 2);
  std::ofstream(half + "/WzScanDB.dat") << "data only";
  mark = capture->Entries().size();
  error = WzScanDB::copy(half, dest);
  EXPECT_EQ(error.GetTopMessage(), "Couldn't copy WzScanDB from " + half + " to " + dest);
  EXPECT_EQ(LevelZeroLinesSince(&mark), 0u);
  EXPECT_FALSE(Has(dest, "WzScanDB.dat.tmp") || Has(dest, "WzScanDB.idx.tmp"));
  EXPECT_EQ(CountFound(dest, 2), 2);
  // A destination directory that does not exist.
  EXPECT_TRUE(WzScanDB::copy(from, dir / "missing").IsError());
  EXPECT_FALSE(FXFile::Exists(dir / "missing"));
}

TEST_F(FilesTest, SuspendWriteRebuildFindsEveryRecordOnEveryIndex) {
  WzScanDBPtr db = NewGenericDb();
  ASSERT_TRUE(Open(*db, dir.path()).IsSuccess());
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(db->addDBRecord(Record(i)).IsSuccess());
  ASSERT_TRUE(db->suspendIndex().IsSuccess());
  for (int i = 20; i < 50; ++i) ASSERT_TRUE(db->addRecordWithoutCheck(Record(i)).IsSuccess());
  capture->Clear();
  ASSERT_TRUE(db->rebuildIndex().IsSuccess());
  EXPECT_FALSE(capture->FindContaining("Entering").empty()) << "the rebuild is traced";
  for (int i = 0; i < 50; ++i)
    for (int index = 0; index < 2; ++index)
      EXPECT_TRUE(Find(*db, Record(i), index)) << "record " << i << " on index " << index;
  ASSERT_TRUE(db->close().IsSuccess());
}

}  // namespace
}  // namespace coretest
