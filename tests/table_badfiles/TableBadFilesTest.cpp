// Bad files: the table engine, handed damaged, foreign or missing files,
// answers its documented status, does not crash, and leaves every file in the
// directory byte-for-byte as it was. A table whose meta pages are sound but
// one later page is damaged (a child page number, a node offset, a page
// number, a sort order, a count, a free-page list) is refused with
// TBL_BAD_FORMAT and one error line naming the file and the damage, before
// LMDB follows the page; each damage is made on a page the newer meta page
// leads to, found by walking the file's trees. After each test the intact
// files must still open and hold every record.
#include <lmdb.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>

#include <gtest/gtest.h>

#include "runtime/LogCapture.h"
#include "support/GenericSchemaTable.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;

// kRecords files in folders of 25, a third of them deleted (free pages);
// then two folders whose children share the name segment of the index key:
// kSmallGroup of them fit inside their index node, kLargeGroup need a tree
// of their own.
constexpr int kRecords = 1200, kSmallGroup = 3, kLargeGroup = 400;

std::string fileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
void writeFile(const std::string& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }
std::map<std::string, std::string> snapshot(const std::string& directory) {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::directory_iterator(directory))
    files[entry.path().filename()] = fileBytes(entry.path());
  return files;
}

SGenericRecord makeRecord(int i) {
  SGenericRecord r{};
  const uint32_t id = uint32_t(i) * 2654435761u + 7;
  const uint32_t parent = i < kRecords ? i / 25 : 900001u + (i >= kRecords + kSmallGroup);
  std::memcpy(r.guid, &id, 4), std::memcpy(r.parent_guid, &parent, 4), std::memset(r.stat_data, i & 0xFF, 144);
  r.refTime = uint32_t(i);
  std::snprintf(r.sname, sizeof r.sname, i < kRecords ? "entry-%06d.txt" : "a-name-long-enough-to-fill-the-whole-key-"
                "segment-of-the-index-%06d", i);
  return r;
}

void makeTable(const std::string& name) {
  GenericSchemaTable table;
  ASSERT_EQ(table.createTable(name), TBL_OK);
  SGenericRecord r;
  for (int i = 0; i < kRecords + kSmallGroup + kLargeGroup; ++i)
    ASSERT_EQ(table.addRecord(&(r = makeRecord(i))), TBL_OK);
  for (int i = 0; i < kRecords; i += 3)
    ASSERT_TRUE(table.readByOffset(&r, i + 1, int(sizeof r)) == TBL_OK && table.deleteRecord() == TBL_OK);
  ASSERT_EQ(table.close(), TBL_OK);
}

// A table file as LMDB pages, read and changed field by field.
struct Pages {
  explicit Pages(std::string file) : bytes(std::move(file)), size(get<uint32_t>(0, 40)) {}
  uint8_t* at(uint64_t pgno, size_t offset) { return reinterpret_cast<uint8_t*>(&bytes[pgno * size + offset]); }
  template <typename T>
  T get(uint64_t pgno, size_t offset) const {
    T value{};
    std::memcpy(&value, &bytes[pgno * size + offset], sizeof value);
    return value;
  }
  template <typename T>
  void set(uint64_t pgno, size_t offset, T value) { std::memcpy(at(pgno, offset), &value, sizeof value); }
  template <typename T>
  void add(uint64_t pgno, size_t offset, T delta) { set<T>(pgno, offset, T(get<T>(pgno, offset) + delta)); }
  // The meta page LMDB uses (the newer transaction id) and what it records.
  uint64_t meta() const { return get<uint64_t>(1, 144) > get<uint64_t>(0, 144) ? 1 : 0; }
  uint64_t mainRoot() const { return get<uint64_t>(meta(), 128); }
  uint64_t lastPage() const { return get<uint64_t>(meta(), 136); }
  uint16_t flags(uint64_t pgno) const { return get<uint16_t>(pgno, 10); }
  size_t nodes(uint64_t pgno) const { return (get<uint16_t>(pgno, 12) - 16u) / 2; }
  size_t nodeAt(uint64_t pgno, size_t i) const { return get<uint16_t>(pgno, 16 + 2 * i); }
  // A branch node's child page number: 48 bits, little-endian.
  uint64_t child(uint64_t pgno, size_t i) const { return get<uint64_t>(pgno, nodeAt(pgno, i)) & 0xFFFFFFFFFFFFull; }
  void setChild(uint64_t pgno, size_t i, uint64_t target) { std::memcpy(at(pgno, nodeAt(pgno, i)), &target, 6); }
  // Where node i's data starts, from the start of its page.
  size_t dataAt(uint64_t pgno, size_t i) const { return keyAt(pgno, i) + get<uint16_t>(pgno, nodeAt(pgno, i) + 6); }
  size_t keyAt(uint64_t pgno, size_t i) const { return nodeAt(pgno, i) + 8; }
  // Where a named database's record (in the main tree's single leaf) starts.
  size_t named(const std::string& name) const {
    for (size_t i = 0, root = mainRoot(); i < nodes(root); ++i)
      if (bytes.compare(root * size + keyAt(root, i), dataAt(root, i) - keyAt(root, i), name) == 0)
        return dataAt(root, i);
    ADD_FAILURE() << "no database named " << name;
    return 0;
  }
  uint64_t namedRoot(const std::string& name) const { return get<uint64_t>(mainRoot(), named(name) + 40); }
  uint64_t firstLeaf(uint64_t pgno) const { return flags(pgno) == 0x01 ? firstLeaf(child(pgno, 0)) : pgno; }

  std::string bytes;
  size_t size;  // of a page
};

class TableBadFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(makeTable(name_));
    dat_ = fileBytes(name_ + ".dat"), idx_ = fileBytes(name_ + ".idx");
  }
  // The intact files open with every page checked, are consistent and hold
  // every record.
  void TearDown() override {
    restore();
    GenericSchemaTable table;
    table.setVerifyOnOpen(true);
    ASSERT_EQ(table.openTable(name_), TBL_OK);
    EXPECT_EQ(table.checkConsistency(), TBL_OK);
    EXPECT_EQ(table.numberOfRecords(), kRecords - kRecords / 3 + kSmallGroup + kLargeGroup);
  }
  void restore() {
    for (const auto& e : fs::directory_iterator(dir_.path())) fs::remove(e.path());
    writeFile(name_ + ".dat", dat_), writeFile(name_ + ".idx", idx_);
  }

  // After `change` to the intact files (or on the files as they are),
  // opening (or creating) the table with `layout`, every page checked when
  // `verify`, answers `want`, leaves the object closed and changes no file.
  void refused(const std::string& what, int want, const std::function<void()>& change, bool create = false,
               bool verify = false, const SchemaLayout& layout = SchemaLayout::generic()) {
    SCOPED_TRACE(what);
    if (change) restore(), change();
    const auto before = snapshot(dir_.path());
    {
      TCtreeTable table;
      table.setVerifyOnOpen(verify);
      ASSERT_EQ(defineSchema(table, name_, layout), TBL_OK);
      const int status = create ? table.create() : table.open(WZIndexing::kAccessReadWrite);
      EXPECT_EQ(status, want) << TCtreeTable::errToString(status);
      EXPECT_EQ(table.firstRecord(0, std::string(440, 0).data()), TBL_NOT_OPEN);
    }
    EXPECT_TRUE(before == snapshot(dir_.path())) << "a file changed";
  }
  // The files as they were, `damage` made to one of them by another program
  // (so without the mark of a clean close): refused, every page checked
  // unasked, with an error line naming the file and containing `reason`.
  void expectDamaged(const std::string& what, bool dataFile, const std::function<void(Pages&)>& damage,
                     const std::string& reason) {
    Pages pages(dataFile ? dat_ : idx_);
    damage(pages);
    auto capture = CLogCapture::Install();
    const std::string file = name_ + (dataFile ? ".dat" : ".idx");
    refused(what, TBL_BAD_FORMAT, [&] { writeFile(file, pages.bytes); });
    const auto lines = capture->FindContaining("the file " + file + " is damaged (");
    capture->Remove();
    ASSERT_EQ(lines.size(), 1u) << what;
    EXPECT_TRUE(lines[0].level == -1 && lines[0].message.find(reason) != std::string::npos) << lines[0].message;
  }

  TempDir dir_;
  const std::string name_ = dir_ / "WzScanDB";
  std::string dat_, idx_;
};

TEST_F(TableBadFiles, DamagedMissingMismatchedAndForeignFiles) {
  TempDir other;
  ASSERT_NO_FATAL_FAILURE(makeTable(other / "WzScanDB"));  // the same writes: only the table identity differs
  // A valid LMDB file that is not a table of this engine.
  MDB_env* env = nullptr;
  MDB_txn* txn = nullptr;
  MDB_dbi dbi;
  MDB_val key{3, const_cast<char*>("key")}, value{5, const_cast<char*>("value")};
  ASSERT_EQ(mdb_env_create(&env) || mdb_env_set_maxdbs(env, 8) ||
                mdb_env_open(env, (other / "plain").c_str(), MDB_NOSUBDIR | MDB_NOLOCK, 0644) ||
                mdb_txn_begin(env, nullptr, 0, &txn) || mdb_dbi_open(txn, "records", MDB_CREATE, &dbi) ||
                mdb_put(txn, dbi, &key, &value, 0) || mdb_txn_commit(txn),
            0);
  mdb_env_close(env);
  std::mt19937_64 rng(77);
  auto randomBytes = [&](size_t n) {
    std::string s(n, 0);
    for (auto& c : s) c = char(rng());
    return s;
  };
  for (const bool data : {true, false}) {
    const std::string path = name_ + (data ? ".dat" : ".idx"), file = data ? "data" : "index";
    const size_t used = (data ? dat_ : idx_).size();  // a closed file holds its used pages only
    for (size_t size : {size_t(0), size_t(1), size_t(100), size_t(4096), size_t(2 * 4096 - 1), size_t(2 * 4096),
                        used / 2, used - 4096, used - 1})
      refused(file + " file cut to " + std::to_string(size) + " of " + std::to_string(used) + " bytes",
              TBL_BAD_FORMAT, [&] { ASSERT_EQ(::truncate(path.c_str(), off_t(size)), 0); });
    for (size_t size : {size_t(4096 * 3), size_t(10007), dat_.size()})
      refused("random " + file + " file of " + std::to_string(size), TBL_BAD_FORMAT,
              [&] { writeFile(path, randomBytes(size)); });
    refused("plain LMDB as " + file + " file", TBL_BAD_FORMAT, [&] { writeFile(path, fileBytes(other / "plain")); });
    refused(file + " file of another table", TBL_FILES_MISMATCH,
            [&] { writeFile(path, fileBytes(other / (data ? "WzScanDB.dat" : "WzScanDB.idx"))); });
    refused(file + " file missing", TBL_FILE_MISSING, [&] { fs::remove(path); });
  }
  refused("create over the data file", TBL_FILE_EXISTS, [&] { fs::remove(name_ + ".idx"); }, true);
  refused("both files empty", TBL_BAD_FORMAT, [&] { writeFile(name_ + ".dat", ""), writeFile(name_ + ".idx", ""); });
  refused("data pages overwritten, the two meta pages kept", TBL_BAD_FORMAT,
          [&] { writeFile(name_ + ".dat", dat_.substr(0, 2 * 4096) + randomBytes(dat_.size() - 2 * 4096)); });
  refused("both files missing", TBL_FILE_MISSING, [&] { fs::remove(name_ + ".dat"), fs::remove(name_ + ".idx"); });
  refused("create over both files", TBL_FILE_EXISTS, [] {}, true);

  // Tables made with another layout opened as the generic record, and the
  // generic table opened as another layout.
  const SchemaLayout inodeTime{false, 16, 16, {{"inode", 0, kFieldUInt64, 8}, {"ctime", 8, kFieldUInt64, 8}},
                               {{"inode", 8, kKeyFixed, 0, 1, 0}}, {{0, 8, 1}}};
  std::vector<SchemaLayout> variants(4, SchemaLayout::generic());
  variants[0].indexes[1].keyLength = 64, variants[0].segments[2].size = 48;  // a shorter name segment
  variants[1].fields[5].name = "name";
  variants[2].indexes[1].duplicates = 0;
  variants[3].segments[2].caseSensitive = 0;
  variants.push_back(inodeTime);
  for (const auto& layout : variants)
    refused("generic open of variant " + std::to_string(&layout - &variants[0]), TBL_SCHEMA_MISMATCH, [&] {
      TCtreeTable table;
      fs::remove(name_ + ".dat"), fs::remove(name_ + ".idx");
      ASSERT_EQ(defineSchema(table, name_, layout) || table.create() || table.close(), TBL_OK);
    });
  refused("inode/ctime open of the generic table", TBL_SCHEMA_MISMATCH, [] {}, false, false, inodeTime);
}

TEST_F(TableBadFiles, DamagedPagesAreRefusedBeforeLmdbFollowsThem) {
  Pages probe(dat_), index(idx_);
  const uint64_t root = probe.namedRoot("records"), leaf = probe.firstLeaf(root);
  const size_t records = probe.named("records");  // the named database's entry count and depth
  const uint64_t freeRoot = probe.get<uint64_t>(probe.meta(), 80), freeLeaf = probe.firstLeaf(freeRoot);
  const size_t list = probe.dataAt(freeLeaf, 0);
  // Index 1 (parent and name): the small group's duplicates sit in a
  // sub-page of their node (node flags 0x04), the large group's in a tree
  // of their own (0x06).
  std::map<uint16_t, std::pair<uint64_t, size_t>> found;  // by node flags: page, data offset
  std::function<void(uint64_t)> find = [&](uint64_t pgno) {
    for (size_t i = 0; i < index.nodes(pgno); ++i)
      if (index.flags(pgno) == 0x01) find(index.child(pgno, i));
      else found[index.get<uint16_t>(pgno, index.nodeAt(pgno, i) + 4)] = {pgno, index.dataAt(pgno, i)};
  };
  find(index.namedRoot("i1"));
  ASSERT_TRUE(probe.flags(root) == 0x01 && probe.nodes(root) >= 3 && freeRoot != ~uint64_t{0} &&
              probe.get<uint64_t>(freeLeaf, list) >= 1 && found.count(0x04) && found.count(0x06))
      << "a record tree of more than one level, free pages and both kinds of duplicates expected";
  const uint64_t subPage = found[0x04].first, subTree = found[0x06].first;
  const size_t sub = found[0x04].second, db = found[0x06].second;
  const std::tuple<const char*, bool, std::function<void(Pages&)>, const char*> cases[] = {
      {"child past the end", true, [&](Pages& p) { p.setChild(root, 1, p.lastPage() + 5); }, "outside pages 2.."},
      {"child page 0, a meta page", true, [&](Pages& p) { p.setChild(root, 2, 0); }, "outside pages 2.."},
      {"two children on a page", true, [&](Pages& p) { p.setChild(root, 1, p.child(root, 0)); }, "is reached twice"},
      {"a branch pointing at itself", true, [&](Pages& p) { p.setChild(root, 1, root); }, "is reached twice"},
      {"another page's number", true, [&](Pages& p) { p.set<uint64_t>(leaf, 0, leaf + 1); }, "carries the number"},
      {"branch for a leaf", true, [&](Pages& p) { p.set<uint16_t>(leaf, 10, 1); }, "a branch page at level 2"},
      {"node offset past the page", true, [&](Pages& p) { p.set<uint16_t>(leaf, 16, p.size - 4); }, "lies outside"},
      {"free-space bounds crossed", true,
       [&](Pages& p) { p.set<uint16_t>(leaf, 12, uint16_t(p.get<uint16_t>(leaf, 14) + 2)); }, "free space bounds"},
      {"two leaf keys swapped", true,
       [&](Pages& p) { std::swap_ranges(p.at(leaf, 16), p.at(leaf, 18), p.at(leaf, 18)); }, "is not above"},
      {"a record's data 64 KiB longer than its page", true,
       [&](Pages& p) { p.set<uint16_t>(leaf, p.nodeAt(leaf, 0) + 2, 1); }, "runs past the page"},
      {"a record more than the tree holds", true, [&](Pages& p) { p.add<uint64_t>(p.mainRoot(), records + 32, 1); },
       "entries; its tree has"},
      {"deeper tree recorded", true, [&](Pages& p) { p.add<uint16_t>(p.mainRoot(), records + 6, 1); },
       "a leaf page at level"},
      {"a free page that the record tree uses", true,
       [&](Pages& p) { p.set<uint64_t>(freeLeaf, list + 8, p.namedRoot("records")); }, "outside the file or in use"},
      {"long free-page list", true, [&](Pages& p) { p.add<uint64_t>(freeLeaf, list, 1); }, "a free-page list of"},
      {"sub-page not a leaf", false, [&](Pages& p) { p.set<uint16_t>(subPage, sub + 10, 0x41); },
       "a duplicates page with flags"},
      {"duplicates out of order in a sub-page", false,
       [&](Pages& p) { std::swap_ranges(p.at(subPage, sub + 16), p.at(subPage, sub + 24), p.at(subPage, sub + 24)); },
       "is not above"},
      {"a duplicates tree rooted past the end", false,
       [&](Pages& p) { p.set<uint64_t>(subTree, db + 40, p.lastPage() + 1); }, "root page"},
      {"a duplicates tree counting one entry too few", false,
       [&](Pages& p) { p.add<uint64_t>(subTree, db + 32, ~uint64_t{0}); }, "entries; its tree has"},
  };
  for (const auto& [what, dataFile, damage, reason] : cases) expectDamaged(what, dataFile, damage, reason);
}

// A clean close marks the files; an open trusts the mark (the quick check)
// only while the file is as that close left it. Damage that leaves inode,
// size and modification time alone, as a failing disk does, is found when
// every page is checked on request; any change through the file system
// voids the mark.
TEST_F(TableBadFiles, TheCleanCloseMarkIsTrustedOnlyWhileTheFileIsUnchanged) {
  restore();
  GenericSchemaTable table;
  ASSERT_TRUE(table.openTable(name_) == TBL_OK && table.close() == TBL_OK);
  const std::string path = name_ + ".dat";
  Pages pages(fileBytes(path));
  pages.setChild(pages.namedRoot("records"), 1, pages.lastPage() + 5);
  struct stat st;
  const int fd = ::open(path.c_str(), O_WRONLY);
  ASSERT_TRUE(fd >= 0 && ::fstat(fd, &st) == 0);
  ASSERT_EQ(::pwrite(fd, pages.bytes.data(), pages.bytes.size(), 0), ssize_t(pages.bytes.size()));
  struct timespec times[2] = {st.st_atim, st.st_mtim};
  ASSERT_EQ(::futimens(fd, times), 0);
  EXPECT_EQ(table.openTable(name_, WZIndexing::kAccessReadOnly), TBL_OK);
  table.close();
  refused("damage under an intact mark, every page checked on request", TBL_BAD_FORMAT, nullptr, false, true);
  times[1].tv_sec += 1;
  ASSERT_EQ(::futimens(fd, times), 0);
  ::close(fd);
  refused("the same damage once the file's time moved", TBL_BAD_FORMAT, nullptr);
}

}  // namespace
