// Damaged pages: a table whose meta pages are sound but one later page is
// damaged (a child page number, a node offset, a page number, a sort order,
// a count, a free-page list) is refused at open with TBL_BAD_FORMAT and one
// error line naming the file and the damage, before LMDB follows the page.
// The files stay byte-for-byte as they were. Each damage is made on a page
// the newer meta page actually leads to, found by walking the file's trees.
#include <cstdio>
#include <cstring>
#include <functional>

#include <gtest/gtest.h>

#include "FileSnapshot.h"
#include "runtime/LogCapture.h"
#include "support/GenericSchemaTable.h"
#include "support/TempDir.h"

namespace {

constexpr int kRecords = 1200;
constexpr int kSmallGroup = 3;    // names sharing their key prefix: kept inside the index node
constexpr int kLargeGroup = 400;  // too many for the node: a tree of their own

SGenericRecord makeRecord(int i) {
  SGenericRecord r;
  std::memset(&r, 0, sizeof r);
  const uint32_t id = uint32_t(i) * 2654435761u + 7;
  std::memcpy(r.guid, &id, 4);
  uint32_t parent = uint32_t(i / 25);
  // Two folders whose children share the name segment of the index key.
  if (i >= kRecords) parent = i < kRecords + kSmallGroup ? 900001u : 900002u;
  std::memcpy(r.parent_guid, &parent, 4);
  r.refTime = uint32_t(i);
  if (i >= kRecords)
    std::snprintf(r.sname, sizeof r.sname, "%s-%06d",
                  "a-name-long-enough-to-fill-the-whole-key-segment-of-the-index", i);
  else
    std::snprintf(r.sname, sizeof r.sname, "entry-%06d.txt", i);
  return r;
}

// A table file as LMDB pages, read and changed field by field.
class Pages {
 public:
  explicit Pages(std::string bytes) : bytes_(std::move(bytes)) { pageSize_ = get<uint32_t>(0, 40); }

  template <typename T>
  T get(uint64_t pgno, size_t at) const {
    T value;
    std::memcpy(&value, bytes_.data() + pgno * pageSize_ + at, sizeof value);
    return value;
  }
  template <typename T>
  void set(uint64_t pgno, size_t at, T value) {
    std::memcpy(&bytes_[pgno * pageSize_ + at], &value, sizeof value);
  }
  template <typename T>
  void add(uint64_t pgno, size_t at, T delta) {
    set<T>(pgno, at, T(get<T>(pgno, at) + delta));
  }
  template <typename T>
  void swap(uint64_t pgno, size_t a, size_t b) {
    const T first = get<T>(pgno, a);
    set<T>(pgno, a, get<T>(pgno, b));
    set<T>(pgno, b, first);
  }
  const std::string& bytes() const { return bytes_; }
  size_t pageSize() const { return pageSize_; }

  // The meta page LMDB uses: the one with the newer transaction id.
  uint64_t meta() const { return get<uint64_t>(1, 144) > get<uint64_t>(0, 144) ? 1 : 0; }
  uint64_t mainRoot() const { return get<uint64_t>(meta(), 128); }
  uint64_t freeRoot() const { return get<uint64_t>(meta(), 80); }
  uint64_t lastPage() const { return get<uint64_t>(meta(), 136); }

  uint16_t flags(uint64_t pgno) const { return get<uint16_t>(pgno, 10); }
  size_t nodes(uint64_t pgno) const { return (get<uint16_t>(pgno, 12) - 16u) / 2; }
  size_t nodeAt(uint64_t pgno, size_t i) const { return get<uint16_t>(pgno, 16 + 2 * i); }
  // A branch node's child page number: 48 bits, little-endian.
  uint64_t child(uint64_t pgno, size_t i) const {
    uint64_t target = 0;
    std::memcpy(&target, bytes_.data() + pgno * pageSize_ + nodeAt(pgno, i), 6);
    return target;
  }
  void setChild(uint64_t pgno, size_t i, uint64_t target) {
    std::memcpy(&bytes_[pgno * pageSize_ + nodeAt(pgno, i)], &target, 6);
  }
  // Where node i's data starts, from the start of its page.
  size_t dataAt(uint64_t pgno, size_t i) const {
    const size_t n = nodeAt(pgno, i);
    return n + 8 + get<uint16_t>(pgno, n + 6);
  }

  // Where a named database's record (in the main tree's single leaf) starts.
  size_t named(const std::string& name) const {
    const uint64_t root = mainRoot();
    EXPECT_EQ(flags(root), 0x02) << "main tree of one leaf expected";
    for (size_t i = 0; i < nodes(root); ++i) {
      const size_t n = nodeAt(root, i);
      if (bytes_.compare(root * pageSize_ + n + 8, get<uint16_t>(root, n + 6), name) == 0) return dataAt(root, i);
    }
    ADD_FAILURE() << "no database named " << name;
    return 0;
  }
  uint64_t namedRoot(const std::string& name) const { return get<uint64_t>(mainRoot(), named(name) + 40); }
  // Leftmost leaf below a page.
  uint64_t firstLeaf(uint64_t pgno) const {
    while (flags(pgno) == 0x01) pgno = child(pgno, 0);
    return pgno;
  }

 private:
  std::string bytes_;
  size_t pageSize_ = 0;
};

class DamagedPages : public ::testing::Test {
 protected:
  void SetUp() override {
    GenericSchemaTable table;
    ASSERT_EQ(table.createTable(name_), TBL_OK);
    for (int i = 0; i < kRecords + kSmallGroup + kLargeGroup; ++i) {
      SGenericRecord r = makeRecord(i);
      ASSERT_EQ(table.addRecord(&r), TBL_OK);
    }
    // Deletes leave free pages behind.
    SGenericRecord got;
    for (int i = 0; i < kRecords; i += 3) {
      ASSERT_EQ(table.readByOffset(&got, i + 1, int(sizeof got)), TBL_OK);
      ASSERT_EQ(table.deleteRecord(), TBL_OK);
    }
    ASSERT_EQ(table.close(), TBL_OK);
    dat_ = fileBytes(name_ + ".dat");
    idx_ = fileBytes(name_ + ".idx");
  }

  // The files with `damage` made to one of them must be refused, with a log
  // line naming the file and containing `reason`, and left as they were.
  void expectRefused(const std::string& what, bool dataFile, const std::function<void(Pages&)>& damage,
                     const std::string& reason) {
    SCOPED_TRACE(what);
    Pages pages(dataFile ? dat_ : idx_);
    damage(pages);
    if (::testing::Test::HasFatalFailure()) return;
    writeFile(name_ + ".dat", dataFile ? pages.bytes() : dat_);
    writeFile(name_ + ".idx", dataFile ? idx_ : pages.bytes());
    const FileSnapshot before(dir_.path());
    auto capture = CLogCapture::Install();
    {
      // Files closed cleanly get the full check when asked (files left by a
      // killed writer always do).
      GenericSchemaTable table;
      table.setVerifyOnOpen(true);
      EXPECT_EQ(table.openTable(name_), TBL_BAD_FORMAT);
      EXPECT_FALSE(table.isOpen());
    }
    const auto lines = capture->FindContaining("is damaged");
    capture->Remove();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, -1);
    EXPECT_NE(lines[0].message.find(name_ + (dataFile ? ".dat" : ".idx")), std::string::npos)
        << lines[0].message;
    EXPECT_NE(lines[0].message.find(reason), std::string::npos) << lines[0].message;
    const FileSnapshot after(dir_.path());
    EXPECT_TRUE(before == after) << before.diff(after);
  }

  TempDir dir_;
  const std::string name_ = dir_ / "WzScanDB";
  std::string dat_, idx_;
};

TEST_F(DamagedPages, PagesOfTheRecordTree) {
  // The undamaged files open, hold every record and pass the engine's check.
  {
    writeFile(name_ + ".dat", dat_);
    writeFile(name_ + ".idx", idx_);
    GenericSchemaTable table;
    ASSERT_EQ(table.openTable(name_), TBL_OK);
    std::string report;
    EXPECT_EQ(table.checkConsistency(&report), TBL_OK) << report;
    int count = 0;
    SGenericRecord r;
    for (int s = table.firstRecord(1, &r); s == TBL_OK; s = table.nextRecord(1, &r)) ++count;
    EXPECT_EQ(count, kRecords - kRecords / 3 + kSmallGroup + kLargeGroup);
  }
  Pages probe(dat_);
  const uint64_t root = probe.namedRoot("records");
  ASSERT_EQ(probe.flags(root), 0x01) << "a record tree of more than one level expected";
  ASSERT_GE(probe.nodes(root), 3u);

  expectRefused("child page past the end", true,
                [&](Pages& p) { p.setChild(root, 1, p.lastPage() + 5); }, "outside pages 2..");
  expectRefused("child page 0, a meta page", true, [&](Pages& p) { p.setChild(root, 2, 0); },
                "outside pages 2..");
  expectRefused("two children on one page", true,
                [&](Pages& p) { p.setChild(root, 1, p.child(root, 0)); }, "is reached twice");
  expectRefused("a branch pointing at itself", true, [&](Pages& p) { p.setChild(root, 1, root); },
                "is reached twice");
  const uint64_t leaf = probe.firstLeaf(root);
  expectRefused("a leaf carrying another page's number", true,
                [&](Pages& p) { p.set<uint64_t>(leaf, 0, leaf + 1); }, "carries the number");
  expectRefused("a branch page where a leaf belongs", true,
                [&](Pages& p) { p.set<uint16_t>(leaf, 10, 0x01); }, "a branch page at level 2");
  expectRefused("a node offset past the page", true,
                [&](Pages& p) { p.set<uint16_t>(leaf, 16, uint16_t(p.pageSize() - 4)); }, "lies outside");
  expectRefused("free-space bounds crossed", true,
                [&](Pages& p) { p.set<uint16_t>(leaf, 12, uint16_t(p.get<uint16_t>(leaf, 14) + 2)); },
                "free space bounds");
  expectRefused("two leaf keys swapped", true, [&](Pages& p) { p.swap<uint16_t>(leaf, 16, 18); }, "is not above");
  expectRefused("a record's data 64 KiB longer than its page", true,
                [&](Pages& p) { p.set<uint16_t>(leaf, p.nodeAt(leaf, 0) + 2, 1); }, "runs past the page");
  // The record of the named database "records": its entry count and depth.
  const size_t records = probe.named("records");
  expectRefused("one record more than the tree holds", true,
                [&](Pages& p) { p.add<uint64_t>(p.mainRoot(), records + 32, 1); }, "entries; its tree has");
  expectRefused("a deeper tree than recorded", true,
                [&](Pages& p) { p.add<uint16_t>(p.mainRoot(), records + 6, 1); }, "a leaf page at level");
}

TEST_F(DamagedPages, FreePagesAndSortedDuplicates) {
  Pages probe(dat_);
  const uint64_t freeRoot = probe.freeRoot();
  ASSERT_NE(freeRoot, ~uint64_t{0}) << "deletes must have left free pages";
  const uint64_t freeLeaf = probe.firstLeaf(freeRoot);
  const size_t list = probe.dataAt(freeLeaf, 0);
  ASSERT_GE(probe.get<uint64_t>(freeLeaf, list), 1u);
  expectRefused("a free page that the record tree uses", true,
                [&](Pages& p) { p.set<uint64_t>(freeLeaf, list + 8, p.namedRoot("records")); },
                "outside the file or in use");
  expectRefused("a free-page list longer than its value", true,
                [&](Pages& p) { p.add<uint64_t>(freeLeaf, list, 1); }, "a free-page list of");

  // Index 1 (parent and name): the small group's duplicates sit in a
  // sub-page of their node, the large group's in a tree of their own.
  Pages index(idx_);
  uint64_t subPageLeaf = 0, subTreeLeaf = 0;
  size_t subPageNode = 0, subTreeNode = 0;
  std::function<void(uint64_t)> find = [&](uint64_t pgno) {
    if (index.flags(pgno) == 0x01) {
      for (size_t i = 0; i < index.nodes(pgno); ++i) find(index.child(pgno, i));
      return;
    }
    for (size_t i = 0; i < index.nodes(pgno); ++i) {
      const uint16_t nodeFlags = index.get<uint16_t>(pgno, index.nodeAt(pgno, i) + 4);
      if (nodeFlags == 0x04) subPageLeaf = pgno, subPageNode = i;
      if (nodeFlags == 0x06) subTreeLeaf = pgno, subTreeNode = i;
    }
  };
  find(index.namedRoot("i1"));
  ASSERT_NE(subPageLeaf, 0u);
  ASSERT_NE(subTreeLeaf, 0u);
  const size_t sub = index.dataAt(subPageLeaf, subPageNode), db = index.dataAt(subTreeLeaf, subTreeNode);
  expectRefused("a sub-page that is not a leaf", false,
                [&](Pages& p) { p.set<uint16_t>(subPageLeaf, sub + 10, 0x41); }, "a duplicates page with flags");
  expectRefused("duplicates out of order in a sub-page", false,
                [&](Pages& p) { p.swap<uint64_t>(subPageLeaf, sub + 16, sub + 24); }, "is not above");
  expectRefused("a duplicates tree rooted past the end", false,
                [&](Pages& p) { p.set<uint64_t>(subTreeLeaf, db + 40, p.lastPage() + 1); }, "root page");
  expectRefused("a duplicates tree counting one entry too few", false,
                [&](Pages& p) { p.add<uint64_t>(subTreeLeaf, db + 32, ~uint64_t{0}); }, "entries; its tree has");
}

}  // namespace
