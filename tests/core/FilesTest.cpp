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
  // A closed generic database in `where` holding /r/0 .. /r/<n-1>.
  void MakeDatabase(const std::string& where, int n) {
    WzScanDBPtr db = NewDb(boost::make_shared<WzScanDBRecord>());
    ASSERT_TRUE(Open(*db, where).IsSuccess());
    for (int i = 0; i < n; ++i)
      ASSERT_TRUE(db->addDBRecord(Generic("/r/" + std::to_string(i), false, i)).IsSuccess());
    ASSERT_TRUE(db->close().IsSuccess());
  }
  // Opens `where` and counts which of /r/0 .. /r/<n-1> it holds.
  int CountFound(const std::string& where, int n) {
    WzScanDBPtr db = NewDb(boost::make_shared<WzScanDBRecord>());
    EXPECT_TRUE(Open(*db, where).IsSuccess());
    int found = 0;
    for (int i = 0; i < n; ++i) {
      WzScanDBRecordBasePtr probe = Generic("/r/" + std::to_string(i));
      bool hit = false;
      db->checkDBRecord(probe, probe->Clone(), hit);
      found += hit;
    }
    db->close();
    return found;
  }
  std::string Sub(const std::string& name) {
    std::string path = dir / name;
    mkdir(path.c_str(), 0700);
    return path;
  }
  bool Has(const std::string& where, const std::string& file) {
    return FXFile::Exists(where + "/" + file);
  }
  // Level-0 lines written since the last Clear().
  size_t LifeCycleLines() {
    size_t n = 0;
    for (const CLogEntry& entry : capture->Entries()) n += entry.level == 0;
    return n;
  }
};

TEST_F(FilesTest, Remove) {
  std::string db = Sub("db");
  MakeDatabase(db, 3);
  capture->Clear();
  ASSERT_TRUE(WzScanDB::remove(db).IsSuccess());
  EXPECT_EQ(LifeCycleLines(), 1u);
  EXPECT_FALSE(Has(db, "WzScanDB.dat"));
  EXPECT_FALSE(Has(db, "WzScanDB.idx"));

  // Without a data file the index file is left alone.
  std::ofstream(db + "/WzScanDB.idx") << "index";
  CKoError error = WzScanDB::remove(db);
  ASSERT_TRUE(error.IsError());
  EXPECT_EQ(error.GetCode(), ENOENT);
  EXPECT_TRUE(Has(db, "WzScanDB.idx"));
}

TEST_F(FilesTest, Move) {
  std::string from = Sub("from"), to = Sub("to");
  MakeDatabase(from, 5);
  MakeDatabase(to, 1);  // replaced by the move
  capture->Clear();
  ASSERT_TRUE(WzScanDB::move(from, to).IsSuccess());
  EXPECT_EQ(LifeCycleLines(), 1u);
  EXPECT_FALSE(Has(from, "WzScanDB.dat"));
  EXPECT_FALSE(Has(from, "WzScanDB.idx"));
  EXPECT_EQ(CountFound(to, 5), 5);

  // An index move that fails puts the data file back beside its index.
  std::string blocked = Sub("blocked");
  mkdir((blocked + "/WzScanDB.idx").c_str(), 0700);
  std::ofstream(blocked + "/WzScanDB.idx/keep") << "not empty";
  capture->Clear();
  CKoError error = WzScanDB::move(to, blocked);
  ASSERT_TRUE(error.IsError());
  EXPECT_EQ(error.GetTopMessage(), "Couldn't move WzScanDB from " + to + " to " + blocked);
  EXPECT_EQ(LifeCycleLines(), 0u);
  EXPECT_TRUE(Has(to, "WzScanDB.dat"));
  EXPECT_TRUE(Has(to, "WzScanDB.idx"));
  EXPECT_FALSE(Has(blocked, "WzScanDB.dat"));
  EXPECT_EQ(CountFound(to, 5), 5);

  // A missing source moves nothing.
  std::string empty = Sub("empty");
  EXPECT_TRUE(WzScanDB::move(empty, to).IsError());
  EXPECT_EQ(CountFound(to, 5), 5);
}

TEST_F(FilesTest, Copy) {
  std::string from = Sub("from"), to = Sub("to");
  MakeDatabase(from, 4);
  MakeDatabase(to, 1);
  capture->Clear();
  ASSERT_TRUE(WzScanDB::copy(from, to).IsSuccess());
  EXPECT_EQ(LifeCycleLines(), 1u);
  EXPECT_FALSE(Has(to, "WzScanDB.dat.tmp"));
  EXPECT_FALSE(Has(to, "WzScanDB.idx.tmp"));
  EXPECT_EQ(CountFound(from, 4), 4);
  EXPECT_EQ(CountFound(to, 4), 4);

  // The index copy fails: the data file's temporary copy is removed and the
  // destination keeps what it had.
  std::string half = Sub("half"), dest = Sub("dest");
  MakeDatabase(dest, 2);
  std::ofstream(half + "/WzScanDB.dat") << "data only";
  capture->Clear();
  CKoError error = WzScanDB::copy(half, dest);
  ASSERT_TRUE(error.IsError());
  EXPECT_EQ(error.GetTopMessage(), "Couldn't copy WzScanDB from " + half + " to " + dest);
  EXPECT_EQ(LifeCycleLines(), 0u);
  EXPECT_FALSE(Has(dest, "WzScanDB.dat.tmp"));
  EXPECT_FALSE(Has(dest, "WzScanDB.idx.tmp"));
  EXPECT_EQ(CountFound(dest, 2), 2);

  // A destination directory that does not exist.
  EXPECT_TRUE(WzScanDB::copy(from, dir / "missing").IsError());
  EXPECT_FALSE(FXFile::Exists(dir / "missing"));
}

TEST_F(FilesTest, SuspendWriteRebuildFindsEveryRecordOnEveryIndex) {
  WzScanDBPtr db = NewDb(boost::make_shared<WzScanDBRecord>());
  ASSERT_TRUE(Open(*db, dir.path()).IsSuccess());
  const int kBefore = 20, kDuring = 30;
  for (int i = 0; i < kBefore; ++i)
    ASSERT_TRUE(db->addDBRecord(Generic("/s/" + std::to_string(i))).IsSuccess());
  ASSERT_TRUE(db->suspendIndex().IsSuccess());
  for (int i = kBefore; i < kBefore + kDuring; ++i)
    ASSERT_TRUE(db->addRecordWithoutCheck(Generic("/s/" + std::to_string(i))).IsSuccess());
  capture->Clear();
  ASSERT_TRUE(db->rebuildIndex().IsSuccess());
  EXPECT_FALSE(capture->FindContaining("Entering").empty()) << "the rebuild is traced";
  for (int i = 0; i < kBefore + kDuring; ++i) {
    WzScanDBRecordBasePtr probe = Generic("/s/" + std::to_string(i));
    for (int index = 0; index < 2; ++index) {
      bool found = false;
      ASSERT_TRUE(db->checkDBRecord(probe, probe->Clone(), index, true, found).IsSuccess());
      EXPECT_TRUE(found) << "record " << i << " on index " << index;
    }
  }
  ASSERT_TRUE(db->close().IsSuccess());
}

}  // namespace
}  // namespace coretest
