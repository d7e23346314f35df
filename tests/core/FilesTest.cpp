// Removing, moving and copying whole databases. (Suspending and rebuilding
// the indexes: their lines and errors are in the messages table, the
// rebuild itself in tests/table, its statuses through the exports in
// tests/exports.)
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
    EXPECT_TRUE(db->initialize(where).IsSuccess());
    for (int i = 0; i < n; ++i) EXPECT_TRUE(db->addDBRecord(Record(i)).IsSuccess());
    EXPECT_TRUE(db->close().IsSuccess());
    return where;
  }
  // How many of /r/0 .. /r/9 the database in `where` holds.
  static int CountFound(const std::string& where) {
    WzScanDBPtr db = NewGenericDb();
    EXPECT_TRUE(db->initialize(where).IsSuccess());
    int found = 0;
    for (int i = 0; i < 10; ++i) found += Find(*db, Record(i));
    db->close();
    return found;
  }
  static WzScanDBRecordBasePtr Record(int i) { return Generic("/r/" + std::to_string(i)); }
  std::string Sub(const std::string& name) {
    mkdir((dir / name).c_str(), 0700);
    return dir / name;
  }
  // Which of the two files and their temporary copies are in `where`.
  static std::string Files(const std::string& where) {
    std::string text;
    for (const char* name : {"WzScanDB.dat", "WzScanDB.idx", "WzScanDB.dat.tmp", "WzScanDB.idx.tmp"})
      if (FXFile::Exists(where + "/" + name)) text += std::string(name).substr(9) + " ";
    return text;
  }
};

TEST_F(FilesTest, RemoveMoveAndCopyKeepThePairTogether) {
  std::string from = MakeDatabase("from", 5), to = MakeDatabase("to", 1), moved = MakeDatabase("moved", 1);
  ASSERT_TRUE(WzScanDB::copy(from, to).IsSuccess());  // replaces what `to` held
  EXPECT_EQ(Files(to), "dat idx ");
  EXPECT_EQ(CountFound(from) * 10 + CountFound(to), 55);
  ASSERT_TRUE(WzScanDB::move(to, moved).IsSuccess());  // replaces what `moved` held
  EXPECT_EQ(Files(to) + "| " + Files(moved), "| dat idx ");
  EXPECT_EQ(CountFound(moved), 5);
  ASSERT_TRUE(WzScanDB::remove(moved).IsSuccess());
  EXPECT_EQ(Files(moved), "");

  // Without a data file the index file is left alone.
  std::ofstream(moved + "/WzScanDB.idx") << "index";
  EXPECT_EQ(WzScanDB::remove(moved).GetCode(), ENOENT);
  EXPECT_EQ(Files(moved), "idx ");

  // An index move that fails puts the data file back beside its index.
  std::string blocked = Sub("blocked");
  mkdir((blocked + "/WzScanDB.idx").c_str(), 0700);
  std::ofstream(blocked + "/WzScanDB.idx/keep") << "not empty";
  EXPECT_TRUE(WzScanDB::move(from, blocked).IsError());
  EXPECT_EQ(Files(from) + "| " + Files(blocked), "dat idx | idx ");
  EXPECT_EQ(CountFound(from), 5);
  EXPECT_TRUE(WzScanDB::move(Sub("empty"), from).IsError());  // a missing source moves nothing
  EXPECT_EQ(CountFound(from), 5);

  // The index copy fails: the data file's temporary copy goes and the
  // destination keeps what it had.
  std::string half = Sub("half"), dest = MakeDatabase("dest", 2);
  std::ofstream(half + "/WzScanDB.dat") << "data only";
  EXPECT_EQ(WzScanDB::copy(half, dest).GetCode(), ENOENT);
  EXPECT_EQ(Files(dest), "dat idx ");
  EXPECT_EQ(CountFound(dest), 2);
  EXPECT_TRUE(WzScanDB::copy(from, dir / "missing").IsError());
  EXPECT_FALSE(FXFile::Exists(dir / "missing"));
}

}  // namespace
}  // namespace coretest
