// Bad input through the API: missing records, records of another type than
// the database's, and names that are not UTF-8, hold newlines or run to 255
// bytes and more. Each is answered as documented, and nothing else in the
// table changes (a physical walk of every record image before and after).
#include <cerrno>
#include <cstring>
#include <functional>

#include "HostileSupport.h"

namespace hostile {
namespace {

class BadInput : public HostileTest {
 protected:
  void SetUp() override {
    HostileTest::SetUp();
    db.reset(new WzScanDB(Generic("")));
    ASSERT_TRUE(db->initialize(dir.path()).IsSuccess());
    ASSERT_TRUE(db->addFolder(Generic("/", true)).IsSuccess());
    ASSERT_TRUE(db->addFolder(Generic("/a", true)).IsSuccess());
    for (const char* name : {"/a/x", "/a/y", "/a/z"}) ASSERT_TRUE(db->addFile(Generic(name)).IsSuccess());
    before = Snapshot();
  }
  void TearDown() override {
    if (db) db->close();
    HostileTest::TearDown();
  }

  std::vector<std::string> Snapshot() { return PhysicalSnapshot(*db, 440); }

  // `call` fails with errno 22 and `message` as its origin, and the table is
  // unchanged.
  void ExpectRefused(const std::string& what, const std::function<CKoError()>& call,
                     const std::string& message) {
    SCOPED_TRACE(what);
    CKoError error = call();
    ASSERT_TRUE(error.IsError());
    EXPECT_EQ(error.GetKind(), EKoErrorKind::kErrNo);
    EXPECT_EQ(error.GetCode(), 22);
    EXPECT_EQ(error.GetOriginMessage(), message);
    EXPECT_TRUE(SameImages(Snapshot(), before));
  }

  WzScanDBPtr db;
  std::vector<std::string> before;
};

TEST_F(BadInput, MissingRecordsAreRefusedWithError22) {
  const WzScanDBRecordBasePtr none, some = Generic("/a/x");
  ExpectRefused("addFile", [&] { return db->addFile(none); }, "The given record for Add File is NULL");
  ExpectRefused("addFolder", [&] { return db->addFolder(none); },
                "The given record for Add Folder is NULL");
  ExpectRefused("removeFile", [&] { return db->removeFile(none); },
                "The given record for Remove File is NULL");
  ExpectRefused("removeFolder", [&] { return db->removeFolder(none); },
                "The given record for Remove Folder is NULL");
  for (int order = 0; order < 3; ++order) {
    const WzScanDBRecordBasePtr oldRecord = order == 1 ? some : none;
    const WzScanDBRecordBasePtr newRecord = order == 0 ? some : none;
    ExpectRefused("renameByKey", [&] { return db->renameByKey(oldRecord, newRecord); },
                  "One or both of the given records for Rename is NULL");
    ExpectRefused("renameFile", [&] { return db->renameFile(oldRecord, newRecord); },
                  "One or both of the given records for Rename File is NULL");
  }
  ExpectRefused("addRecordWithoutCheck", [&] { return db->addRecordWithoutCheck(none); },
                "The given record to add is NULL");
  bool found = true;
  ExpectRefused("checkDBRecord", [&] { return db->checkDBRecord(some, none, found); },
                "Output Record pointer is NULL");
  EXPECT_TRUE(found);  // left as the caller set it
}

TEST_F(BadInput, RecordsOfAnotherTypeAreRefusedAndNothingIsWritten) {
  const std::string lustreText =
      "The given record of type WzScanDBLustreRecord is not of the database's record type "
      "WzScanDBRecord";
  const std::string backupText =
      "The given record of type CBackupTimeRecord is not of the database's record type "
      "WzScanDBRecord";
  const WzScanDBRecordBasePtr backup = boost::make_shared<CBackupTimeRecord>(5, 6);
  // A Lustre record whose image would pass for the key of /a/x if it were
  // read as a generic one: the refusal must not depend on the bytes.
  WzScanDBRecordBasePtr lustre = Lustre(1, 2, "x");
  std::memcpy(lustre->getStructure(), Generic("/a/x")->getStructure(), 436);

  for (const auto& c : {std::make_pair(lustre, lustreText), std::make_pair(backup, backupText)}) {
    const WzScanDBRecordBasePtr& wrong = c.first;
    const std::string& text = c.second;
    ExpectRefused("addDBRecord", [&] { return db->addDBRecord(wrong); }, text);
    ExpectRefused("updateDBRecord", [&] { return db->updateDBRecord(wrong); }, text);
    ExpectRefused("deleteDBRecord", [&] { return db->deleteDBRecord(wrong); }, text);
    ExpectRefused("addRecordWithoutCheck", [&] { return db->addRecordWithoutCheck(wrong); }, text);
    ExpectRefused("addFile", [&] { return db->addFile(wrong); }, text);
    ExpectRefused("addFolder", [&] { return db->addFolder(wrong); }, text);
    ExpectRefused("removeFile", [&] { return db->removeFile(wrong); }, text);
    bool found = false;
    ExpectRefused("checkDBRecord in", [&] { return db->checkDBRecord(wrong, Generic("/a/x"), found); },
                  text);
    ExpectRefused("checkDBRecord out", [&] { return db->checkDBRecord(Generic("/a/x"), wrong, found); },
                  text);
    ExpectRefused("renameByKey to", [&] { return db->renameByKey(Generic("/a/x"), wrong); }, text);
    ExpectRefused("renameByKey from", [&] { return db->renameByKey(wrong, Generic("/a/w")); }, text);
    ExpectRefused("renameFile to", [&] { return db->renameFile(Generic("/a/x"), wrong); }, text);
  }
  bool found = false;
  ASSERT_TRUE(db->checkDBRecord(Generic("/a/x"), Generic(""), found).IsSuccess());
  EXPECT_TRUE(found);
  EXPECT_EQ(db->checkConsistency(), TBL_OK);

  // A type derived from the database's keeps its record image: accepted.
  struct DerivedRecord : WzScanDBRecord {
    using WzScanDBRecord::WzScanDBRecord;
  };
  auto derived = boost::make_shared<DerivedRecord>("/a/derived", false, 0);
  ASSERT_TRUE(db->addFile(derived).IsSuccess());
  ASSERT_TRUE(db->checkDBRecord(Generic("/a/derived"), derived->Clone(), found).IsSuccess());
  EXPECT_TRUE(found);
  EXPECT_EQ(Snapshot().size(), before.size() + 1);
}

TEST_F(BadInput, NamesAreStoredByteForByte) {
  const std::string longName(300, 'L');
  const std::string names[] = {
      std::string("\xff\xfe\x80not-utf8\xc3", 12),
      "two\nlines",
      "carriage\rreturn\ttab",
      std::string(255, 'n'),
      longName.substr(0, 200) + std::string("\xe2\x82", 2) + longName.substr(0, 98),
      longName,
  };
  for (const std::string& name : names) {
    SCOPED_TRACE(testing::PrintToString(name));
    const std::string path = "/a/" + name;
    ASSERT_TRUE(db->addFile(Generic(path)).IsSuccess());
    const std::string stored = name.substr(0, 255);

    WzScanDBRecordBasePtr out = Generic("");
    bool found = false;
    ASSERT_TRUE(db->checkDBRecord(Generic(path), out, found).IsSuccess());
    ASSERT_TRUE(found);
    const char* sname = static_cast<const char*>(out->getStructure()) + 181;
    EXPECT_EQ(std::string(sname, stored.size()), stored);
    if (stored.size() < 255) {
      EXPECT_EQ(sname[stored.size()], '\0');
    }
    EXPECT_EQ(out->getName(), stored);

    // The parent finds it among its children under the stored name.
    std::vector<WzScanDBRecordBasePtr> children;
    ASSERT_TRUE(db->getChildren(Generic("/a", true), children).IsSuccess());
    size_t matches = 0;
    for (const auto& child : children) matches += child->getName() == stored;
    EXPECT_EQ(matches, 1u);
    std::string fullPath;
    ASSERT_TRUE(db->getPathFromRecord(out, fullPath).IsSuccess());
    EXPECT_EQ(fullPath, "/a/" + stored);

    // One record image was appended; the others are as they were.
    std::vector<std::string> after = Snapshot();
    ASSERT_EQ(after.size(), before.size() + 1);
    EXPECT_TRUE(SameImages(std::vector<std::string>(after.begin(), after.end() - 1), before));
    EXPECT_EQ(db->checkConsistency(), TBL_OK);

    ASSERT_TRUE(db->removeFile(Generic(path)).IsSuccess());
    EXPECT_TRUE(SameImages(Snapshot(), before));
  }
}

}  // namespace
}  // namespace hostile
