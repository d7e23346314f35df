// Damaged and mismatched database files seen through WzScanDB::initialize:
// the engine's status reaches the caller as an integer error with the
// engine's text, no file is changed, and the refused object stays unusable.
// (tests/table_badfiles covers the engine's own view of these files.)
#include <unistd.h>

#include "HostileSupport.h"

namespace hostile {
namespace {

class DamagedFiles : public HostileTest {
 protected:
  void SetUp() override {
    HostileTest::SetUp();
    MakeGenericDb(dir.path(), 50);
    dat = ReadBytes(dir / "WzScanDB.dat");
    idx = ReadBytes(dir / "WzScanDB.idx");
    ASSERT_GT(dat.size(), 8192u);
    ASSERT_GT(idx.size(), 8192u);
  }

  // initialize() on the files as they are now answers `status` through
  // `message` ("Failed to Open an Existing WzScanDB : %s" or the create
  // form), and leaves both files byte for byte as they were.
  void ExpectRefused(int status, const std::string& message) {
    SCOPED_TRACE(message);
    const std::string datBefore = ReadBytes(dir / "WzScanDB.dat");
    const bool hadIdx = Exists(dir / "WzScanDB.idx");
    const std::string idxBefore = ReadBytes(dir / "WzScanDB.idx");
    WzScanDB db(Generic(""));
    CKoError error = db.initialize(dir.path());
    ASSERT_TRUE(error.IsError());
    EXPECT_EQ(error.GetKind(), EKoErrorKind::kInt);
    EXPECT_EQ(error.GetCode(), status);
    EXPECT_EQ(error.GetOriginMessage(), message + TCtreeTable::errToString(status));
    EXPECT_FALSE(db.initializeCheck());
    bool found = false;
    CKoError refused = db.checkDBRecord(Generic("/a"), Generic("/a"), found);
    EXPECT_EQ(refused.GetCode(), 22);
    EXPECT_EQ(ReadBytes(dir / "WzScanDB.dat"), datBefore);
    EXPECT_EQ(Exists(dir / "WzScanDB.idx"), hadIdx);
    EXPECT_EQ(ReadBytes(dir / "WzScanDB.idx"), idxBefore);
  }

  // The original files open again and hold all 52 records.
  void ExpectIntactAfterRestore() {
    WriteBytes(dir / "WzScanDB.dat", dat);
    WriteBytes(dir / "WzScanDB.idx", idx);
    WzScanDB db(Generic(""));
    ASSERT_TRUE(db.initialize(dir.path()).IsSuccess());
    EXPECT_EQ(db.numberOfRecords(), 52);
    EXPECT_EQ(db.checkConsistency(), TBL_OK);
    bool consistent = false;
    EXPECT_TRUE(db.validateTree(consistent).IsSuccess());
    EXPECT_TRUE(consistent);
    db.close();
  }

  const std::string kOpen = "Failed to Open an Existing WzScanDB : ";
  const std::string kCreate = "Failed to Create WzScanDB : ";
  std::string dat, idx;
};

TEST_F(DamagedFiles, TruncatedFiles) {
  for (size_t keep : {size_t{0} + 100, size_t{4096}, dat.size() / 2, dat.size() - 1}) {
    WriteBytes(dir / "WzScanDB.dat", dat.substr(0, keep));
    ExpectRefused(TBL_BAD_FORMAT, kOpen);
  }
  WriteBytes(dir / "WzScanDB.dat", dat);
  for (size_t keep : {size_t{100}, idx.size() / 2, idx.size() - 1}) {
    WriteBytes(dir / "WzScanDB.idx", idx.substr(0, keep));
    ExpectRefused(TBL_BAD_FORMAT, kOpen);
  }
  ExpectIntactAfterRestore();
}

TEST_F(DamagedFiles, ZeroLengthFiles) {
  WriteBytes(dir / "WzScanDB.dat", "");
  ExpectRefused(TBL_BAD_FORMAT, kOpen);
  WriteBytes(dir / "WzScanDB.idx", "");
  ExpectRefused(TBL_BAD_FORMAT, kOpen);
  WriteBytes(dir / "WzScanDB.dat", dat);
  ExpectRefused(TBL_BAD_FORMAT, kOpen);
  // A zero-length index file alone: no data file, so initialize creates, and
  // create refuses to reuse the file it finds.
  ASSERT_EQ(unlink((dir / "WzScanDB.dat").c_str()), 0);
  ExpectRefused(TBL_FILE_EXISTS, kCreate);
  EXPECT_FALSE(Exists(dir / "WzScanDB.dat"));
  ExpectIntactAfterRestore();
}

TEST_F(DamagedFiles, DataAndIndexOfTwoDatabases) {
  TempDir other;
  MakeGenericDb(other.path(), 50);  // same schema, same operations
  WriteBytes(dir / "WzScanDB.idx", ReadBytes(other / "WzScanDB.idx"));
  ExpectRefused(TBL_FILES_MISMATCH, kOpen);
  WriteBytes(dir / "WzScanDB.idx", idx);
  WriteBytes(dir / "WzScanDB.dat", ReadBytes(other / "WzScanDB.dat"));
  ExpectRefused(TBL_FILES_MISMATCH, kOpen);

  // A database of another record type: its files hold another schema.
  TempDir lustre;
  {
    WzScanDB db(Lustre(0, 0, ""));
    ASSERT_TRUE(db.initialize(lustre.path()).IsSuccess());
    ASSERT_TRUE(db.addDBRecord(Lustre(7, 9, "n")).IsSuccess());
    db.close();
  }
  WriteBytes(dir / "WzScanDB.dat", ReadBytes(lustre / "WzScanDB.dat"));
  WriteBytes(dir / "WzScanDB.idx", ReadBytes(lustre / "WzScanDB.idx"));
  ExpectRefused(TBL_SCHEMA_MISMATCH, kOpen);
  ExpectIntactAfterRestore();
}

TEST_F(DamagedFiles, MissingIndexFile) {
  ASSERT_EQ(unlink((dir / "WzScanDB.idx").c_str()), 0);
  ExpectRefused(TBL_FILE_MISSING, kOpen);
  EXPECT_FALSE(Exists(dir / "WzScanDB.idx"));  // not silently re-created
  ExpectIntactAfterRestore();
}

}  // namespace
}  // namespace hostile
