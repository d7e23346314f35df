#include "LmdbVerifier.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "table/TableStatus.h"

namespace wztable {
namespace {

// ---- LMDB 0.9 file layout (64-bit) ------------------------------------------

// Page header: page number (8), pad (2), flags (2), then the lower and upper
// bounds of the free space (2 + 2) or, on an overflow page, its page count
// (4); then one 2-byte node offset per node.
constexpr size_t kPageHeader = 16;
constexpr size_t kPadAt = 8;
constexpr size_t kFlagsAt = 10;
constexpr size_t kLowerAt = 12;
constexpr size_t kUpperAt = 14;
constexpr size_t kOverflowCountAt = 12;

constexpr uint16_t kBranchPage = 0x01;
constexpr uint16_t kLeafPage = 0x02;
constexpr uint16_t kOverflowPage = 0x04;
constexpr uint16_t kMetaPage = 0x08;
constexpr uint16_t kFixedLeafPage = 0x20;  // keys of one size, packed, no nodes
constexpr uint16_t kDirtyPage = 0x10;      // left set on sub-pages, meaningless in the file
constexpr uint16_t kSubPage = 0x40;        // sorted duplicates kept inside a node

// Node: data size (or, on a branch page, child page number) low and high
// halves (2 + 2), flags (2; the child page number's top bits on a branch
// page), key size (2), the key, then a leaf node's data.
constexpr size_t kNodeHeader = 8;
constexpr uint16_t kBigData = 0x01;  // data on overflow pages; the node holds their number
constexpr uint16_t kSubData = 0x02;  // data is a database record
constexpr uint16_t kDupData = 0x04;  // data holds the key's sorted duplicates

// Database record: pad (4), flags (2), depth (2), branch, leaf and overflow
// page counts, entries, root page (8 each).
constexpr size_t kDbRecordBytes = 48;
constexpr uint16_t kOrderFlags = 0x7f;  // the flags that decide orders and layouts; LMDB keeps others
constexpr uint16_t kDupSort = 0x04;
constexpr uint16_t kIntegerKey = 0x08;
constexpr uint16_t kDupFixed = 0x10;
constexpr uint16_t kIntegerDup = 0x20;

// Meta page, after its page header: magic, version, address, map size, the
// free-page and main database records, last page in use, transaction id.
constexpr size_t kMetaMagicAt = 16;
constexpr size_t kMetaVersionAt = 20;
constexpr size_t kMetaFreeDbAt = 40;  // its pad holds the page size
constexpr size_t kMetaMainDbAt = 88;
constexpr size_t kMetaLastPageAt = 136;
constexpr size_t kMetaTxnIdAt = 144;
constexpr size_t kMetaBytes = 152;
constexpr uint32_t kLmdbMagic = 0xBEEFC0DEu;
constexpr uint32_t kLmdbDataVersion = 1;

constexpr uint64_t kNoPage = ~uint64_t{0};
constexpr unsigned kMaxDepth = 32;     // LMDB's cursor stack
constexpr size_t kMaxKeyBytes = 511;   // LMDB's largest key or sorted duplicate
constexpr uint64_t kFirstTreePage = 2;  // pages 0 and 1 are the meta pages

template <typename T>
T load(const uint8_t* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

struct DbRecord {
  uint32_t pad;
  uint16_t flags;
  uint16_t depth;
  uint64_t branchPages, leafPages, overflowPages, entries, root;
};

DbRecord loadDb(const uint8_t* at) {
  DbRecord db;
  db.pad = load<uint32_t>(at);
  db.flags = load<uint16_t>(at + 4) & kOrderFlags;
  db.depth = load<uint16_t>(at + 6);
  db.branchPages = load<uint64_t>(at + 8);
  db.leafPages = load<uint64_t>(at + 16);
  db.overflowPages = load<uint64_t>(at + 24);
  db.entries = load<uint64_t>(at + 32);
  db.root = load<uint64_t>(at + 40);
  return db;
}

// A key, or an open bound when `data` is null.
struct Key {
  const uint8_t* data = nullptr;
  size_t size = 0;
};

enum class Order { kBytes, kInteger };

// What a tree is, which decides what its pages may hold.
enum class Role { kFreePages, kMain, kNamed, kDuplicates };

struct Tree {
  Role role;
  const char* name;   // for messages
  uint16_t flags;     // the database record's flags
  Order keys;         // order of the keys
  Order duplicates;   // order of sorted duplicates (dupsort databases)
  size_t fixedSize;   // key size of packed leaf pages (duplicates of fixed size)
};

struct Counts {
  uint64_t branch = 0, leaf = 0, overflow = 0, entries = 0;
};

class Verifier {
 public:
  Verifier(const uint8_t* map, uint64_t pages, uint32_t pageSize, bool deep)
      : map_(map), pages_(pages), pageSize_(pageSize), deep_(deep), seen_((pages + 63) / 64, 0) {}

  bool run(const uint8_t* meta) {
    const Tree freeTree{Role::kFreePages, "free-page", 0, Order::kInteger, Order::kBytes, 0};
    const Tree mainTree{Role::kMain, "main", 0, Order::kBytes, Order::kBytes, 0};
    const DbRecord freeDb = loadDb(meta + kMetaFreeDbAt);  // its pad holds the page size
    const DbRecord mainDb = loadDb(meta + kMetaMainDbAt);
    if (freeDb.flags != kIntegerKey) return fail("the free-page database has flags 0x%x", freeDb.flags);
    if (mainDb.flags != 0) return fail("the main database has flags 0x%x", mainDb.flags);
    Counts ignored;
    return checkDatabase(freeDb, freeTree, ignored) && checkDatabase(mainDb, mainTree, ignored) &&
           checkFreePages();
  }

  const std::string& reason() const { return reason_; }

 private:
  bool fail(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    if (reason_.empty()) {
      char text[256];
      va_list args;
      va_start(args, format);
      std::vsnprintf(text, sizeof text, format, args);
      va_end(args);
      reason_ = text;
    }
    return false;
  }

  static unsigned long long ull(uint64_t value) { return static_cast<unsigned long long>(value); }

  const uint8_t* page(uint64_t pgno) const { return map_ + pgno * pageSize_; }

  bool seen(uint64_t pgno) const { return (seen_[pgno / 64] >> (pgno % 64)) & 1; }

  // Marks a page as reached; a page reached twice means two trees share it
  // or a tree loops back on itself.
  bool claim(uint64_t pgno, const char* what, uint64_t from) {
    if (pgno < kFirstTreePage || pgno >= pages_) {
      if (from == kNoPage)
        return fail("a database's root page %llu lies outside pages 2..%llu", ull(pgno),
                    ull(pages_ - 1));
      return fail("page %llu refers to %s page %llu, outside pages 2..%llu", ull(from), what,
                  ull(pgno), ull(pages_ - 1));
    }
    if (seen(pgno)) return fail("page %llu is reached twice", ull(pgno));
    seen_[pgno / 64] |= uint64_t{1} << (pgno % 64);
    return true;
  }

  // Negative, zero or positive as a is below, equal to or above b; keys
  // that an order cannot compare are reported and count as equal.
  int compare(const Tree& tree, Order order, const Key& a, const Key& b, uint64_t pgno) {
    if (order == Order::kInteger) {
      if (a.size != b.size || (a.size != 4 && a.size != 8)) {
        fail("page %llu: integer keys of %zu and %zu bytes in the %s database", ull(pgno), a.size,
             b.size, tree.name);
        return 0;
      }
      const uint64_t x = a.size == 4 ? load<uint32_t>(a.data) : load<uint64_t>(a.data);
      const uint64_t y = b.size == 4 ? load<uint32_t>(b.data) : load<uint64_t>(b.data);
      return x < y ? -1 : x > y;
    }
    const int c = std::memcmp(a.data, b.data, a.size < b.size ? a.size : b.size);
    if (c != 0) return c;
    return a.size < b.size ? -1 : a.size > b.size;
  }

  // A page's keys, one after the other: each above the one before and
  // inside the bounds the parent's keys set ([low, high)).
  bool checkKeyOrder(const Tree& tree, Order order, const std::vector<Key>& keys, size_t first,
                     const Key& low, const Key& high, uint64_t pgno) {
    for (size_t i = first; i < keys.size(); ++i) {
      if (order == Order::kInteger && keys[i].size != 4 && keys[i].size != 8)
        return fail("page %llu: an integer key of %zu bytes in the %s database", ull(pgno),
                    keys[i].size, tree.name);
      if (i > first && compare(tree, order, keys[i - 1], keys[i], pgno) >= 0)
        return fail("page %llu: key %zu is not above key %zu in the %s database", ull(pgno), i,
                    i - 1, tree.name);
      if (low.data && compare(tree, order, keys[i], low, pgno) < 0)
        return fail("page %llu: key %zu lies below its parent's bound", ull(pgno), i);
      if (high.data && compare(tree, order, keys[i], high, pgno) >= 0)
        return fail("page %llu: key %zu lies at or above its parent's bound", ull(pgno), i);
    }
    return reason_.empty();
  }

  // Page header bounds of a page (or a sub-page) of `size` bytes; `count`
  // receives its number of nodes.
  bool checkBounds(const uint8_t* p, size_t size, uint64_t pgno, size_t* count) {
    const uint16_t lower = load<uint16_t>(p + kLowerAt);
    const uint16_t upper = load<uint16_t>(p + kUpperAt);
    if (lower < kPageHeader || lower > upper || upper > size || (lower - kPageHeader) % 2 != 0)
      return fail("page %llu: free space bounds %u..%u do not fit a page of %zu bytes", ull(pgno),
                  lower, upper, size);
    *count = (lower - kPageHeader) / 2;
    if (*count == 0) return fail("page %llu: a page without entries", ull(pgno));
    return true;
  }

  // The node at slot i of a page of `size` bytes: its header and key inside
  // the used part of the page. `dataBytes` is the room its data takes.
  bool nodeAt(const uint8_t* p, size_t size, size_t i, uint64_t pgno, const uint8_t** node,
              Key* key) {
    const uint16_t upper = load<uint16_t>(p + kUpperAt);
    const size_t offset = load<uint16_t>(p + kPageHeader + 2 * i);
    if (offset < upper || offset + kNodeHeader > size)
      return fail("page %llu: node %zu at offset %zu lies outside %u..%zu", ull(pgno), i, offset,
                  upper, size);
    *node = p + offset;
    key->size = load<uint16_t>(*node + 6);
    key->data = *node + kNodeHeader;
    if (key->size > kMaxKeyBytes || offset + kNodeHeader + key->size > size)
      return fail("page %llu: node %zu has a key of %zu bytes", ull(pgno), i, key->size);
    return true;
  }

  bool checkDatabase(const DbRecord& db, const Tree& tree, Counts& parent) {
    if (db.root == kNoPage) {
      if (db.depth != 0 || db.branchPages || db.leafPages || db.overflowPages || db.entries)
        return fail("the empty %s database records pages or entries", tree.name);
      return true;
    }
    if (db.depth < 1 || db.depth > kMaxDepth)
      return fail("the %s database has depth %u", tree.name, db.depth);
    Counts counts;
    if (!checkPage(db.root, 1, db.depth, tree, Key(), Key(), counts, kNoPage)) return false;
    if (counts.branch != db.branchPages || counts.leaf != db.leafPages ||
        counts.overflow != db.overflowPages || counts.entries != db.entries)
      return fail("the %s database records %llu/%llu/%llu branch/leaf/overflow pages and %llu "
                  "entries; its tree has %llu/%llu/%llu and %llu",
                  tree.name, ull(db.branchPages), ull(db.leafPages), ull(db.overflowPages),
                  ull(db.entries), ull(counts.branch), ull(counts.leaf), ull(counts.overflow),
                  ull(counts.entries));
    parent.entries += counts.entries;
    return true;
  }

  bool checkPage(uint64_t pgno, unsigned level, unsigned depth, const Tree& tree, Key low,
                 Key high, Counts& counts, uint64_t from) {
    if (!claim(pgno, "tree", from)) return false;
    const uint8_t* p = page(pgno);
    if (load<uint64_t>(p) != pgno)
      return fail("page %llu carries the number %llu", ull(pgno), ull(load<uint64_t>(p)));
    const uint16_t flags = load<uint16_t>(p + kFlagsAt);
    size_t count = 0;
    if (flags == kBranchPage) {
      if (level >= depth)
        return fail("page %llu: a branch page at level %u of the %s database of depth %u",
                    ull(pgno), level, tree.name, depth);
      if (!checkBounds(p, pageSize_, pgno, &count)) return false;
      ++counts.branch;
      std::vector<Key> keys(count);
      std::vector<uint64_t> children(count);
      for (size_t i = 0; i < count; ++i) {
        const uint8_t* node = nullptr;
        if (!nodeAt(p, pageSize_, i, pgno, &node, &keys[i])) return false;
        children[i] = uint64_t{load<uint16_t>(node)} | uint64_t{load<uint16_t>(node + 2)} << 16 |
                      uint64_t{load<uint16_t>(node + 4)} << 32;
      }
      // The first slot's key is never compared: it stands for everything
      // below the second.
      if (!checkKeyOrder(tree, tree.keys, keys, 1, low, high, pgno)) return false;
      for (size_t i = 0; i < count; ++i) {
        const Key childLow = i == 0 ? low : keys[i];
        const Key childHigh = i + 1 < count ? keys[i + 1] : high;
        if (!checkPage(children[i], level + 1, depth, tree, childLow, childHigh, counts, pgno))
          return false;
      }
      return true;
    }
    if (flags != kLeafPage && flags != (kLeafPage | kFixedLeafPage))
      return fail("page %llu: flags 0x%x where a page of the %s database belongs", ull(pgno),
                  flags, tree.name);
    if (level != depth)
      return fail("page %llu: a leaf page at level %u of the %s database of depth %u", ull(pgno),
                  level, tree.name, depth);
    const bool packed = tree.role == Role::kDuplicates && (tree.flags & kDupFixed);
    if ((flags == (kLeafPage | kFixedLeafPage)) != packed)
      return fail("page %llu: a %s leaf page in the %s database", ull(pgno),
                  packed ? "plain" : "packed", tree.name);
    if (!checkBounds(p, pageSize_, pgno, &count)) return false;
    ++counts.leaf;
    if (packed) return checkPackedKeys(p, pageSize_, tree.fixedSize, count, tree, low, high, pgno,
                                       counts);
    std::vector<Key> keys = takeKeys(count);
    for (size_t i = 0; i < count; ++i) {
      const uint8_t* node = nullptr;
      if (!nodeAt(p, pageSize_, i, pgno, &node, &keys[i])) return false;
      if (!checkLeafNode(p, node, keys[i], pgno, tree, counts)) return false;
    }
    const bool ordered = checkKeyOrder(tree, tree.keys, keys, 0, low, high, pgno);
    giveKeys(std::move(keys));
    return ordered;
  }

  // Key lists are reused from page to page rather than allocated for each.
  std::vector<Key> takeKeys(size_t count) {
    std::vector<Key> keys;
    if (!spareKeys_.empty()) {
      keys = std::move(spareKeys_.back());
      spareKeys_.pop_back();
    }
    keys.resize(count);
    return keys;
  }
  void giveKeys(std::vector<Key>&& keys) { spareKeys_.push_back(std::move(keys)); }

  // Packed keys of one size, without nodes (duplicates of a fixed size).
  bool checkPackedKeys(const uint8_t* p, size_t size, size_t keySize, size_t count,
                       const Tree& tree, const Key& low, const Key& high, uint64_t pgno,
                       Counts& counts) {
    if (keySize == 0 || keySize > kMaxKeyBytes || kPageHeader + count * keySize > size)
      return fail("page %llu: %zu packed keys of %zu bytes do not fit %zu bytes", ull(pgno),
                  count, keySize, size);
    std::vector<Key> keys = takeKeys(count);
    for (size_t i = 0; i < count; ++i) keys[i] = Key{p + kPageHeader + i * keySize, keySize};
    counts.entries += count;
    const bool ordered = checkKeyOrder(tree, tree.keys, keys, 0, low, high, pgno);
    giveKeys(std::move(keys));
    return ordered;
  }

  bool checkLeafNode(const uint8_t* p, const uint8_t* node, const Key& key, uint64_t pgno,
                     const Tree& tree, Counts& counts) {
    const uint16_t nodeFlags = load<uint16_t>(node + 4);
    const uint64_t dataSize = uint64_t{load<uint16_t>(node)} | uint64_t{load<uint16_t>(node + 2)} << 16;
    const size_t offset = static_cast<size_t>(node - p);
    const size_t room = nodeFlags == kBigData ? sizeof(uint64_t) : dataSize;
    if (offset + kNodeHeader + key.size + room > pageSize_)
      return fail("page %llu: a node's data of %llu bytes runs past the page", ull(pgno),
                  ull(dataSize));
    const uint8_t* data = node + kNodeHeader + key.size;
    const bool dupsort = (tree.flags & kDupSort) != 0;

    if (tree.role == Role::kDuplicates) {
      if (nodeFlags != 0 || dataSize != 0)
        return fail("page %llu: a duplicate with flags 0x%x and %llu bytes of data", ull(pgno),
                    nodeFlags, ull(dataSize));
      ++counts.entries;
      return true;
    }
    switch (nodeFlags) {
      case 0:
        if (dupsort && dataSize > kMaxKeyBytes)
          return fail("page %llu: a sorted duplicate of %llu bytes", ull(pgno), ull(dataSize));
        if (tree.role == Role::kFreePages && !noteFreeList(data, dataSize, key, pgno))
          return false;
        ++counts.entries;
        return true;
      case kBigData: {
        if (dupsort) return fail("page %llu: an overflow value among sorted duplicates", ull(pgno));
        const uint8_t* bytes = nullptr;
        if (!checkOverflow(load<uint64_t>(data), dataSize, pgno, counts, &bytes)) return false;
        if (tree.role == Role::kFreePages && !noteFreeList(bytes, dataSize, key, pgno))
          return false;
        ++counts.entries;
        return true;
      }
      case kSubData:
        if (tree.role != Role::kMain || dataSize != kDbRecordBytes)
          return fail("page %llu: a database record of %llu bytes in the %s database", ull(pgno),
                      ull(dataSize), tree.name);
        ++counts.entries;
        return checkNamed(loadDb(data), pgno);
      case kDupData:
        if (!dupsort) return fail("page %llu: sorted duplicates in the %s database", ull(pgno), tree.name);
        return checkSubPage(data, dataSize, tree, pgno, counts);
      case kDupData | kSubData: {
        if (!dupsort || dataSize != kDbRecordBytes)
          return fail("page %llu: a duplicates database in the %s database", ull(pgno), tree.name);
        const DbRecord db = loadDb(data);
        const uint16_t expected = (tree.flags & kDupFixed) ? uint16_t(kDupFixed | ((tree.flags & kIntegerDup) ? kIntegerKey : 0)) : 0;
        if (db.flags != expected)
          return fail("page %llu: a duplicates database with flags 0x%x", ull(pgno), db.flags);
        const Tree sub{Role::kDuplicates, "duplicates", db.flags, tree.duplicates, tree.duplicates,
                       db.pad};
        return checkDatabase(db, sub, counts);
      }
      default:
        return fail("page %llu: a node with flags 0x%x", ull(pgno), nodeFlags);
    }
  }

  // A named database: its record, kept as a value of the main database.
  // Reversed key orders are refused: this engine never asks for them.
  bool checkNamed(const DbRecord& db, uint64_t pgno) {
    const uint16_t known = kIntegerKey | kDupSort | kDupFixed | kIntegerDup;
    if ((db.flags & ~known) || (!(db.flags & kDupSort) && (db.flags & (kDupFixed | kIntegerDup))))
      return fail("page %llu: a named database with flags 0x%x", ull(pgno), db.flags);
    const Order keys = (db.flags & kIntegerKey) ? Order::kInteger : Order::kBytes;
    const Order duplicates = (db.flags & kIntegerDup) ? Order::kInteger : Order::kBytes;
    const Tree named{Role::kNamed, "named", db.flags, keys, duplicates, 0};
    if (!deep_) {
      // The quick form stops at the root: it must lie inside the file.
      if (db.root != kNoPage && (db.root < kFirstTreePage || db.root >= pages_))
        return fail("page %llu: a named database whose root page %llu lies outside pages 2..%llu",
                    ull(pgno), ull(db.root), ull(pages_ - 1));
      return true;
    }
    Counts ignored;
    return checkDatabase(db, named, ignored);
  }

  // Sorted duplicates kept inside the node: a small page of their own.
  bool checkSubPage(const uint8_t* sub, uint64_t size, const Tree& tree, uint64_t pgno,
                    Counts& counts) {
    if (size < kPageHeader) return fail("page %llu: a duplicates page of %llu bytes", ull(pgno), ull(size));
    const bool packed = (tree.flags & kDupFixed) != 0;
    const uint16_t flags = load<uint16_t>(sub + kFlagsAt) & ~kDirtyPage;
    const uint16_t expected = kLeafPage | kSubPage | (packed ? kFixedLeafPage : 0);
    if (flags != expected)
      return fail("page %llu: a duplicates page with flags 0x%x", ull(pgno), flags);
    size_t count = 0;
    if (!checkBounds(sub, size, pgno, &count)) return false;
    const Tree dups{Role::kDuplicates, "duplicates", 0, tree.duplicates, tree.duplicates, 0};
    if (packed)
      return checkPackedKeys(sub, size, load<uint16_t>(sub + kPadAt), count, dups, Key(), Key(),
                             pgno, counts);
    std::vector<Key> keys(count);
    for (size_t i = 0; i < count; ++i) {
      const uint8_t* node = nullptr;
      if (!nodeAt(sub, size, i, pgno, &node, &keys[i])) return false;
      if (load<uint16_t>(node + 4) != 0 || load<uint16_t>(node) != 0 || load<uint16_t>(node + 2) != 0)
        return fail("page %llu: a duplicate with data of its own", ull(pgno));
    }
    counts.entries += count;
    return checkKeyOrder(dups, tree.duplicates, keys, 0, Key(), Key(), pgno);
  }

  // Overflow pages holding one value of `bytes` bytes.
  bool checkOverflow(uint64_t first, uint64_t bytes, uint64_t from, Counts& counts,
                     const uint8_t** data) {
    if (first < kFirstTreePage || first >= pages_)
      return fail("page %llu refers to overflow page %llu, outside pages 2..%llu", ull(from),
                  ull(first), ull(pages_ - 1));
    const uint8_t* p = page(first);
    const uint64_t needed = (kPageHeader - 1 + bytes) / pageSize_ + 1;
    const uint32_t count = load<uint32_t>(p + kOverflowCountAt);
    if (load<uint64_t>(p) != first || load<uint16_t>(p + kFlagsAt) != kOverflowPage ||
        count != needed || first + count > pages_)
      return fail("page %llu: not the start of %llu overflow pages holding %llu bytes", ull(first),
                  ull(needed), ull(bytes));
    for (uint64_t i = 0; i < count; ++i)
      if (!claim(first + i, "overflow", from)) return false;
    counts.overflow += count;
    *data = p + kPageHeader;
    return true;
  }

  // A free-page list: a count, then that many page numbers, highest first.
  bool noteFreeList(const uint8_t* data, uint64_t bytes, const Key& key, uint64_t pgno) {
    if (key.size != sizeof(uint64_t))
      return fail("page %llu: a free-page list under a key of %zu bytes", ull(pgno), key.size);
    if (bytes < sizeof(uint64_t) || bytes % sizeof(uint64_t) != 0 ||
        load<uint64_t>(data) != bytes / sizeof(uint64_t) - 1)
      return fail("page %llu: a free-page list of %llu bytes", ull(pgno), ull(bytes));
    freeLists_.emplace_back(data + sizeof(uint64_t), bytes / sizeof(uint64_t) - 1);
    return true;
  }

  // Free pages lie inside the file, outside every tree, once each.
  bool checkFreePages() {
    for (const auto& list : freeLists_) {
      uint64_t previous = kNoPage;
      for (uint64_t i = 0; i < list.second; ++i) {
        const uint64_t pgno = load<uint64_t>(list.first + i * sizeof(uint64_t));
        // (The quick form has not walked the named trees: it checks the range.)
        if (pgno < kFirstTreePage || pgno >= pages_ || (deep_ && seen(pgno)))
          return fail("free page %llu is outside the file or in use", ull(pgno));
        if (pgno >= previous) return fail("the free-page list is not in descending order");
        previous = pgno;
        seen_[pgno / 64] |= uint64_t{1} << (pgno % 64);
      }
    }
    return true;
  }

  const uint8_t* map_;
  uint64_t pages_;
  uint32_t pageSize_;
  bool deep_;
  std::vector<uint64_t> seen_;
  std::vector<std::pair<const uint8_t*, uint64_t>> freeLists_;
  std::vector<std::vector<Key>> spareKeys_;
  std::string reason_;
};

int badFormat(std::string* reason, const char* text) {
  if (reason) *reason = text;
  return TBL_BAD_FORMAT;
}

}  // namespace

int verifyLmdbFile(int fd, std::string* reason, bool deep) {
  struct stat st;
  if (fstat(fd, &st) != 0) return TBL_IO_ERROR;
  const uint64_t size = static_cast<uint64_t>(st.st_size);
  uint8_t meta[2][kMetaBytes];
  if (size < 2 * kMetaBytes || pread(fd, meta[0], kMetaBytes, 0) != static_cast<ssize_t>(kMetaBytes))
    return badFormat(reason, "too short for the meta pages");
  const uint32_t pageSize = load<uint32_t>(meta[0] + kMetaFreeDbAt);
  if (pageSize < 512 || pageSize > 65536 || (pageSize & (pageSize - 1)) != 0)
    return badFormat(reason, "no valid page size in the first meta page");
  if (size < 2ull * pageSize ||
      pread(fd, meta[1], kMetaBytes, pageSize) != static_cast<ssize_t>(kMetaBytes))
    return badFormat(reason, "too short for the meta pages");
  for (int i = 0; i < 2; ++i) {
    if (load<uint32_t>(meta[i] + kMetaMagicAt) != kLmdbMagic ||
        load<uint32_t>(meta[i] + kMetaVersionAt) != kLmdbDataVersion ||
        load<uint64_t>(meta[i]) != static_cast<uint64_t>(i) ||
        load<uint16_t>(meta[i] + kFlagsAt) != kMetaPage)
      return badFormat(reason, "not an LMDB meta page");
    if (load<uint32_t>(meta[i] + kMetaFreeDbAt) != pageSize)
      return badFormat(reason, "the meta pages disagree on the page size");
  }
  // LMDB uses the meta page with the newer transaction id.
  const uint8_t* current =
      load<uint64_t>(meta[1] + kMetaTxnIdAt) > load<uint64_t>(meta[0] + kMetaTxnIdAt) ? meta[1]
                                                                                     : meta[0];
  const uint64_t lastPage = load<uint64_t>(current + kMetaLastPageAt);
  if (lastPage < 1 || lastPage >= size / pageSize)
    return badFormat(reason, "the last page in use lies past the end of the file");

  const uint64_t pages = lastPage + 1;
  const size_t mapBytes = static_cast<size_t>(pages * pageSize);
  void* map = mmap(nullptr, mapBytes, PROT_READ, MAP_SHARED | (deep ? MAP_POPULATE : 0), fd, 0);
  if (map == MAP_FAILED) return errno == ENOMEM ? TBL_NO_MEMORY : TBL_IO_ERROR;
  Verifier verifier(static_cast<const uint8_t*>(map), pages, pageSize, deep);
  const bool sound = verifier.run(current);
  munmap(map, mapBytes);
  if (sound) return TBL_OK;
  if (reason) *reason = verifier.reason();
  return TBL_BAD_FORMAT;
}

}  // namespace wztable
