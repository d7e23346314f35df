// What the exported functions forward to: the arguments in the caller's
// order, and the callee's error assigned whole to the caller's variable.
#include <sys/stat.h>

#include <functional>
#include <stdexcept>

#include "ExportsTestSupport.h"

namespace exportstest {
namespace {

bool HasFiles(const std::string& directory) {
  struct stat info;
  return stat((directory + "/WzScanDB.dat").c_str(), &info) == 0 &&
         stat((directory + "/WzScanDB.idx").c_str(), &info) == 0;
}

bool HasAnyFile(const std::string& directory) {
  struct stat info;
  return stat((directory + "/WzScanDB.dat").c_str(), &info) == 0 ||
         stat((directory + "/WzScanDB.idx").c_str(), &info) == 0;
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

TEST_F(ExportsTest, CopyMoveAndRemoveKeepTheCallersOrder) {
  TempDir a, b, c, nothing;
  {
    WzScanDBPtr handle = OpenGeneric(a.path());
    Add(handle, "/f", false);
    CKoError err;
    WzScanDBObjectClose(handle, err);
  }
  WzScanDBRecordPtr prototype;
  CreateGlusterEmptyRecordObject(prototype);
  WzScanDBPtr handle;
  CreateWzScanDBObject(handle, prototype);  // never initialised: the file calls do not use it

  CKoError err = Stale();
  WzScanDBObjectCopy(handle, a.path(), b.path(), err);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_TRUE(HasFiles(a.path()));
  EXPECT_TRUE(HasFiles(b.path()));
  EXPECT_EQ(1u, capture
                    ->Find("Copying WzScanDB from " + a.path() + " to " + b.path() +
                           " completed successfully")
                    .size());

  err = Stale();
  WzScanDBObjectMove(handle, b.path(), c.path(), err);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_FALSE(HasAnyFile(b.path()));
  EXPECT_TRUE(HasFiles(c.path()));
  EXPECT_EQ(1u, capture
                    ->Find("Moving WzScanDB from " + b.path() + " to " + c.path() +
                           " completed successfully")
                    .size());

  // The moved copy holds what was written in the first directory.
  WzScanDBPtr reader;
  CreateWzScanDBObject(reader, prototype);
  std::string moved = c.path();
  WzScanDBObjectInitialize(reader, moved, err);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_TRUE(Stored(reader, "/f"));
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
  EXPECT_FALSE(HasAnyFile(c.path()));
  EXPECT_TRUE(HasFiles(a.path()));
  err = Stale();
  WzScanDBObjectRemove(handle, c.path(), err);
  ExpectSameError(WzScanDB::remove(c.path()), err, "remove");
}

TEST_F(ExportsTest, RenameFolderPassesOldRecordNewRecordOldPathNewPath) {
  TempDir dir;
  WzScanDBPtr handle = OpenGeneric(dir.path());
  Add(handle, "/x", true);
  Add(handle, "/x/a", true);
  Add(handle, "/x/a/g", false);
  Add(handle, "/x/f", false);
  Add(handle, "/xx", true);
  WzScanDBObjectSetRefTime(handle, 777);

  g_ptrLogWriter->SetLevel(6);
  CKoError err = Stale();
  WzScanDBObjectRenameFolder(handle, Generic("/x", true), Generic("/y", true), "/x", "/y", err);
  g_ptrLogWriter->SetLevel(0);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();

  for (const char* gone : {"/x", "/x/a", "/x/a/g", "/x/f"}) EXPECT_FALSE(Stored(handle, gone)) << gone;
  // Folders below the renamed one are keyed on their new path with the
  // trailing delimiter that the rename gives them.
  for (const char* moved : {"/y", "/y/a/", "/y/a/g", "/y/f"}) {
    WzScanDBRecordBasePtr stored = Stored(handle, moved);
    ASSERT_TRUE(stored) << moved;
    EXPECT_EQ(777u, stored->getRefTime()) << moved;
  }
  EXPECT_TRUE(Stored(handle, "/xx"));
  std::vector<std::string> lines;
  for (const CLogEntry& entry : capture->FindContaining("Renaming path from : "))
    lines.push_back(entry.message);
  EXPECT_EQ((std::vector<std::string>{"Renaming path from : /x/a to /y/a/",
                                      "Renaming path from : /x/f to /y/f",
                                      "Renaming path from : /x/a/g to /y/a/g",
                                      "Renaming path from : /x to /y"}),
            lines);
  EXPECT_EQ(1u, capture->Find("Rename Operation from /x to /y performed successfully").size());

  // The old path reaches the not-found message; the stored tree is unchanged.
  err = Stale();
  WzScanDBObjectRenameFolder(handle, Generic("/x", true), Generic("/z", true), "/x", "/z", err);
  ASSERT_TRUE(err.IsError());
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
  WzScanDBRecordPtr prototype;
  CreateGlusterEmptyRecordObject(prototype);
  WzScanDBPtr h;
  CreateWzScanDBObject(h, prototype);
  std::string path = dir.path();
  WzScanDBRecordBasePtr out = Generic("", false);
  WzScanDBRecordBasePtr item;
  std::string itemPath;
  std::vector<WzScanDBRecordBasePtr> items;
  bool flag = false;

  const std::vector<std::pair<const char*, std::function<void(CKoError&)>>> calls = {
      {"Initialize", [&](CKoError& e) { WzScanDBObjectInitialize(h, path, e); }},
      {"AddFolder root", [&](CKoError& e) { WzScanDBObjectAddFolder(h, Generic("/", true), e); }},
      {"AddFolder", [&](CKoError& e) { WzScanDBObjectAddFolder(h, Generic("/d", true), e); }},
      {"AddFile", [&](CKoError& e) { WzScanDBObjectAddFile(h, Generic("/d/f", false), e); }},
      {"AddDBRecord", [&](CKoError& e) { WzScanDBObjectAddDBRecord(h, Generic("/d/g", false), e); }},
      {"AddRecordWithoutCheck",
       [&](CKoError& e) { WzScanDBObjectAddRecordWithoutCheck(h, Generic("/d/h", false), e); }},
      {"CheckDBRecord",
       [&](CKoError& e) { WzScanDBObjectCheckDBRecord(h, Generic("/d/f", false), out, flag, e); }},
      {"UpdateDBRecord", [&](CKoError& e) { WzScanDBObjectUpdateDBRecord(h, out, e); }},
      {"GetFolderItems",
       [&](CKoError& e) { WzScanDBObjectGetFolderItems(h, Generic("/d", true), items, e); }},
      {"GetFirstItem",
       [&](CKoError& e) { WzScanDBObjectGetFirstItem(h, Generic("/d", true), item, itemPath, e); }},
      {"GetNextItem", [&](CKoError& e) { WzScanDBObjectGetNextItem(h, item, itemPath, e); }},
      {"RenameFile",
       [&](CKoError& e) {
         WzScanDBObjectRenameFile(h, Generic("/d/g", false), Generic("/d/g2", false), e);
       }},
      {"RenameByKey",
       [&](CKoError& e) {
         WzScanDBObjectRenameByKey(h, Generic("/d/h", false), Generic("/d/h2", false), e);
       }},
      {"RenameFolder",
       [&](CKoError& e) {
         WzScanDBObjectRenameFolder(h, Generic("/d", true), Generic("/e", true), "/d", "/e", e);
       }},
      {"ValidateTree", [&](CKoError& e) { WzScanDBObjectValidateTree(h, flag, e); }},
      {"SuspendIndexing", [&](CKoError& e) { WzScanDBSuspendIndexing(h, e); }},
      {"RebuildIndexing", [&](CKoError& e) { WzScanDBRebuildIndexing(h, e); }},
      {"RemoveFile", [&](CKoError& e) { WzScanDBObjectRemoveFile(h, Generic("/e/f", false), e); }},
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
  WzScanDBPtr h = OpenGeneric(dir.path());
  Add(h, "/d", true);
  Add(h, "/d/f", false);
  const WzScanDBRecordBasePtr none;
  const WzScanDBRecordBasePtr absent = Generic("/absent", false);
  const WzScanDBRecordBasePtr absentFolder = Generic("/absentFolder", true);
  WzScanDBRecordBasePtr item;
  std::string itemPath;
  bool flag = true;

  struct Case {
    const char* name;
    std::function<CKoError()> direct;
    std::function<void(CKoError&)> exported;
  };
  const std::vector<Case> cases = {
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
      {"RenameByKey", [&] { return h->renameByKey(absent, Generic("/other", false)); },
       [&](CKoError& e) { WzScanDBObjectRenameByKey(h, absent, Generic("/other", false), e); }},
      {"RenameFolder",
       [&] { return h->renameFolder(absentFolder, Generic("/n", true), "/absentFolder", "/n"); },
       [&](CKoError& e) {
         WzScanDBObjectRenameFolder(h, absentFolder, Generic("/n", true), "/absentFolder", "/n", e);
       }},
      {"AddRecordWithoutCheck", [&] { return h->addRecordWithoutCheck(none); },
       [&](CKoError& e) { WzScanDBObjectAddRecordWithoutCheck(h, none, e); }},
      {"CheckDBRecord", [&] { return h->checkDBRecord(absent, none, flag); },
       [&](CKoError& e) { WzScanDBObjectCheckDBRecord(h, absent, none, flag, e); }},
      {"UpdateDBRecord", [&] { return h->updateDBRecord(absent); },
       [&](CKoError& e) { WzScanDBObjectUpdateDBRecord(h, absent, e); }},
      {"GetFirstItem", [&] { return h->getFirstItem(absentFolder, item, itemPath); },
       [&](CKoError& e) { WzScanDBObjectGetFirstItem(h, absentFolder, item, itemPath, e); }},
  };
  for (const Case& c : cases) {
    CKoError direct = c.direct();
    CKoError exported = Stale();
    c.exported(exported);
    ExpectSameError(direct, exported, c.name);
  }

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
  WzScanDBRecordPtr prototype;
  CreateGlusterEmptyRecordObject(prototype);
  WzScanDBPtr u;
  CreateWzScanDBObject(u, prototype);
  std::vector<WzScanDBRecordBasePtr> items;
  std::string noDirectory;
  const std::vector<Case> uninitialised = {
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
  };
  for (const Case& c : uninitialised) {
    CKoError direct = c.direct();
    CKoError exported = Stale();
    c.exported(exported);
    ExpectSameError(direct, exported, c.name);
  }
}

}  // namespace
}  // namespace exportstest

namespace exportstest {
namespace {

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
  WzScanDBRecordBasePtr record(new UncloneableRecord("/f", false));
  WzScanDBRecordBasePtr target = Generic("/g", false);
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
  Add(h, "/f", false);
  EXPECT_TRUE(Stored(h, "/f"));
  WzScanDBObjectClose(h, err);
  EXPECT_TRUE(err.IsSuccess());
}

}  // namespace
}  // namespace exportstest
