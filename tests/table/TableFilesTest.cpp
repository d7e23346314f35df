// Files: create / open statuses, the lock, read-only opens, file sizes,
// variable-length storage, bypass mode, record numbers. (Damaged, foreign and
// missing files: tests/table_badfiles; a full disk: tests/fulldisk.)
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "TableTestUtil.h"
#include "support/TempDir.h"

using namespace tabletest;

TEST(TableFiles, CreateOpenLocksAndReadOnlyOpens) {
  TempDir dir;
  const std::string name = dir / "t";
  const SchemaLayout layout = SchemaLayout::generic();
  TCtreeTable table, reader, other;
  ASSERT_EQ(defineSchema(table, name, layout), TBL_OK);
  EXPECT_EQ(table.open(WZIndexing::kAccessReadWrite), TBL_FILE_MISSING);
  EXPECT_EQ(table.open(WZIndexing::kAccessCreate), TBL_BAD_ARGUMENT);
  ASSERT_EQ(table.create(), TBL_OK);
  EXPECT_TRUE(table.isOpen());
  // A second writer on the same files, in the same process, is refused; a
  // reader shares them with the writer and reads what its last checkpoint
  // committed (the close below).
  EXPECT_EQ(openTable(other, name, layout, WZIndexing::kAccessReadWrite), TBL_IN_USE);
  EXPECT_FALSE(other.isOpen());
  ASSERT_EQ(openTable(reader, name, layout, WZIndexing::kAccessReadOnly), TBL_OK);
  Image out(440);
  EXPECT_EQ(reader.firstRecord(0, out.data()), TBL_NOT_FOUND);
  auto image = genericRecord(1, 2, "kept");
  ASSERT_EQ(table.addRecord(image.data()), TBL_OK);
  ASSERT_EQ(table.close(), TBL_OK);
  EXPECT_EQ(table.close(), TBL_NOT_OPEN);
  ASSERT_EQ(reader.firstRecord(0, out.data()), TBL_OK);
  EXPECT_EQ(out, image);
  ASSERT_EQ(reader.close(), TBL_OK);

  // Readers share the files, refuse writes and change nothing.
  const std::string data = fileBytes(name + ".dat");
  ASSERT_EQ(reader.open(WZIndexing::kAccessReadOnly), TBL_OK);
  ASSERT_EQ(other.open(WZIndexing::kAccessReadOnly), TBL_OK);
  ASSERT_EQ(reader.firstRecord(0, out.data()), TBL_OK);
  EXPECT_EQ(out, image);
  EXPECT_EQ(reader.addRecord(out.data()), TBL_READ_ONLY);
  EXPECT_EQ(reader.modifyRecord(out.data()), TBL_READ_ONLY);
  EXPECT_EQ(reader.deleteRecord(), TBL_READ_ONLY);
  EXPECT_EQ(reader.suspendIndexing(), -1);
  ASSERT_EQ(reader.close(), TBL_OK);
  ASSERT_EQ(other.close(), TBL_OK);
  EXPECT_EQ(fileBytes(name + ".dat"), data);
  ASSERT_EQ(table.open(WZIndexing::kAccessReadWrite), TBL_OK);
  ASSERT_EQ(table.close(), TBL_OK);

  // A symlink in place of the files is not followed.
  ASSERT_EQ(symlink((name + ".dat").c_str(), (dir / "l.dat").c_str()), 0);
  ASSERT_EQ(symlink((name + ".idx").c_str(), (dir / "l.idx").c_str()), 0);
  TCtreeTable linked;
  EXPECT_EQ(openTable(linked, dir / "l", layout), TBL_BAD_FORMAT);
}

TEST(TableFiles, FilesShrinkOnCloseAndStoreVariablePartsTrimmed) {
  TempDir dir;
  const std::string name = dir / "t";
  TCtreeTable table;
  ASSERT_EQ(createTable(table, name, SchemaLayout::generic()), TBL_OK);
  std::vector<Image> images;
  for (int i = 0; i < 2000; ++i) {
    auto image = genericRecord(0, static_cast<uint8_t>(i % 7), "file-name-of-20-byte");
    std::memcpy(image.data(), &i, sizeof i);
    std::memset(image.data() + 32, 0x11, 144);
    images.push_back(image);
    ASSERT_EQ(table.addRecord(image.data()), TBL_OK);
  }
  // A record whose last byte is set keeps all 440 bytes; one with a name of
  // 255 bytes and one with an empty name round-trip exactly.
  auto full = genericRecord(0xF1, 1, std::string(255, 'z'));
  full[439] = 0x7F;
  auto bare = genericRecord(0xF2, 1, "");
  ASSERT_EQ(table.addRecord(full.data()), TBL_OK);
  ASSERT_EQ(table.addRecord(bare.data()), TBL_OK);
  Image out(440, 0xEE);
  ASSERT_EQ(table.readByOffset(out.data(), 2001, 440), TBL_OK);
  EXPECT_EQ(out, full);
  ASSERT_EQ(table.readByOffset(out.data(), 2002, 440), TBL_OK);
  EXPECT_EQ(out, bare);
  Image fixed(440, 0xEE);
  ASSERT_EQ(table.readFixedByOffset(fixed.data(), 2001, 440), TBL_OK);
  EXPECT_TRUE(std::equal(fixed.begin(), fixed.begin() + 181, full.begin()));
  EXPECT_EQ(fixed[181], 0xEE);  // only the fixed part is copied
  EXPECT_EQ(table.readByOffset(out.data(), 2003, 440), TBL_NOT_FOUND);
  EXPECT_EQ(table.readByOffset(out.data(), 0, 440), TBL_BAD_ARGUMENT);

  const long long openSize = fileSize(name + ".dat");
  ASSERT_EQ(table.close(), TBL_OK);
  const long long dataSize = fileSize(name + ".dat"), indexSize = fileSize(name + ".idx");
  EXPECT_LT(dataSize, openSize);
  // 20-byte names: both files together well under 400 bytes per record.
  EXPECT_LT(dataSize + indexSize, 2002LL * 400);
  EXPECT_LT(dataSize, 2002LL * 300);  // trimmed: far less than 440 per record

  ASSERT_EQ(openTable(table, name, SchemaLayout::generic()), TBL_OK);
  for (int i = 0; i < 2000; i += 97) {
    ASSERT_EQ(table.readByOffset(out.data(), i + 1, 440), TBL_OK);
    EXPECT_EQ(out, images[i]);
  }
  // Deleting every record reuses freed pages: the file does not keep growing.
  for (int rc = table.firstRecord(-1, out.data()); rc == TBL_OK; rc = table.nextRecord(-1, out.data()))
    ASSERT_EQ(table.deleteRecord(), TBL_OK);
  ASSERT_EQ(table.close(), TBL_OK);
  EXPECT_LE(fileSize(name + ".dat"), dataSize + 64 * 1024);
}

// (The current-record rules of reads and writes are the differential test's.)
TEST(TableFiles, BypassModeBadArgumentsAndRecordNumbers) {
  TempDir dir;
  TCtreeTable table;
  const SchemaLayout layout = smallSchema();
  Image out(64);
  EXPECT_EQ(table.firstRecord(0, out.data()), TBL_NOT_OPEN);
  ASSERT_EQ(createTable(table, dir / "t", layout), TBL_OK);
  auto a = smallRecord(10, 1, 100, "a"), b = smallRecord(20, 1, 200, "b"), c = smallRecord(30, 2, 300, "c");
  for (auto* r : {&a, &b, &c}) ASSERT_EQ(table.addRecord(r->data()), TBL_OK);
  EXPECT_EQ(table.getRecord(-1, out.data(), out.data()), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.getRecord(3, out.data(), out.data()), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.firstRecord(0, nullptr), TBL_BAD_ARGUMENT);

  // Bypass: reads return records but leave the current record where it was.
  auto key = engineKey(table, layout, 0, a.data());
  ASSERT_EQ(table.getRecord(0, key.data(), out.data()), TBL_OK);
  table.setBypassMode(true);
  EXPECT_TRUE(table.getBypassMode());
  ASSERT_EQ(table.lastRecord(0, out.data()), TBL_OK);
  EXPECT_EQ(out, c);
  table.setBypassMode(false);
  ASSERT_EQ(table.deleteRecord(), TBL_OK);  // deletes a, not c
  EXPECT_EQ(table.getRecord(0, key.data(), out.data()), TBL_NOT_FOUND);
  ASSERT_EQ(table.readByOffset(out.data(), 3, 64), TBL_OK);
  EXPECT_EQ(out, c);

  // Record numbers are never reused, not even the last one after a reopen.
  ASSERT_EQ(table.deleteRecord(), TBL_OK);
  EXPECT_EQ(table.currentRecordNumber(), 0);
  ASSERT_EQ(table.close(), TBL_OK);
  ASSERT_EQ(table.open(WZIndexing::kAccessReadWrite), TBL_OK);
  ASSERT_EQ(table.addRecord(a.data()), TBL_OK);
  ASSERT_EQ(table.lastRecord(-1, out.data()), TBL_OK);
  EXPECT_EQ(table.currentRecordNumber(), 4);
  EXPECT_EQ(out, a);
  EXPECT_EQ(table.numberOfRecords(), 2);
}

// A file size limit (as on a full disk) answers TBL_FILE_FULL, never a
// signal; reads and a delete still work. (tests/fulldisk checks through the
// database that every acknowledged record is kept and the table grows on.)
TEST(TableFiles, FileSizeLimitGivesFileFull) {
  TempDir dir;
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    signal(SIGXFSZ, SIG_IGN);
    const struct rlimit limit = {3 << 20, 3 << 20};
    TCtreeTable table;
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0 || createTable(table, dir / "t", SchemaLayout::generic()) != TBL_OK)
      _exit(100);
    int added = 0, status = TBL_OK;
    for (; added < 100000 && status == TBL_OK; ++added) {
      auto image = genericRecord(0, uint8_t(added % 5), "name-" + std::to_string(added));
      std::memcpy(image.data(), &added, sizeof added);
      status = table.addRecord(image.data());
    }
    Image out(440);
    if (status != TBL_FILE_FULL) _exit(101);
    if (added < 1000 || table.numberOfRecords() != added - 1) _exit(102);
    _exit(table.firstRecord(0, out.data()) == TBL_OK && table.deleteRecord() == TBL_OK ? 0 : 103);
  }
  int wstatus = 0;
  ASSERT_EQ(waitpid(child, &wstatus, 0), child);
  EXPECT_TRUE(WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 0) << "wait status " << wstatus;
}

// A writer that ends without close() leaves its log: the next read-write open
// replays it (every page checked), a read-only open reads the last checkpoint,
// and settle() brings the closed files to a clean state knowing no schema.
TEST(TableFiles, LogOfAWriterThatDidNotCloseIsReplayed) {
  TempDir dir;
  const std::string name = dir / "t";
  const SchemaLayout layout = SchemaLayout::generic();
  auto write = [&](int from, int to) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      TCtreeTable table;
      int status = openTable(table, name, layout);
      if (status == TBL_FILE_MISSING) status = createTable(table, name, layout);
      for (int i = from; status == TBL_OK && i < to; ++i)
        status = table.addRecord(genericRecord(uint8_t(i), 1, "n" + std::to_string(i)).data());
      _exit(status == TBL_OK ? 0 : 1);  // no close: the log stays
    }
    int wstatus = 0;
    ASSERT_EQ(waitpid(child, &wstatus, 0), child);
    ASSERT_TRUE(WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 0);
    ASSERT_TRUE(fileExists(name + ".log"));
  };
  auto count = [&](TCtreeTable& table) {
    Image out(440);
    int n = 0;
    for (int s = table.firstRecord(-1, out.data()); s == TBL_OK; s = table.nextRecord(-1, out.data())) ++n;
    return n;
  };
  write(0, 30);
  {
    TCtreeTable reader;
    ASSERT_EQ(openTable(reader, name, layout, WZIndexing::kAccessReadOnly), TBL_OK);
    EXPECT_EQ(count(reader), 0);  // nothing was checkpointed
  }
  {
    TCtreeTable table;
    ASSERT_EQ(openTable(table, name, layout), TBL_OK);
    EXPECT_EQ(count(table), 30);
    EXPECT_EQ(table.checkConsistency(), TBL_OK);
    ASSERT_EQ(table.close(), TBL_OK);
    EXPECT_FALSE(fileExists(name + ".log"));
  }
  write(30, 45);
  EXPECT_EQ(TCtreeTable::settle(name.c_str()), TBL_OK);
  EXPECT_FALSE(fileExists(name + ".log"));
  EXPECT_EQ(TCtreeTable::settle(name.c_str()), TBL_OK);  // nothing left to do
  TCtreeTable reader;
  ASSERT_EQ(openTable(reader, name, layout, WZIndexing::kAccessReadOnly), TBL_OK);
  EXPECT_EQ(count(reader), 45);
  EXPECT_EQ(reader.checkConsistency(), TBL_OK);
}
