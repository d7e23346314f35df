// What the exported functions forward to: the arguments in the caller's
// order, and the callee's error assigned whole to the caller's variable.
// (That every success overwrites a stale error is shown by the client test,
// whose calls all start from one.)
#include <sys/stat.h>

#include <functional>
#include <stdexcept>

#include "ExportsTestSupport.h"

namespace exportstest {
namespace {

// 2: both files, 1: one of them, 0: none.
int Files(const TempDir& dir) {
  struct stat info;
  return (stat((dir / "WzScanDB.dat").c_str(), &info) == 0) +
         (stat((dir / "WzScanDB.idx").c_str(), &info) == 0);
}

// `exported` must be exactly the error that the member gave: same frames,
// nothing of the caller's stale error left.
void ExpectSameError(const CKoError& direct, const CKoError& exported, const char* what) {
  SCOPED_TRACE(what);
  ASSERT_TRUE(direct.IsError());
  EXPECT_EQ(direct.AsString(), exported.AsString());
  EXPECT_EQ(direct.GetFrames().size(), exported.GetFrames().size());
  EXPECT_EQ(std::string::npos, exported.AsString().find(kStaleMessage));
}

struct Case {
  const char* name;
  std::function<CKoError()> direct, exported;
};
void ExpectSameErrors(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    CKoError direct = c.direct();
    ExpectSameError(direct, c.exported(), c.name);
  }
}

TEST_F(ExportsTest, CopyMoveAndRemoveKeepTheCallersOrder) {
  TempDir a, b, c, none;
  Call(WzScanDBObjectClose, OpenGeneric(a.path(), {"/f"}));
  WzScanDBPtr h = NewHandle();  // never initialised: the file calls do not use it
  EXPECT_OK(Call(WzScanDBObjectCopy, h, a.path(), b.path()));
  EXPECT_OK(Call(WzScanDBObjectMove, h, b.path(), c.path()));
  EXPECT_EQ(1u, capture->Find("Copying WzScanDB from " + a.path() + " to " + b.path() +
                              " completed successfully").size());
  EXPECT_EQ(1u, capture->Find("Moving WzScanDB from " + b.path() + " to " + c.path() +
                              " completed successfully").size());
  EXPECT_EQ(2, Files(a));
  EXPECT_EQ(0, Files(b));
  EXPECT_EQ(2, Files(c));
  WzScanDBPtr reader = NewHandle();
  std::string moved = c.path();
  EXPECT_OK(Call(WzScanDBObjectInitialize, reader, moved));
  EXPECT_TRUE(Stored(reader, "/f")) << "the moved copy holds what was written first";
  Call(WzScanDBObjectClose, reader);

  // Failures are the member's own errors, naming both directories in order.
  CKoError err = Call(WzScanDBObjectCopy, h, none.path(), b.path());
  ExpectSameError(WzScanDB::copy(none.path(), b.path()), err, "copy");
  EXPECT_EQ("Couldn't copy WzScanDB from " + none.path() + " to " + b.path(), err.GetTopMessage());
  err = Call(WzScanDBObjectMove, h, none.path(), b.path());
  ExpectSameError(WzScanDB::move(none.path(), b.path()), err, "move");
  EXPECT_EQ("Couldn't move WzScanDB from " + none.path() + " to " + b.path(), err.GetTopMessage());
  EXPECT_OK(Call(WzScanDBObjectRemove, h, c.path()));
  EXPECT_EQ(0, Files(c));
  ExpectSameError(WzScanDB::remove(c.path()), Call(WzScanDBObjectRemove, h, c.path()), "remove");
}

TEST_F(ExportsTest, RenameFolderPassesOldRecordNewRecordOldPathNewPath) {
  TempDir dir;
  WzScanDBPtr h = OpenGeneric(dir.path(), {"/x/", "/x/f", "/xx/"});
  g_ptrLogWriter->SetLevel(6);
  EXPECT_OK(Call(WzScanDBObjectRenameFolder, h, Generic("/x", true), Generic("/y", true), "/x", "/y"));
  EXPECT_EQ(1u, capture->Find("Renaming path from : /x/f to /y/f").size());
  EXPECT_EQ(1u, capture->Find("Rename Operation from /x to /y performed successfully").size());
  EXPECT_FALSE(Stored(h, "/x") || Stored(h, "/x/f"));
  EXPECT_TRUE(Stored(h, "/y") && Stored(h, "/y/f") && Stored(h, "/xx"));

  // The old path reaches the not-found message; the stored tree is unchanged.
  CKoError err =
      Call(WzScanDBObjectRenameFolder, h, Generic("/x", true), Generic("/z", true), "/x", "/z");
  EXPECT_EQ(2, err.GetCode());
  EXPECT_EQ("Cannot rename folder /x since the folder doesn't exist in the database",
            err.GetTopMessage());
  EXPECT_FALSE(Stored(h, "/z"));
  Call(WzScanDBObjectClose, h);
}

// Failing calls hand back exactly the member's error: each function reaches
// its own member (the messages differ) and appends nothing.
TEST_F(ExportsTest, EveryFailureIsTheForwardedOperationsOwnError) {
  TempDir dir;
  WzScanDBPtr h = OpenGeneric(dir.path(), {"/d/", "/d/f"});
  const WzScanDBRecordBasePtr none, absent = Generic("/absent"), other = Generic("/other");
  const WzScanDBRecordBasePtr absentFolder = Generic("/absentFolder", true), n = Generic("/n", true);
  WzScanDBRecordBasePtr item;
  std::string itemPath;
  bool flag = true;
  ExpectSameErrors({
      {"AddFile", [&] { return h->addFile(none); },
       [&] { return Call(WzScanDBObjectAddFile, h, none); }},
      {"AddFolder", [&] { return h->addFolder(none); },
       [&] { return Call(WzScanDBObjectAddFolder, h, none); }},
      {"RemoveFile", [&] { return h->removeFile(none); },
       [&] { return Call(WzScanDBObjectRemoveFile, h, none); }},
      {"RemoveFolder", [&] { return h->removeFolder(none); },
       [&] { return Call(WzScanDBObjectRemoveFolder, h, none); }},
      {"RenameFile", [&] { return h->renameFile(none, absent); },
       [&] { return Call(WzScanDBObjectRenameFile, h, none, absent); }},
      {"RenameByKey", [&] { return h->renameByKey(absent, other); },
       [&] { return Call(WzScanDBObjectRenameByKey, h, absent, other); }},
      {"RenameFolder", [&] { return h->renameFolder(absentFolder, n, "/absentFolder", "/n"); },
       [&] { return Call(WzScanDBObjectRenameFolder, h, absentFolder, n, "/absentFolder", "/n"); }},
      {"AddRecordWithoutCheck", [&] { return h->addRecordWithoutCheck(none); },
       [&] { return Call(WzScanDBObjectAddRecordWithoutCheck, h, none); }},
      {"CheckDBRecord", [&] { return h->checkDBRecord(absent, none, flag); },
       [&] { return Call(WzScanDBObjectCheckDBRecord, h, absent, none, flag); }},
      {"UpdateDBRecord", [&] { return h->updateDBRecord(absent); },
       [&] { return Call(WzScanDBObjectUpdateDBRecord, h, absent); }},
      {"GetFirstItem", [&] { return h->getFirstItem(absentFolder, item, itemPath); },
       [&] { return Call(WzScanDBObjectGetFirstItem, h, absentFolder, item, itemPath); }},
  });
  // The end of an item walk is the member's own end error, code 18.
  EXPECT_OK(Call(WzScanDBObjectGetFirstItem, h, Generic("/d", true), item, itemPath));
  EXPECT_EQ("f", itemPath);
  CKoError err = Call(WzScanDBObjectGetNextItem, h, item, itemPath);
  EXPECT_EQ(EKoErrorKind::kWin32, err.GetKind());
  EXPECT_EQ(18, err.GetCode());
  ExpectSameError(h->getNextItem(item, itemPath), err, "GetNextItem");
  Call(WzScanDBObjectClose, h);

  // A database that was never initialised refuses the rest.
  WzScanDBPtr u = NewHandle();
  std::vector<WzScanDBRecordBasePtr> items;
  std::string noDirectory;
  ExpectSameErrors({
      {"Initialize", [&] { return u->initialize(noDirectory); },
       [&] { return Call(WzScanDBObjectInitialize, u, noDirectory); }},
      {"AddDBRecord", [&] { return u->addDBRecord(absent); },
       [&] { return Call(WzScanDBObjectAddDBRecord, u, absent); }},
      {"GetFolderItems", [&] { return u->getChildren(absentFolder, items); },
       [&] { return Call(WzScanDBObjectGetFolderItems, u, absentFolder, items); }},
      {"ValidateTree", [&] { return u->validateTree(flag); },
       [&] { return Call(WzScanDBObjectValidateTree, u, flag); }},
      {"SuspendIndexing", [&] { return u->suspendIndex(); },
       [&] { return Call(WzScanDBSuspendIndexing, u); }},
      {"RebuildIndexing", [&] { return u->rebuildIndex(); },
       [&] { return Call(WzScanDBRebuildIndexing, u); }},
  });
}

// A generic record that refuses to be cloned, which every lookup does first.
class UncloneableRecord : public WzScanDBRecord {
 public:
  UncloneableRecord(const std::string& path, bool isDir) : WzScanDBRecord(path, isDir, 0) {}
  WzScanDBRecordBasePtr Clone() override { throw std::runtime_error("clone refused"); }
};

// Nothing is caught: the exception reaches the caller, and the function's
// own copies of the record handles are gone by then.
TEST_F(ExportsTest, ExceptionsPassThroughAndReleaseTheCopies) {
  TempDir dir;
  WzScanDBPtr h = OpenGeneric(dir.path());
  WzScanDBRecordBasePtr record(new UncloneableRecord("/f", false)), target = Generic("/g");
  EXPECT_THROW(Call(WzScanDBObjectAddDBRecord, h, record), std::runtime_error);
  EXPECT_THROW(Call(WzScanDBObjectRenameByKey, h, record, target), std::runtime_error);
  WzScanDBRecordBasePtr folder(new UncloneableRecord("/d", true));
  EXPECT_THROW(Call(WzScanDBObjectRenameFolder, h, folder, target, "/d", "/e"), std::runtime_error);
  EXPECT_EQ(1, record.use_count());
  EXPECT_EQ(1, folder.use_count());
  EXPECT_EQ(1, target.use_count());
  // The database goes on working after the exceptions.
  EXPECT_OK(Call(WzScanDBObjectAddFile, h, Generic("/f")));
  EXPECT_TRUE(Stored(h, "/f"));
  EXPECT_OK(Call(WzScanDBObjectClose, h));
}

}  // namespace
}  // namespace exportstest
