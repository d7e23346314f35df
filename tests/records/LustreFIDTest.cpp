// The Lustre FID value, the open-by-FID path, and the FID lookup through the
// Lustre client (off Lustre: its errors) and through a test resolver.
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

TEST(LustreFID, ValuesIgnoreTheHeaderWordAndFormatAsLustreDoes) {
  EXPECT_TRUE(CLustreFID().empty());
  EXPECT_FALSE(CLustreFID(0, 0, 1).empty() || CLustreFID(0, 1, 0).empty() || CLustreFID(1, 0, 0).empty());
  EXPECT_EQ(CLustreFID(0xABCDEF0123456789ULL, 0xFFFFFFFF, 0x10).toString(), "[0xabcdef0123456789:0xffffffff:0x10]");
  EXPECT_EQ(CLustreFID().toString(), "[0x0:0x0:0x0]");

  // Assignment writes the lu_fid only: a non-zero header word survives it.
  const CLustreFID fid(0x200000400ULL, 0x1a, 0);
  alignas(CLustreFID) unsigned char raw[sizeof(CLustreFID)];
  CLustreFID* inPlace = new (raw) CLustreFID();
  std::memset(raw, 0xAB, 8);
  *inPlace = fid;
  EXPECT_EQ(inPlace->getHeaderWord(), 0xABABABABABABABABULL);
  EXPECT_TRUE(*inPlace == fid);  // equality ignores the header word; a copy's is zero
  EXPECT_EQ(CLustreFID(*inPlace).getHeaderWord(), 0u);
  for (const CLustreFID& other : {CLustreFID(0x200000400ULL, 0x1a, 1), CLustreFID(0x200000400ULL, 0x1b, 0),
                                  CLustreFID(0x200000401ULL, 0x1a, 0)})
    EXPECT_FALSE(fid == other) << other.toString();

  lu_fid lu{0x200000400ULL, 0x1a, 0x2}, zero{0, 0, 0};
  char buffer[128], small[12];
  const int n = LustreAPI::path_lustre(buffer, sizeof buffer, "/mnt/lustre", &lu);
  EXPECT_STREQ(buffer, "/mnt/lustre/.lustre/fid/0x200000400:0x1a:0x2");
  EXPECT_EQ(n, static_cast<int>(std::strlen(buffer)));
  EXPECT_EQ(LustreAPI::path_lustre(small, sizeof small, "/mnt/lustre", &lu), n);
  EXPECT_STREQ(small, "/mnt/lustre");
  LustreAPI::path_lustre(buffer, sizeof buffer, "/m", &zero);
  EXPECT_STREQ(buffer, "/m/.lustre/fid/0:0x0:0x0");  // %#llx prints 0 without a prefix
}

TEST(LustreFID, LookupsFailOffLustreAndResolversStandIn) {
  TempDir dir;
  std::ofstream(dir / "plain") << "x";
  ASSERT_EQ(0, ::symlink((dir / "plain").c_str(), (dir / "link").c_str()));
  ASSERT_EQ(0, ::mkfifo((dir / "fifo").c_str(), 0600));
  // A FIFO without a writer must not block the lookup; a final link is not followed.
  const std::pair<std::string, int> rows[] = {{dir / "plain", -ENOTTY}, {dir.path(), -ENOTTY},
                                              {dir / "missing", -ENOENT}, {"", -ENOENT},
                                              {dir / "link", -ELOOP},     {dir / "fifo", -ENOTTY}};
  CLustreFID fid(1, 2, 3);
  for (const auto& [path, status] : rows) EXPECT_EQ(LustreAPI::GetFIDFromPath(path, fid), status) << path;
  EXPECT_TRUE(fid == CLustreFID(1, 2, 3));

  std::vector<std::string> asked;
  LustreAPI::SetFIDResolver([&](const std::string& path, lu_fid& found) {
    asked.push_back(path);
    found = lu_fid{path == "/lustre/a" ? 0x200000400ULL : 9, 7, 0};  // a failing resolver's scribbles are not kept
    return path == "/lustre/a" ? 0 : path == "/lustre/positive" ? EIO : -ENOENT;
  });
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
