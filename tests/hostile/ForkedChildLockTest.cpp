// A process that forks while it holds a database open: the child (which
// lives on without exec, as a forked worker would) must not keep the
// parent's hold on the files once the parent has closed them.
#include "HostileSupport.h"
#include "concurrency/ForkedChild.h"

namespace hostile {
namespace {

using ForkedChildLock = HostileTest;

TEST_F(ForkedChildLock, TheParentsCloseReleasesTheFilesWhileTheChildLivesOn) {
  auto inUse = [&](WzScanDB& db) {
    const CKoError error = db.initialize(dir.path());
    return error.IsError() && error.GetCode() == TBL_IN_USE &&
           error.GetOriginMessage() ==
               "Failed to Open an Existing WzScanDB : " + std::string(TCtreeTable::errToString(TBL_IN_USE));
  };
  WzScanDB parent(Generic(""));
  ASSERT_TRUE(parent.initialize(dir.path()).IsSuccess());
  ASSERT_TRUE(parent.addFolder(Generic("/", true)).IsSuccess());  // the log and its flusher too
  // The child only waits: it neither uses nor closes anything it inherited.
  ForkedChild child([](ForkedChild::Channel& channel) { return channel.Listen() ? 1 : 0; });

  WzScanDB second(Generic(""));
  EXPECT_TRUE(inUse(second)) << "a second writer beside the parent";
  ASSERT_TRUE(parent.close().IsSuccess());

  WzScanDB next(Generic(""));
  const CKoError error = next.initialize(dir.path());
  ASSERT_TRUE(error.IsSuccess()) << "the child kept the parent's hold: " << error.AsString();
  bool found = false;
  EXPECT_TRUE(next.checkDBRecord(Generic("/", true), Generic("/", true), found).IsSuccess());
  EXPECT_TRUE(found);
  EXPECT_TRUE(next.addFile(Generic("/f")).IsSuccess());
  WzScanDB third(Generic(""));
  EXPECT_TRUE(inUse(third)) << "the new writer holds the files as the parent did";
  next.close();

  child.Hangup();
  const ForkedChild::Result result = child.Wait();
  EXPECT_TRUE(result.exited && result.status == 0) << result.Describe();
}

}  // namespace
}  // namespace hostile
