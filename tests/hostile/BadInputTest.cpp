// Bad input through the API: missing records and records of another type
// than the database's. Each is answered as documented, and nothing else in
// the table changes (a physical walk of every record image before and
// after). (Names that are not UTF-8 or hold newlines: tests/tool/ScanModelTest;
// names of 255 bytes and more: tests/records/RecordLayoutTest.)
// Damaged and mismatched database files seen through WzScanDB::initialize:
// the engine's status reaches the caller as an integer error with the
// engine's text, no file is changed (none created), and the refused object
// stays unusable. (tests/table_badfiles covers the engine's own view of many
// more damaged files.)
#include <cstring>
#include <functional>
#include <optional>

#include "HostileSupport.h"

namespace hostile {
namespace {

class BadInput : public HostileTest {
 protected:
  void SetUp() override {
    HostileTest::SetUp();
    ASSERT_TRUE(db.initialize(dir.path()).IsSuccess());
    for (const char* folder : {"/", "/a"}) ASSERT_TRUE(db.addFolder(Generic(folder, true)).IsSuccess());
    for (const char* name : {"/a/x", "/a/y", "/a/z"}) ASSERT_TRUE(db.addFile(Generic(name)).IsSuccess());
    before = PhysicalSnapshot(db);
  }
  void TearDown() override {
    db.close();
    HostileTest::TearDown();
  }

  WzScanDB db{Generic("")};
  std::vector<std::string> before;
};
using DamagedFiles = HostileTest;

// Every call refuses with errno 22 and its own origin message, and the table
// is unchanged: missing records, then records of another type (a Lustre
// record whose image would pass for the key of /a/x if it were read as a
// generic one: the refusal must not depend on the bytes; a backup-time
// record). A type derived from the database's keeps its record image: accepted.
TEST_F(BadInput, MissingRecordsAndRecordsOfAnotherTypeAreRefusedWithError22) {
  const WzScanDBRecordBasePtr none, x = Generic("/a/x"), backup = boost::make_shared<CBackupTimeRecord>(5, 6);
  WzScanDBRecordBasePtr lustre = Lustre(1, 2, "x");
  std::memcpy(lustre->getStructure(), x->getStructure(), 436);
  bool found = true;
  using Call = std::function<CKoError(const WzScanDBRecordBasePtr&)>;
  auto expectRefused = [&](const Call& call, const WzScanDBRecordBasePtr& record, const std::string& message) {
    const CKoError error = call(record);
    EXPECT_TRUE(error.GetKind() == EKoErrorKind::kErrNo) << message;
    EXPECT_EQ(Answer(error), "22 " + message);
    EXPECT_TRUE(PhysicalSnapshot(db) == before) << message;
  };
  const std::string rename = "One or both of the given records for Rename";
  const std::pair<Call, std::string> nullCases[] = {
      {[&](auto r) { return db.addFile(r); }, "The given record for Add File is NULL"},
      {[&](auto r) { return db.addFolder(r); }, "The given record for Add Folder is NULL"},
      {[&](auto r) { return db.removeFile(r); }, "The given record for Remove File is NULL"},
      {[&](auto r) { return db.removeFolder(r); }, "The given record for Remove Folder is NULL"},
      {[&](auto r) { return db.renameByKey(r, x); }, rename + " is NULL"},
      {[&](auto r) { return db.renameByKey(x, r); }, rename + " is NULL"},
      {[&](auto r) { return db.renameByKey(r, r); }, rename + " is NULL"},
      {[&](auto r) { return db.renameFile(r, x); }, rename + " File is NULL"},
      {[&](auto r) { return db.renameFile(x, r); }, rename + " File is NULL"},
      {[&](auto r) { return db.renameFile(r, r); }, rename + " File is NULL"},
      {[&](auto r) { return db.addRecordWithoutCheck(r); }, "The given record to add is NULL"},
      {[&](auto r) { return db.checkDBRecord(x, r, found); }, "Output Record pointer is NULL"},
  };
  for (const auto& [call, message] : nullCases) expectRefused(call, none, message);
  EXPECT_TRUE(found) << "a refused lookup leaves found as the caller set it";
  const Call typed[] = {
      [&](auto r) { return db.addDBRecord(r); },     [&](auto r) { return db.updateDBRecord(r); },
      [&](auto r) { return db.deleteDBRecord(r); },  [&](auto r) { return db.addRecordWithoutCheck(r); },
      [&](auto r) { return db.addFile(r); },         [&](auto r) { return db.addFolder(r); },
      [&](auto r) { return db.removeFile(r); },      [&](auto r) { return db.checkDBRecord(r, x, found); },
      [&](auto r) { return db.renameFile(x, r); },   [&](auto r) { return db.checkDBRecord(x, r, found); },
      [&](auto r) { return db.renameByKey(x, r); },  [&](auto r) { return db.renameByKey(r, Generic("/a/w")); }};
  for (const auto& [record, type] :
       {std::make_pair(lustre, "WzScanDBLustreRecord"), std::make_pair(backup, "CBackupTimeRecord")})
    for (const Call& call : typed)
      expectRefused(call, record, std::string("The given record of type ") + type +
                                      " is not of the database's record type WzScanDBRecord");
  ASSERT_TRUE(db.checkDBRecord(x, Generic(""), found).IsSuccess() && found);
  struct DerivedRecord : WzScanDBRecord {
    using WzScanDBRecord::WzScanDBRecord;
  };
  auto derived = boost::make_shared<DerivedRecord>("/a/derived", false, 0);
  ASSERT_TRUE(db.addFile(derived).IsSuccess());
  EXPECT_TRUE(db.checkDBRecord(Generic("/a/derived"), derived->Clone(), found).IsSuccess() && found);
  EXPECT_EQ(PhysicalSnapshot(db).size(), before.size() + 1);
  EXPECT_EQ(db.checkConsistency(), TBL_OK);
}

TEST_F(DamagedFiles, DamagedForeignAndMissingFilesAreRefusedAndLeftAsTheyWere) {
  TempDir other, lustre;
  MakeGenericDb(dir.path(), 50);
  MakeGenericDb(other.path(), 50);  // same schema, same operations
  {
    WzScanDB db(Lustre(0, 0, ""));  // a database of another record type: another schema
    ASSERT_TRUE(db.initialize(lustre.path()).IsSuccess() && db.addDBRecord(Lustre(7, 9, "n")).IsSuccess());
    db.close();
  }
  const std::string dat = ReadBytes(dir / "WzScanDB.dat"), idx = ReadBytes(dir / "WzScanDB.idx");
  const std::string kOpen = "Failed to Open an Existing WzScanDB : ", kCreate = "Failed to Create WzScanDB : ";
  using File = std::optional<std::string>;  // the bytes put in place, or no file
  const std::tuple<const char*, File, File, int, std::string> cases[] = {
      {"data file cut in half", dat.substr(0, dat.size() / 2), idx, TBL_BAD_FORMAT, kOpen},
      {"index file one byte short", dat, idx.substr(0, idx.size() - 1), TBL_BAD_FORMAT, kOpen},
      {"an empty index file alone: create refuses to reuse it", std::nullopt, std::string(), TBL_FILE_EXISTS, kCreate},
      {"the index file of another database", dat, ReadBytes(other / "WzScanDB.idx"), TBL_FILES_MISMATCH, kOpen},
      {"the data file of another database", ReadBytes(other / "WzScanDB.dat"), idx, TBL_FILES_MISMATCH, kOpen},
      {"the files of another record type", ReadBytes(lustre / "WzScanDB.dat"), ReadBytes(lustre / "WzScanDB.idx"),
       TBL_SCHEMA_MISMATCH, kOpen},
      {"no index file: not silently re-created", dat, std::nullopt, TBL_FILE_MISSING, kOpen},
  };
  auto file = [&](const char* name) { return Exists(dir / name) ? File(ReadBytes(dir / name)) : std::nullopt; };
  for (const auto& [what, datFile, idxFile, status, message] : cases) {
    SCOPED_TRACE(what);
    unlink((dir / "WzScanDB.dat").c_str()), unlink((dir / "WzScanDB.idx").c_str());
    if (datFile) WriteBytes(dir / "WzScanDB.dat", *datFile);
    if (idxFile) WriteBytes(dir / "WzScanDB.idx", *idxFile);
    WzScanDB db(Generic(""));
    const CKoError error = db.initialize(dir.path());
    bool found = false;
    EXPECT_TRUE(error.GetKind() == EKoErrorKind::kInt && !db.initializeCheck());
    EXPECT_EQ(Answer(error), std::to_string(status) + " " + message + Engine(status));
    EXPECT_EQ(db.checkDBRecord(Generic("/a"), Generic("/a"), found).GetCode(), 22);
    EXPECT_TRUE(file("WzScanDB.dat") == datFile && file("WzScanDB.idx") == idxFile) << "a file changed";
  }
}

}  // namespace
}  // namespace hostile
