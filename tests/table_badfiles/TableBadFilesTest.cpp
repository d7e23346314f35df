// Bad files: the table engine, handed damaged, foreign, missing or busy files,
// answers its documented status, does not crash, and leaves every file in the
// directory byte-for-byte as it was. After each case the intact files must
// still open and hold every record.
#include <lmdb.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "FileSnapshot.h"
#include "SchemaLayoutTable.h"
#include "support/GenericSchemaTable.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;

constexpr int kRecords = 1500;

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), std::streamsize(bytes.size()));
}

SGenericRecord makeRecord(int i, int salt) {
  SGenericRecord r;
  std::memset(&r, 0, sizeof r);
  const uint32_t id = uint32_t(i) * 2654435761u + uint32_t(salt);
  std::memcpy(r.guid, &id, 4);
  r.guid[15] = uint8_t(salt);
  const uint32_t parent = uint32_t(i / 30);
  std::memcpy(r.parent_guid, &parent, 4);
  for (size_t b = 0; b < sizeof r.stat_data; ++b) r.stat_data[b] = uint8_t(id >> (b % 4 * 8));
  r.refTime = uint32_t(i);
  r.flags = uint8_t(i & 1);
  std::snprintf(r.sname, sizeof r.sname, "entry-%06d-%d.txt", i, salt);
  return r;
}

// Creates a generic table at `name` holding kRecords records.
void makeTable(const std::string& name, int salt) {
  GenericSchemaTable table;
  ASSERT_EQ(table.createTable(name), TBL_OK);
  for (int i = 0; i < kRecords; ++i) {
    SGenericRecord r = makeRecord(i, salt);
    ASSERT_EQ(table.addRecord(&r), TBL_OK);
  }
  ASSERT_EQ(table.close(), TBL_OK);
}

// Pages an LMDB file uses, read through LMDB itself (read-only, no lock file).
size_t lmdbUsedBytes(const std::string& path) {
  MDB_env* env = nullptr;
  size_t used = 0;
  if (mdb_env_create(&env) == 0 && mdb_env_set_maxdbs(env, 64) == 0 &&
      mdb_env_open(env, path.c_str(), MDB_NOSUBDIR | MDB_RDONLY | MDB_NOLOCK, 0644) == 0) {
    MDB_envinfo info;
    MDB_stat stat;
    if (mdb_env_info(env, &info) == 0 && mdb_env_stat(env, &stat) == 0)
      used = (info.me_last_pgno + 1) * size_t(stat.ms_psize);
  }
  if (env) mdb_env_close(env);
  return used;
}

// A valid LMDB file that is not a table of this engine.
void writePlainLmdb(const std::string& path) {
  MDB_env* env = nullptr;
  ASSERT_EQ(mdb_env_create(&env), 0);
  ASSERT_EQ(mdb_env_set_maxdbs(env, 8), 0);
  ASSERT_EQ(mdb_env_open(env, path.c_str(), MDB_NOSUBDIR | MDB_NOLOCK, 0644), 0);
  MDB_txn* txn = nullptr;
  ASSERT_EQ(mdb_txn_begin(env, nullptr, 0, &txn), 0);
  MDB_dbi dbi;
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
    name_ = dir_ / "WzScanDB";
    ASSERT_NO_FATAL_FAILURE(makeTable(name_, 1));
    dat_ = readFile(datPath());
    idx_ = readFile(idxPath());
    ASSERT_FALSE(dat_.empty());
    ASSERT_FALSE(idx_.empty());
  }

  std::string datPath() const { return name_ + ".dat"; }
  std::string idxPath() const { return name_ + ".idx"; }

  void restore() {
    for (const auto& e : fs::directory_iterator(dir_.path())) fs::remove(e.path());
    writeFile(datPath(), dat_);
    writeFile(idxPath(), idx_);
  }

  // `attempt` must answer `want` on the files of `directory` as they are now,
  // and change none of them.
  void expectRefused(int want, const std::string& what, const std::string& directory,
                     const std::function<int(TCtreeTable&)>& attempt,
                     const std::function<TCtreeTable*()>& make) {
    SCOPED_TRACE(what);
    const FileSnapshot before(directory);
    {
      std::unique_ptr<TCtreeTable> table(make());
      const int status = attempt(*table);
      EXPECT_EQ(status, want) << "got " << status << " (" << TCtreeTable::errToString(status)
                              << "), want " << TCtreeTable::errToString(want);
      EXPECT_FALSE(table->isOpen());
      SGenericRecord r;
      EXPECT_EQ(table->firstRecord(0, &r), TBL_NOT_OPEN);
    }
    const FileSnapshot after(directory);
    EXPECT_TRUE(before == after) << before.diff(after);
  }

  // Opening our table with the generic schema answers `want`.
  void expectOpenRefused(int want, const std::string& what) {
    expectRefused(
        want, what, dir_.path(),
        [&](TCtreeTable& t) { return static_cast<GenericSchemaTable&>(t).openTable(name_); },
        [] { return new GenericSchemaTable; });
  }

  // The pristine files open, are consistent and hold every record.
  void expectIntact() {
    restore();
    GenericSchemaTable table;
    ASSERT_EQ(table.openTable(name_), TBL_OK);
    std::string report;
    EXPECT_EQ(table.checkConsistency(&report), TBL_OK) << report;
    int count = 0;
    SGenericRecord r;
    for (int s = table.firstRecord(0, &r); s == TBL_OK; s = table.nextRecord(0, &r)) ++count;
    EXPECT_EQ(count, kRecords);
    const SGenericRecord want = makeRecord(kRecords / 2, 1);
    GenericKey key;
    ASSERT_EQ(table.buildKey(0, want, &key), TBL_OK);
    ASSERT_EQ(table.getRecord(0, key.bytes, &r), TBL_OK);
    EXPECT_EQ(std::memcmp(&r, &want, sizeof r), 0);
    EXPECT_EQ(table.close(), TBL_OK);
  }

  TempDir dir_;
  std::string name_;
  std::string dat_, idx_;
};

TEST_F(TableBadFiles, TruncatedFiles) {
  for (const bool dataFile : {true, false}) {
    const std::string path = dataFile ? datPath() : idxPath();
    const std::string& bytes = dataFile ? dat_ : idx_;
    const size_t used = lmdbUsedBytes(path);
    ASSERT_GT(used, 4 * 4096u) << path;
    ASSERT_LE(used, bytes.size());
    for (size_t size : {size_t(0), size_t(1), size_t(100), size_t(4096), size_t(2 * 4096 - 1),
                        size_t(2 * 4096), used / 2, used - 4096, used - 1}) {
      restore();
      ::truncate(path.c_str(), off_t(size));
      expectOpenRefused(TBL_BAD_FORMAT, (dataFile ? "data" : "index") + std::string(" file cut to ") +
                                            std::to_string(size) + " of " +
                                            std::to_string(used) + " bytes");
    }
  }
  expectIntact();
}

TEST_F(TableBadFiles, ZeroLengthFiles) {
  restore();
  writeFile(datPath(), "");
  writeFile(idxPath(), "");
  expectOpenRefused(TBL_BAD_FORMAT, "both files empty");
  restore();
  writeFile(idxPath(), "");
  expectOpenRefused(TBL_BAD_FORMAT, "index file empty");
  expectIntact();
}

TEST_F(TableBadFiles, RandomBytes) {
  std::mt19937_64 rng(77);
  auto randomBytes = [&](size_t n) {
    std::string s(n, '\0');
    for (auto& c : s) c = char(rng());
    return s;
  };
  for (size_t size : {size_t(4096 * 3), size_t(10007), dat_.size()}) {
    restore();
    writeFile(datPath(), randomBytes(size));
    expectOpenRefused(TBL_BAD_FORMAT, "random data file of " + std::to_string(size));
    restore();
    writeFile(idxPath(), randomBytes(size));
    expectOpenRefused(TBL_BAD_FORMAT, "random index file of " + std::to_string(size));
  }
  // The two meta pages kept, every other page overwritten.
  restore();
  std::string mangled = dat_;
  for (size_t i = 2 * 4096; i < mangled.size(); ++i) mangled[i] = char(rng());
  writeFile(datPath(), mangled);
  expectOpenRefused(TBL_BAD_FORMAT, "data pages overwritten");
  expectIntact();
}

TEST_F(TableBadFiles, PlainLmdbFileIsNotATable) {
  restore();
  fs::remove(datPath());
  ASSERT_NO_FATAL_FAILURE(writePlainLmdb(datPath()));
  expectOpenRefused(TBL_BAD_FORMAT, "plain LMDB as data file");
  restore();
  fs::remove(idxPath());
  ASSERT_NO_FATAL_FAILURE(writePlainLmdb(idxPath()));
  expectOpenRefused(TBL_BAD_FORMAT, "plain LMDB as index file");
  expectIntact();
}

TEST_F(TableBadFiles, AnotherSchema) {
  // Tables made with another layout, opened as the generic record.
  SchemaLayout segment = SchemaLayout::generic();
  segment.indexes[1].keyLength = 64;
  segment.segments[2].segmentSize = 48;
  SchemaLayout renamed = SchemaLayout::generic();
  renamed.fields[5].name = "name";
  SchemaLayout unique = SchemaLayout::generic();
  unique.indexes[1].duplicates = 0;
  SchemaLayout folded = SchemaLayout::generic();
  folded.segments[2].caseSensitive = 0;
  const std::pair<const char*, SchemaLayout> variants[] = {{"inode/ctime record", SchemaLayout::inodeTime()},
                                                         {"shorter name segment", segment},
                                                         {"renamed field", renamed},
                                                         {"unique parent index", unique},
                                                         {"case-folded name", folded}};
  for (const auto& [what, layout] : variants) {
    TempDir other;
    const std::string name = other / "WzScanDB";
    {
      SchemaLayoutTable table(layout);
      ASSERT_EQ(table.createTable(name), TBL_OK) << what;
      ASSERT_EQ(table.close(), TBL_OK);
    }
    expectRefused(
        TBL_SCHEMA_MISMATCH, std::string("generic open of ") + what, other.path(),
        [&](TCtreeTable& t) { return static_cast<GenericSchemaTable&>(t).openTable(name); },
        [] { return new GenericSchemaTable; });
  }
  // And the generic table opened as another layout.
  expectRefused(
      TBL_SCHEMA_MISMATCH, "inode/ctime open of the generic table", dir_.path(),
      [&](TCtreeTable& t) { return static_cast<SchemaLayoutTable&>(t).openTable(name_); },
      [] { return new SchemaLayoutTable(SchemaLayout::inodeTime()); });
  expectIntact();
}

TEST_F(TableBadFiles, MissingFiles) {
  restore();
  fs::remove(idxPath());
  expectOpenRefused(TBL_FILE_MISSING, "index file missing");
  restore();
  fs::remove(datPath());
  expectOpenRefused(TBL_FILE_MISSING, "data file missing");
  restore();
  fs::remove(datPath());
  fs::remove(idxPath());
  expectOpenRefused(TBL_FILE_MISSING, "both files missing");
  expectIntact();
}

TEST_F(TableBadFiles, FilesOfTwoTables) {
  // Same schema, same number of writes: only the table identity tells the
  // two apart.
  TempDir other;
  const std::string otherName = other / "WzScanDB";
  ASSERT_NO_FATAL_FAILURE(makeTable(otherName, 2));
  const std::string otherIdx = readFile(otherName + ".idx");
  const std::string otherDat = readFile(otherName + ".dat");
  restore();
  writeFile(idxPath(), otherIdx);
  expectOpenRefused(TBL_FILES_MISMATCH, "index file of another table");
  restore();
  writeFile(datPath(), otherDat);
  expectOpenRefused(TBL_FILES_MISMATCH, "data file of another table");
  expectIntact();
}

TEST_F(TableBadFiles, StaleIndexOfTheSameTableIsRebuilt) {
  // An index file left behind by later writes is not bad: open rebuilds it
  // from the data file, which it must not change.
  restore();
  {
    GenericSchemaTable table;
    ASSERT_EQ(table.openTable(name_), TBL_OK);
    for (int i = kRecords; i < kRecords + 50; ++i) {
      SGenericRecord r = makeRecord(i, 1);
      ASSERT_EQ(table.addRecord(&r), TBL_OK);
    }
    SGenericRecord first = makeRecord(0, 1), got;
    GenericKey key;
    ASSERT_EQ(table.buildKey(0, first, &key), TBL_OK);
    ASSERT_EQ(table.getRecord(0, key.bytes, &got), TBL_OK);
    ASSERT_EQ(table.deleteRecord(), TBL_OK);
    ASSERT_EQ(table.close(), TBL_OK);
  }
  const std::string newerDat = readFile(datPath());
  writeFile(idxPath(), idx_);  // the index as it was before those writes
  GenericSchemaTable table;
  ASSERT_EQ(table.openTable(name_), TBL_OK);
  std::string report;
  EXPECT_EQ(table.checkConsistency(&report), TBL_OK) << report;
  SGenericRecord got;
  GenericKey key;
  for (int i : {0, 1, kRecords - 1, kRecords, kRecords + 49}) {
    const SGenericRecord want = makeRecord(i, 1);
    ASSERT_EQ(table.buildKey(0, want, &key), TBL_OK);
    const int status = table.getRecord(0, key.bytes, &got);
    if (i == 0) {
      EXPECT_EQ(status, TBL_NOT_FOUND) << "deleted record found through the stale index";
    } else {
      ASSERT_EQ(status, TBL_OK) << "record " << i;
      EXPECT_EQ(std::memcmp(&got, &want, sizeof got), 0) << "record " << i;
    }
  }
  ASSERT_EQ(table.close(), TBL_OK);
  EXPECT_TRUE(readFile(datPath()) == newerDat) << "open changed the data file";
}

TEST_F(TableBadFiles, CreateOverExistingFiles) {
  auto createAttempt = [&](TCtreeTable& t) {
    return static_cast<GenericSchemaTable&>(t).createTable(name_);
  };
  auto make = [] { return new GenericSchemaTable; };
  restore();
  expectRefused(TBL_FILE_EXISTS, "create over both files", dir_.path(), createAttempt, make);
  restore();
  fs::remove(datPath());
  expectRefused(TBL_FILE_EXISTS, "create over the index file", dir_.path(), createAttempt, make);
  restore();
  fs::remove(idxPath());
  expectRefused(TBL_FILE_EXISTS, "create over the data file", dir_.path(), createAttempt, make);
  expectIntact();
}

TEST_F(TableBadFiles, HeldByAnotherProcess) {
  for (const bool killHolder : {false, true}) {
    restore();
    int ready[2], release[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(release), 0);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      ::close(ready[0]);
      ::close(release[1]);
      GenericSchemaTable table;
      const int status = table.openTable(name_);
      if (::write(ready[1], &status, sizeof status) != sizeof status) _exit(2);
      char c;
      while (::read(release[0], &c, 1) > 0) {
      }
      _exit(table.close() == TBL_OK ? 0 : 1);
    }
    ::close(ready[1]);
    ::close(release[0]);
    int childStatus = -1;
    ASSERT_EQ(::read(ready[0], &childStatus, sizeof childStatus), ssize_t(sizeof childStatus));
    ASSERT_EQ(childStatus, TBL_OK);

    expectOpenRefused(TBL_IN_USE, "held by another process");

    int wstatus = 0;
    if (killHolder) ::kill(pid, SIGKILL);
    ::close(release[1]);
    ASSERT_EQ(::waitpid(pid, &wstatus, 0), pid);
    ::close(ready[0]);
    if (killHolder) {
      ASSERT_TRUE(WIFSIGNALED(wstatus));
    } else {
      ASSERT_TRUE(WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 0) << wstatus;
    }
    // The holder is gone: its lock went with it.
    GenericSchemaTable table;
    EXPECT_EQ(table.openTable(name_), TBL_OK) << (killHolder ? "after SIGKILL" : "after close");
    std::string report;
    EXPECT_EQ(table.checkConsistency(&report), TBL_OK) << report;
  }
}

TEST_F(TableBadFiles, HeldBySecondTableObject) {
  restore();
  GenericSchemaTable first;
  ASSERT_EQ(first.openTable(name_), TBL_OK);
  expectOpenRefused(TBL_IN_USE, "held by another table object");

  // The refused attempt did not disturb the holder.
  SGenericRecord extra = makeRecord(kRecords + 1, 1), back;
  ASSERT_EQ(first.addRecord(&extra), TBL_OK);
  GenericKey key;
  ASSERT_EQ(first.buildKey(0, extra, &key), TBL_OK);
  ASSERT_EQ(first.getRecord(0, key.bytes, &back), TBL_OK);
  EXPECT_EQ(std::memcmp(&back, &extra, sizeof back), 0);

  // A refused object may try again once the holder has closed.
  GenericSchemaTable second;
  EXPECT_EQ(second.openTable(name_), TBL_IN_USE);
  ASSERT_EQ(first.close(), TBL_OK);
  EXPECT_EQ(second.open(WZIndexing::kAccessReadWrite), TBL_OK);
  ASSERT_EQ(second.getRecord(0, key.bytes, &back), TBL_OK);
  EXPECT_EQ(std::memcmp(&back, &extra, sizeof back), 0);
}

}  // namespace
