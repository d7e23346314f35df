// Bad files: the table engine, handed damaged, foreign, missing or busy files,
// answers its documented status, does not crash, and leaves every file in the
// directory byte-for-byte as it was. After each test the intact files must
// still open and hold every record.
#include <lmdb.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <random>

#include <gtest/gtest.h>

#include "FileSnapshot.h"
#include "runtime/LogCapture.h"
#include "support/GenericSchemaTable.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;

constexpr int kRecords = 1500;

SGenericRecord makeRecord(int i, int salt) {
  SGenericRecord r;
  std::memset(&r, 0, sizeof r);
  const uint32_t id = uint32_t(i) * 2654435761u + uint32_t(salt), parent = uint32_t(i / 30);
  std::memcpy(r.guid, &id, 4);
  r.guid[15] = uint8_t(salt);
  std::memcpy(r.parent_guid, &parent, 4);
  for (size_t b = 0; b < sizeof r.stat_data; ++b) r.stat_data[b] = uint8_t(id >> (b % 4 * 8));
  r.refTime = uint32_t(i);
  r.flags = uint8_t(i & 1);
  std::snprintf(r.sname, sizeof r.sname, "entry-%06d-%d.txt", i, salt);
  return r;
}

// A generic table at `name` holding kRecords records; `salt` makes tables of
// the same schema and size whose contents differ.
void makeTable(const std::string& name, int salt) {
  GenericSchemaTable table;
  ASSERT_EQ(table.createTable(name), TBL_OK);
  for (int i = 0; i < kRecords; ++i) {
    SGenericRecord r = makeRecord(i, salt);
    ASSERT_EQ(table.addRecord(&r), TBL_OK);
  }
  ASSERT_EQ(table.close(), TBL_OK);
}

// Bytes an LMDB file uses, read through LMDB itself (read-only, no lock file).
size_t lmdbUsedBytes(const std::string& path) {
  MDB_env* env = nullptr;
  size_t used = 0;
  MDB_envinfo info;
  MDB_stat stat;
  if (mdb_env_create(&env) == 0 && mdb_env_set_maxdbs(env, 64) == 0 &&
      mdb_env_open(env, path.c_str(), MDB_NOSUBDIR | MDB_RDONLY | MDB_NOLOCK, 0644) == 0 &&
      mdb_env_info(env, &info) == 0 && mdb_env_stat(env, &stat) == 0)
    used = (info.me_last_pgno + 1) * size_t(stat.ms_psize);
  if (env) mdb_env_close(env);
  return used;
}

// A valid LMDB file that is not a table of this engine.
void writePlainLmdb(const std::string& path) {
  MDB_env* env = nullptr;
  MDB_txn* txn = nullptr;
  MDB_dbi dbi;
  ASSERT_EQ(mdb_env_create(&env), 0);
  ASSERT_EQ(mdb_env_set_maxdbs(env, 8), 0);
  ASSERT_EQ(mdb_env_open(env, path.c_str(), MDB_NOSUBDIR | MDB_NOLOCK, 0644), 0);
  ASSERT_EQ(mdb_txn_begin(env, nullptr, 0, &txn), 0);
  ASSERT_EQ(mdb_dbi_open(txn, "records", MDB_CREATE, &dbi), 0);
  for (int i = 0; i < 200; ++i) {
    std::string k = "key" + std::to_string(i), v(300, char('a' + i % 26));
    MDB_val key{k.size(), k.data()}, val{v.size(), v.data()};
    ASSERT_EQ(mdb_put(txn, dbi, &key, &val, 0), 0);
  }
  ASSERT_EQ(mdb_txn_commit(txn), 0);
  mdb_env_close(env);
}

class TableBadFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(makeTable(name_, 1));
    dat_ = fileBytes(dat());
    idx_ = fileBytes(idx());
  }
  // The intact files open, are consistent and hold every record.
  void TearDown() override {
    restore();
    GenericSchemaTable table;
    ASSERT_EQ(table.openTable(name_), TBL_OK);
    std::string report;
    EXPECT_EQ(table.checkConsistency(&report), TBL_OK) << report;
    int count = 0;
    SGenericRecord r;
    for (int s = table.firstRecord(0, &r); s == TBL_OK; s = table.nextRecord(0, &r)) ++count;
    EXPECT_EQ(count, kRecords);
    expectHolds(table, makeRecord(kRecords / 2, 1));
  }

  std::string dat() const { return name_ + ".dat"; }
  std::string idx() const { return name_ + ".idx"; }
  void restore() {
    for (const auto& e : fs::directory_iterator(dir_.path())) fs::remove(e.path());
    writeFile(dat(), dat_);
    writeFile(idx(), idx_);
  }

  static void expectHolds(GenericSchemaTable& table, const SGenericRecord& want) {
    GenericKey key;
    SGenericRecord got;
    ASSERT_EQ(table.buildKey(0, want, &key), TBL_OK);
    ASSERT_EQ(table.getRecord(0, key.bytes, &got), TBL_OK);
    EXPECT_EQ(std::memcmp(&got, &want, sizeof got), 0);
  }

  // Opening (or creating) the table `name` with `layout` answers `want`,
  // leaves the object closed and changes no file in its directory.
  static void expectRefused(int want, const std::string& what, const std::string& name,
                            const SchemaLayout& layout = SchemaLayout::generic(), bool create = false) {
    SCOPED_TRACE(what);
    const std::string directory = fs::path(name).parent_path();
    const FileSnapshot before(directory);
    {
      TCtreeTable table;
      ASSERT_EQ(defineSchema(table, name, layout), TBL_OK);
      const int status = create ? table.create() : table.open(WZIndexing::kAccessReadWrite);
      EXPECT_EQ(status, want) << TCtreeTable::errToString(status);
      EXPECT_FALSE(table.isOpen());
      SGenericRecord r;
      EXPECT_EQ(table.firstRecord(0, &r), TBL_NOT_OPEN);
    }
    const FileSnapshot after(directory);
    EXPECT_TRUE(before == after) << before.diff(after);
  }

  TempDir dir_;
  const std::string name_ = dir_ / "WzScanDB";
  std::string dat_, idx_;
};

TEST_F(TableBadFiles, DamagedMissingAndMismatchedFiles) {
  TempDir other;
  ASSERT_NO_FATAL_FAILURE(makeTable(other / "WzScanDB", 2));
  ASSERT_NO_FATAL_FAILURE(writePlainLmdb(other / "plain"));
  std::mt19937_64 rng(77);
  auto randomBytes = [&](size_t n) {
    std::string s(n, '\0');
    for (auto& c : s) c = char(rng());
    return s;
  };
  auto refused = [&](const std::string& what, int want, const std::function<void()>& damage, bool create = false) {
    restore();
    damage();
    expectRefused(want, what, name_, SchemaLayout::generic(), create);
  };
  for (const bool data : {true, false}) {
    const std::string path = data ? dat() : idx(), file = data ? "data" : "index";
    restore();
    const size_t used = lmdbUsedBytes(path);
    ASSERT_GT(used, 4 * 4096u) << path;
    ASSERT_LE(used, (data ? dat_ : idx_).size());
    for (size_t size : {size_t(0), size_t(1), size_t(100), size_t(4096), size_t(2 * 4096 - 1), size_t(2 * 4096),
                        used / 2, used - 4096, used - 1})
      refused(file + " file cut to " + std::to_string(size) + " of " + std::to_string(used) + " bytes",
              TBL_BAD_FORMAT, [&] { ASSERT_EQ(::truncate(path.c_str(), off_t(size)), 0); });
    for (size_t size : {size_t(4096 * 3), size_t(10007), dat_.size()})
      refused("random " + file + " file of " + std::to_string(size), TBL_BAD_FORMAT,
              [&] { writeFile(path, randomBytes(size)); });
    refused("plain LMDB as " + file + " file", TBL_BAD_FORMAT, [&] { writeFile(path, fileBytes(other / "plain")); });
    // Same schema, same number of writes: only the table identity tells the
    // two tables apart.
    refused(file + " file of another table", TBL_FILES_MISMATCH,
            [&] { writeFile(path, fileBytes(other / (data ? "WzScanDB.dat" : "WzScanDB.idx"))); });
    refused(file + " file missing", TBL_FILE_MISSING, [&] { fs::remove(path); });
    if (data) refused("create over the data file", TBL_FILE_EXISTS, [&] { fs::remove(idx()); }, true);
  }
  refused("both files empty", TBL_BAD_FORMAT, [&] { writeFile(dat(), ""); writeFile(idx(), ""); });
  refused("data pages overwritten, the two meta pages kept", TBL_BAD_FORMAT,
          [&] { writeFile(dat(), dat_.substr(0, 2 * 4096) + randomBytes(dat_.size() - 2 * 4096)); });
  refused("both files missing", TBL_FILE_MISSING, [&] { fs::remove(dat()); fs::remove(idx()); });
  refused("create over both files", TBL_FILE_EXISTS, [] {}, true);

  // An index file of this engine without its data file (what a create killed
  // before naming the data file leaves) is cleared by the next create.
  writeFile(idx(), idx_);
  fs::remove(dat());
  auto capture = CLogCapture::Install();
  {
    GenericSchemaTable table;
    ASSERT_EQ(table.createTable(name_), TBL_OK);
    SGenericRecord r;
    EXPECT_EQ(table.firstRecord(-1, &r), TBL_NOT_FOUND);
  }
  EXPECT_EQ(capture->FindContaining("left without its data file").size(), 1u);
  capture->Remove();
}

TEST_F(TableBadFiles, AnotherSchema) {
  // Tables made with another layout, opened as the generic record, and the
  // generic table opened as another layout.
  const SchemaLayout inodeTime{false, 16, 16, {{"inode", 0, kFieldUInt64, 8}, {"ctime", 8, kFieldUInt64, 8}},
                               {{"inode", 8, kKeyFixed, 0, 1, 0}}, {{0, 8, 1}}};
  SchemaLayout segment = SchemaLayout::generic(), renamed = segment, unique = segment, folded = segment;
  segment.indexes[1].keyLength = 64;
  segment.segments[2].size = 48;
  renamed.fields[5].name = "name";
  unique.indexes[1].duplicates = 0;
  folded.segments[2].caseSensitive = 0;
  const std::pair<const char*, SchemaLayout> variants[] = {{"inode/ctime record", inodeTime},
                                                           {"shorter name segment", segment},
                                                           {"renamed field", renamed},
                                                           {"unique parent index", unique},
                                                           {"case-folded name", folded}};
  for (const auto& [what, layout] : variants) {
    TempDir other;
    TCtreeTable table;
    ASSERT_EQ(defineSchema(table, other / "WzScanDB", layout), TBL_OK);
    ASSERT_EQ(table.create(), TBL_OK) << what;
    ASSERT_EQ(table.close(), TBL_OK);
    expectRefused(TBL_SCHEMA_MISMATCH, std::string("generic open of ") + what, other / "WzScanDB");
  }
  expectRefused(TBL_SCHEMA_MISMATCH, "inode/ctime open of the generic table", name_, inodeTime);
}

// Another process, or another table object in this one, holds the table: in
// use, nothing disturbed; once the holder has gone (closed, or killed with
// its lock), the table opens again.
TEST_F(TableBadFiles, HeldByAnotherProcessOrTableObject) {
  for (const bool killHolder : {false, true}) {
    SCOPED_TRACE(killHolder ? "holder killed" : "holder closes");
    int ready[2], release[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(release), 0);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      ::close(release[1]);
      GenericSchemaTable table;
      const int status = table.openTable(name_);
      char c;
      if (::write(ready[1], &status, sizeof status) != sizeof status) _exit(2);
      while (::read(release[0], &c, 1) > 0) {
      }
      _exit(table.close() == TBL_OK ? 0 : 1);
    }
    ::close(ready[1]);
    ::close(release[0]);
    int childStatus = -1, wstatus = 0;
    ASSERT_EQ(::read(ready[0], &childStatus, sizeof childStatus), ssize_t(sizeof childStatus));
    ASSERT_EQ(childStatus, TBL_OK);
    expectRefused(TBL_IN_USE, "held by another process", name_);
    if (killHolder) ::kill(pid, SIGKILL);
    ::close(release[1]);
    ::close(ready[0]);
    ASSERT_EQ(::waitpid(pid, &wstatus, 0), pid);
    EXPECT_TRUE(killHolder ? WIFSIGNALED(wstatus) : WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 0) << wstatus;
    GenericSchemaTable table;
    EXPECT_EQ(table.openTable(name_), TBL_OK);
  }

  GenericSchemaTable first, second;
  ASSERT_EQ(first.openTable(name_), TBL_OK);
  expectRefused(TBL_IN_USE, "held by another table object", name_);
  EXPECT_EQ(second.openTable(name_), TBL_IN_USE);
  SGenericRecord extra = makeRecord(kRecords + 1, 1);
  ASSERT_EQ(first.addRecord(&extra), TBL_OK);
  expectHolds(first, extra);
  // A refused object may try again once the holder has closed.
  ASSERT_EQ(first.close(), TBL_OK);
  ASSERT_EQ(second.open(WZIndexing::kAccessReadWrite), TBL_OK);
  expectHolds(second, extra);
}

}  // namespace
