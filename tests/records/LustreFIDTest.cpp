// The Lustre FID object, the open-by-FID path helper and the FID lookup, both
// through the Lustre client (off Lustre: its errors) and a test resolver.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <new>
#include <string>
#include <vector>

#include "lustre/CLustreFID.h"
#include "lustre/GetFIDFromPath.h"
#include "lustre/PathLustre.h"
#include "support/TempDir.h"

namespace {

using LustreAPI::CLustreFID;
using LustreAPI::lu_fid;

TEST(LustreFID, ValueOperationsIgnoreTheHeaderWordAndPathLustreFormats) {
  EXPECT_TRUE(CLustreFID().empty());
  EXPECT_FALSE(CLustreFID(0, 0, 1).empty());
  EXPECT_EQ(CLustreFID().toString(), "[0x0:0x0:0x0]");
  EXPECT_EQ(CLustreFID(0xABCDEF0123456789ULL, 0xFFFFFFFF, 0x10).toString(), "[0xabcdef0123456789:0xffffffff:0x10]");

  // Assignment writes the lu_fid only: a non-zero header word survives it.
  const CLustreFID fid(0x200000400ULL, 0x1a, 0);
  alignas(CLustreFID) unsigned char raw[sizeof(CLustreFID)];
  CLustreFID* inPlace = new (raw) CLustreFID();
  std::memset(raw, 0xAB, 8);
  *inPlace = fid;
  EXPECT_EQ(inPlace->getHeaderWord(), 0xABABABABABABABABULL);
  EXPECT_EQ(inPlace->getSequence(), 0x200000400ULL);
  EXPECT_EQ(inPlace->getObjectId(), 0x1au);
  // Equality ignores the header word; every lu_fid component counts; a copy's header is zero.
  EXPECT_TRUE(CLustreFID(*inPlace) == fid);
  EXPECT_EQ(CLustreFID(*inPlace).getHeaderWord(), 0u);
  EXPECT_FALSE(fid == CLustreFID(0x200000400ULL, 0x1a, 1));
  EXPECT_FALSE(fid == CLustreFID(0x200000400ULL, 0x1b, 0));
  EXPECT_FALSE(fid == CLustreFID(0x200000401ULL, 0x1a, 0));

  lu_fid lu{0x200000400ULL, 0x1a, 0x2};
  char buffer[128], small[12];
  int n = LustreAPI::path_lustre(buffer, sizeof buffer, "/mnt/lustre", &lu);
  EXPECT_STREQ(buffer, "/mnt/lustre/.lustre/fid/0x200000400:0x1a:0x2");
  EXPECT_EQ(n, static_cast<int>(std::strlen(buffer)));
  EXPECT_EQ(LustreAPI::path_lustre(small, sizeof small, "/mnt/lustre", &lu), n);
  EXPECT_STREQ(small, "/mnt/lustre");
  lu_fid zero{0, 0, 0};
  LustreAPI::path_lustre(buffer, sizeof buffer, "/m", &zero);
  EXPECT_STREQ(buffer, "/m/.lustre/fid/0:0x0:0x0");  // %#llx prints 0 without a prefix
}

TEST(LustreFID, LookupOffLustreFailsAndLeavesTheFID) {
  TempDir dir;
  std::ofstream(dir / "plain") << "x";
  ASSERT_EQ(0, ::symlink((dir / "plain").c_str(), (dir / "link").c_str()));
  ASSERT_EQ(0, ::mkfifo((dir / "fifo").c_str(), 0600));
  // A FIFO without a writer must not block the lookup; a final link is not followed.
  const std::pair<std::string, int> rows[] = {{dir / "plain", -ENOTTY}, {dir.path(), -ENOTTY},
                                              {dir / "missing", -ENOENT}, {"", -ENOENT},
                                              {dir / "link", -ELOOP}, {dir / "fifo", -ENOTTY}};
  CLustreFID fid(1, 2, 3);
  for (const auto& [path, status] : rows) EXPECT_EQ(LustreAPI::GetFIDFromPath(path, fid), status) << path;
  EXPECT_TRUE(fid == CLustreFID(1, 2, 3));
}

TEST(LustreFID, ResolverStandsInForTheClient) {
  std::vector<std::string> asked;
  LustreAPI::SetFIDResolver([&](const std::string& path, lu_fid& fid) {
    asked.push_back(path);
    if (path == "/lustre/a") {
      fid = lu_fid{0x200000400ULL, 7, 0};
      return 0;
    }
    fid = lu_fid{9, 9, 9};  // a failing resolver's scribbles are not kept
    return path == "/lustre/positive" ? EIO : -ENOENT;
  });
  CLustreFID fid;
  EXPECT_EQ(LustreAPI::GetFIDFromPath("/lustre/a", fid), 0);
  EXPECT_EQ(LustreAPI::GetFIDFromPath("/lustre/b", fid), -ENOENT);
  EXPECT_EQ(LustreAPI::GetFIDFromPath("/lustre/positive", fid), -EIO);
  EXPECT_TRUE(fid == CLustreFID(0x200000400ULL, 7, 0));
  EXPECT_EQ(asked, (std::vector<std::string>{"/lustre/a", "/lustre/b", "/lustre/positive"}));

  LustreAPI::ResetFIDResolver();
  EXPECT_EQ(LustreAPI::GetFIDFromPath("/", fid), -ENOTTY);  // the real client again
  EXPECT_EQ(asked.size(), 3u);
}

}  // namespace
