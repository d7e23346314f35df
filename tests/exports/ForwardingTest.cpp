// What the exported functions forward to: the arguments in the caller's
// order, and the callee's error assigned whole to the caller's variable.
#include <sys/stat.h>

#include <functional>
#include <stdexcept>

#include "ExportsTestSupport.h"

namespace exportstest {
namespace {

// 2: both files, 1: one of them, 0: none.
int Files(const std::string& directory) {
  struct stat info;
  return (stat((directory + "/WzScanDB.dat").c_str(), &info) == 0) +
         (stat((directory + "/WzScanDB.idx").c_str(), &info) == 0);
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
  std::function<CKoError()> direct;
  std::function<void(CKoError&)> exported;
};
void ExpectSameErrors(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    CKoError direct = c.direct();
    CKoError exported = Stale();
    c.exported(exported);
    ExpectSameError(direct, exported, c.name);
  }
}

TEST_F(ExportsTest, CopyMoveAndRemoveKeepTheCallersOrder) {
  TempDir a, b, c, nothing;
  CKoError err;
  WzScanDBObjectClose(OpenGeneric(a.path(), {"/f"}), err);
  WzScanDBPtr handle = NewHandle();  // never initialised: the file calls do not use it

  err = Stale();
  WzScanDBObjectCopy(handle, a.path(), b.path(), err);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_EQ(2, Files(a.path()));
  EXPECT_EQ(2, Files(b.path()));
  EXPECT_EQ(1u, capture->Find("Copying WzScanDB from " + a.path() + " to " + b.path() +
                              " completed successfully").size());
  err = Stale();
  WzScanDBObjectMove(handle, b.path(), c.path(), err);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_EQ(0, Files(b.path()));
  EXPECT_EQ(2, Files(c.path()));
  EXPECT_EQ(1u, capture->Find("Moving WzScanDB from " + b.path() + " to " + c.path() +
                              " completed successfully").size());
  WzScanDBPtr reader = NewHandle();
  std::string moved = c.path();
  WzScanDBObjectInitialize(reader, moved, err);
  EXPECT_TRUE(Stored(reader, "/f")) << "the moved copy holds what was written first";
  WzScanDBObjectClose(reader, err);

  // Failures name both directories in the caller's order.
  err = Stale();
  WzScanDBObjectCopy(handle, nothing.path(), b.path(), err);
  ExpectSameError(WzScanDB::copy(nothing.path(), b.path()), err, "copy");
  EXPECT_EQ("Couldn't copy WzScanDB from " + nothing.path() + " to " + b.path(),
            err.GetTopMessage());
  err = Stale();
  WzScanDBObjectMove(handle, nothing.path(), b.path(), err);
  ExpectSameError(WzScanDB::move(nothing.path(), b.path()), err, "move");
  EXPECT_EQ("Couldn't move WzScanDB from " + nothing.path() + " to " + b.path(),
            err.GetTopMessage());

  err = Stale();
  WzScanDBObjectRemove(handle, c.path(), err);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_EQ(0, Files(c.path()));
  EXPECT_EQ(2, Files(a.path()));
  err = Stale();
  WzScanDBObjectRemove(handle, c.path(), err);
  ExpectSameError(WzScanDB::remove(c.path()), err, "remove");
}

TEST_F(ExportsTest, RenameFolderPassesOldRecordNewRecordOldPathNewPath) {
  TempDir dir;
  WzScanDBPtr handle = OpenGeneric(dir.path(), {"/x/", "/x/f", "/xx/"});
  g_ptrLogWriter->SetLevel(6);
  CKoError err = Stale();
  WzScanDBObjectRenameFolder(handle, Generic("/x", true), Generic("/y", true), "/x", "/y", err);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_EQ(1u, capture->Find("Renaming path from : /x/f to /y/f").size());
  EXPECT_FALSE(Stored(handle, "/x") || Stored(handle, "/x/f"));
  EXPECT_TRUE(Stored(handle, "/y") && Stored(handle, "/y/f") && Stored(handle, "/xx"));
  EXPECT_EQ(1u, capture->Find("Rename Operation from /x to /y performed successfully").size());

  // The old path reaches the not-found message; the stored tree is unchanged.
  err = Stale();
  WzScanDBObjectRenameFolder(handle, Generic("/x", true), Generic("/z", true), "/x", "/z", err);
  EXPECT_EQ(2, err.GetCode());
  EXPECT_EQ("Cannot rename folder /x since the folder doesn't exist in the database",
            err.GetTopMessage());
  EXPECT_FALSE(Stored(handle, "/z"));
  WzScanDBObjectClose(handle, err);
}

// A whole life cycle in which every exported call with an error argument
// succeeds: the caller's stale error is replaced by success each time.
TEST_F(ExportsTest, EverySuccessOverwritesTheCallersError) {
  TempDir dir, copyDir, moveDir;
  WzScanDBPtr h = NewHandle();
  std::string path = dir.path();
  WzScanDBRecordBasePtr out = Generic(""), item;
  std::string itemPath;
  std::vector<WzScanDBRecordBasePtr> items;
  bool flag = false;
  const std::vector<std::pair<const char*, std::function<void(CKoError&)>>> calls = {
      {"Initialize", [&](CKoError& e) { WzScanDBObjectInitialize(h, path, e); }},
      {"AddFolder root", [&](CKoError& e) { WzScanDBObjectAddFolder(h, Generic("/", true), e); }},
      {"AddFolder", [&](CKoError& e) { WzScanDBObjectAddFolder(h, Generic("/d", true), e); }},
      {"AddFile", [&](CKoError& e) { WzScanDBObjectAddFile(h, Generic("/d/f"), e); }},
      {"AddDBRecord", [&](CKoError& e) { WzScanDBObjectAddDBRecord(h, Generic("/d/g"), e); }},
      {"AddRecordWithoutCheck",
       [&](CKoError& e) { WzScanDBObjectAddRecordWithoutCheck(h, Generic("/d/h"), e); }},
      {"CheckDBRecord",
       [&](CKoError& e) { WzScanDBObjectCheckDBRecord(h, Generic("/d/f"), out, flag, e); }},
      {"UpdateDBRecord", [&](CKoError& e) { WzScanDBObjectUpdateDBRecord(h, out, e); }},
      {"GetFolderItems",
       [&](CKoError& e) { WzScanDBObjectGetFolderItems(h, Generic("/d", true), items, e); }},
      {"GetFirstItem",
       [&](CKoError& e) { WzScanDBObjectGetFirstItem(h, Generic("/d", true), item, itemPath, e); }},
      {"GetNextItem", [&](CKoError& e) { WzScanDBObjectGetNextItem(h, item, itemPath, e); }},
      {"RenameFile",
       [&](CKoError& e) { WzScanDBObjectRenameFile(h, Generic("/d/g"), Generic("/d/g2"), e); }},
      {"RenameByKey",
       [&](CKoError& e) { WzScanDBObjectRenameByKey(h, Generic("/d/h"), Generic("/d/h2"), e); }},
      {"RenameFolder",
       [&](CKoError& e) {
         WzScanDBObjectRenameFolder(h, Generic("/d", true), Generic("/e", true), "/d", "/e", e);
       }},
      {"ValidateTree", [&](CKoError& e) { WzScanDBObjectValidateTree(h, flag, e); }},
      {"SuspendIndexing", [&](CKoError& e) { WzScanDBSuspendIndexing(h, e); }},
      {"RebuildIndexing", [&](CKoError& e) { WzScanDBRebuildIndexing(h, e); }},
      {"RemoveFile", [&](CKoError& e) { WzScanDBObjectRemoveFile(h, Generic("/e/f"), e); }},
      {"RemoveFolder", [&](CKoError& e) { WzScanDBObjectRemoveFolder(h, Generic("/e", true), e); }},
      {"Close", [&](CKoError& e) { WzScanDBObjectClose(h, e); }},
      {"Copy", [&](CKoError& e) { WzScanDBObjectCopy(h, dir.path(), copyDir.path(), e); }},
      {"Move", [&](CKoError& e) { WzScanDBObjectMove(h, copyDir.path(), moveDir.path(), e); }},
      {"Remove", [&](CKoError& e) { WzScanDBObjectRemove(h, moveDir.path(), e); }},
  };
  for (const auto& call : calls) {
    CKoError err = Stale();
    call.second(err);
    EXPECT_TRUE(err.IsSuccess()) << call.first << ": " << err.AsString();
    EXPECT_TRUE(err.GetFrames().empty()) << call.first;
  }
  EXPECT_EQ(3u, items.size());
  EXPECT_EQ("g", itemPath);  // the second item of /d: f, g, h by name
  EXPECT_TRUE(flag);         // the tree was consistent
  EXPECT_FALSE(WzScanDBObjectIsInitialized(h));
}

// Failing calls hand back exactly the member's error: each function reaches
// its own member (the messages differ) and appends nothing.
TEST_F(ExportsTest, EveryFailureIsTheForwardedOperationsOwnError) {
  TempDir dir;
  WzScanDBPtr h = OpenGeneric(dir.path(), {"/d/", "/d/f"});
  const WzScanDBRecordBasePtr none, absent = Generic("/absent"), other = Generic("/other");
  const WzScanDBRecordBasePtr absentFolder = Generic("/absentFolder", true), n = Generic("/n", 1);
  WzScanDBRecordBasePtr item;
  std::string itemPath;
  bool flag = true;
  ExpectSameErrors({
      {"AddFile", [&] { return h->addFile(none); },
       [&](CKoError& e) { WzScanDBObjectAddFile(h, none, e); }},
      {"AddFolder", [&] { return h->addFolder(none); },
       [&](CKoError& e) { WzScanDBObjectAddFolder(h, none, e); }},
      {"RemoveFile", [&] { return h->removeFile(none); },
       [&](CKoError& e) { WzScanDBObjectRemoveFile(h, none, e); }},
      {"RemoveFolder", [&] { return h->removeFolder(none); },
       [&](CKoError& e) { WzScanDBObjectRemoveFolder(h, none, e); }},
      {"RenameFile", [&] { return h->renameFile(none, absent); },
       [&](CKoError& e) { WzScanDBObjectRenameFile(h, none, absent, e); }},
      {"RenameByKey", [&] { return h->renameByKey(absent, other); },
       [&](CKoError& e) { WzScanDBObjectRenameByKey(h, absent, other, e); }},
      {"RenameFolder", [&] { return h->renameFolder(absentFolder, n, "/absentFolder", "/n"); },
       [&](CKoError& e) { WzScanDBObjectRenameFolder(h, absentFolder, n, "/absentFolder", "/n", e); }},
      {"AddRecordWithoutCheck", [&] { return h->addRecordWithoutCheck(none); },
       [&](CKoError& e) { WzScanDBObjectAddRecordWithoutCheck(h, none, e); }},
      {"CheckDBRecord", [&] { return h->checkDBRecord(absent, none, flag); },
       [&](CKoError& e) { WzScanDBObjectCheckDBRecord(h, absent, none, flag, e); }},
      {"UpdateDBRecord", [&] { return h->updateDBRecord(absent); },
       [&](CKoError& e) { WzScanDBObjectUpdateDBRecord(h, absent, e); }},
      {"GetFirstItem", [&] { return h->getFirstItem(absentFolder, item, itemPath); },
       [&](CKoError& e) { WzScanDBObjectGetFirstItem(h, absentFolder, item, itemPath, e); }},
  });

  // The end of an item walk is the member's own end error, code 18.
  CKoError err = Stale();
  WzScanDBObjectGetFirstItem(h, Generic("/d", true), item, itemPath, err);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_EQ("f", itemPath);
  err = Stale();
  WzScanDBObjectGetNextItem(h, item, itemPath, err);
  EXPECT_EQ(EKoErrorKind::kWin32, err.GetKind());
  EXPECT_EQ(18, err.GetCode());
  ExpectSameError(h->getNextItem(item, itemPath), err, "GetNextItem");
  WzScanDBObjectClose(h, err);

  // A database that was never initialised refuses the rest.
  WzScanDBPtr u = NewHandle();
  std::vector<WzScanDBRecordBasePtr> items;
  std::string noDirectory;
  ExpectSameErrors({
      {"Initialize", [&] { return u->initialize(noDirectory); },
       [&](CKoError& e) { WzScanDBObjectInitialize(u, noDirectory, e); }},
      {"AddDBRecord", [&] { return u->addDBRecord(absent); },
       [&](CKoError& e) { WzScanDBObjectAddDBRecord(u, absent, e); }},
      {"GetFolderItems", [&] { return u->getChildren(absentFolder, items); },
       [&](CKoError& e) { WzScanDBObjectGetFolderItems(u, absentFolder, items, e); }},
      {"ValidateTree", [&] { return u->validateTree(flag); },
       [&](CKoError& e) { WzScanDBObjectValidateTree(u, flag, e); }},
      {"SuspendIndexing", [&] { return u->suspendIndex(); },
       [&](CKoError& e) { WzScanDBSuspendIndexing(u, e); }},
      {"RebuildIndexing", [&] { return u->rebuildIndex(); },
       [&](CKoError& e) { WzScanDBRebuildIndexing(u, e); }},
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
  CKoError err;
  EXPECT_THROW(WzScanDBObjectAddDBRecord(h, record, err), std::runtime_error);
  EXPECT_EQ(1, record.use_count());
  EXPECT_THROW(WzScanDBObjectRenameByKey(h, record, target, err), std::runtime_error);
  EXPECT_EQ(1, record.use_count());
  EXPECT_EQ(1, target.use_count());
  EXPECT_THROW(WzScanDBObjectRenameFolder(h, WzScanDBRecordBasePtr(new UncloneableRecord("/d", true)),
                                          target, "/d", "/e", err),
               std::runtime_error);
  EXPECT_EQ(1, target.use_count());
  // The database goes on working after the exceptions.
  WzScanDBObjectAddFile(h, Generic("/f"), err);
  EXPECT_TRUE(Stored(h, "/f"));
  WzScanDBObjectClose(h, err);
  EXPECT_TRUE(err.IsSuccess());
}

}  // namespace
}  // namespace exportstest
