// The floor: the same table done directly on LMDB, in one environment with
// the engine's flags, one write transaction per operation, three
// sub-databases (records by number, unique guid index, sorted-duplicate
// parent+name index), and a reused read transaction for reads.
#include <lmdb.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "BenchBackend.h"

namespace {

constexpr size_t kFixedPart = 181;

class LmdbBackend : public BenchBackend {
 public:
  ~LmdbBackend() override {
    if (env_) close();
  }
  const char* name() const override { return "lmdb"; }

  void create(const std::string& directory) override {
    path_ = directory + "/plain.lmdb";
    open(true);
  }

  void reopen() override {
    close();
    open(false);
  }

  void close() override {
    if (!env_) return;
    if (reader_) mdb_txn_abort(reader_);
    reader_ = nullptr;
    check(mdb_env_sync(env_, 1), "sync");
    MDB_envinfo info;
    MDB_stat st;
    check(mdb_env_info(env_, &info), "info");
    check(mdb_env_stat(env_, &st), "stat");
    usedBytes_ = (info.me_last_pgno + 1) * uint64_t(st.ms_psize);
    mdb_env_close(env_);
    env_ = nullptr;
  }

  // The file is sparse at the map size; count the pages in use, which is
  // what the engine's files are cut back to when it closes them.
  uint64_t bytesOnDisk() const override { return usedBytes_; }

  void add(const SGenericRecord& r) override {
    MDB_txn* txn = begin();
    const uint64_t recno = ++lastRecno_;
    MDB_val gk{16, const_cast<uint8_t*>(r.guid)}, rv{sizeof recno, const_cast<uint64_t*>(&recno)};
    check(mdb_put(txn, guid_, &gk, &rv, MDB_NOOVERWRITE), "put guid");
    putRecord(txn, recno, r, MDB_APPEND);
    putParent(txn, r, recno);
    check(mdb_txn_commit(txn), "commit add");
  }

  bool read(const uint8_t guid[16], SGenericRecord* out) override {
    MDB_txn* txn = reader();
    uint64_t recno;
    const bool found = lookup(txn, guid, &recno) && getRecord(txn, recno, out);
    mdb_txn_reset(txn);
    return found;
  }

  uint64_t children(const uint8_t parent[16]) override {
    MDB_txn* txn = reader();
    MDB_cursor* cur;
    check(mdb_cursor_open(txn, parent_, &cur), "cursor");
    uint8_t probe[72] = {};
    std::memcpy(probe, parent, 16);
    MDB_val k{trimmed(probe, 72), probe}, v;
    uint64_t count = 0;
    SGenericRecord rec;
    int rc = mdb_cursor_get(cur, &k, &v, MDB_SET_RANGE);
    while (rc == 0 && k.mv_size >= 16 && std::memcmp(k.mv_data, parent, 16) == 0) {
      uint64_t recno;
      std::memcpy(&recno, v.mv_data, 8);
      if (!getRecord(txn, recno, &rec)) benchFail(name(), "children: dangling entry", 0);
      ++count;
      rc = mdb_cursor_get(cur, &k, &v, MDB_NEXT);
    }
    mdb_cursor_close(cur);
    mdb_txn_reset(txn);
    return count;
  }

  void modify(const SGenericRecord& r) override {
    MDB_txn* txn = begin();
    uint64_t recno;
    SGenericRecord old;
    if (!lookup(txn, r.guid, &recno) || !getRecord(txn, recno, &old))
      benchFail(name(), "modify: record missing", 0);
    putRecord(txn, recno, r, 0);
    uint8_t oldKey[72], newKey[72];
    const size_t oldLen = parentKey(old, oldKey), newLen = parentKey(r, newKey);
    if (oldLen != newLen || std::memcmp(oldKey, newKey, oldLen) != 0) {
      delParent(txn, oldKey, oldLen, recno);
      putParent(txn, r, recno);
    }
    check(mdb_txn_commit(txn), "commit modify");
  }

  void remove(const uint8_t guid[16]) override {
    MDB_txn* txn = begin();
    uint64_t recno;
    SGenericRecord old;
    if (!lookup(txn, guid, &recno) || !getRecord(txn, recno, &old))
      benchFail(name(), "delete: record missing", 0);
    MDB_val gk{16, const_cast<uint8_t*>(guid)}, rk{8, &recno};
    check(mdb_del(txn, guid_, &gk, nullptr), "del guid");
    check(mdb_del(txn, records_, &rk, nullptr), "del record");
    uint8_t key[72];
    delParent(txn, key, parentKey(old, key), recno);
    check(mdb_txn_commit(txn), "commit delete");
  }

  uint64_t walk() override {
    MDB_txn* txn = reader();
    MDB_cursor* cur;
    check(mdb_cursor_open(txn, records_, &cur), "cursor");
    MDB_val k, v;
    uint64_t count = 0;
    SGenericRecord rec;
    for (int rc = mdb_cursor_get(cur, &k, &v, MDB_FIRST); rc == 0;
         rc = mdb_cursor_get(cur, &k, &v, MDB_NEXT)) {
      decode(v, &rec);
      ++count;
    }
    mdb_cursor_close(cur);
    mdb_txn_reset(txn);
    return count;
  }

  // Empties both indexes and bulk-loads them from the records: keys sorted,
  // then appended in order, in one transaction.
  void rebuild() override {
    MDB_txn* txn = begin();
    check(mdb_drop(txn, guid_, 0), "drop guid");
    check(mdb_drop(txn, parent_, 0), "drop parent");
    struct GuidEntry {
      uint8_t key[16];
      uint64_t recno;
    };
    struct ParentEntry {
      uint8_t key[72];
      uint32_t length;
      uint64_t recno;
    };
    std::vector<GuidEntry> guids;
    std::vector<ParentEntry> parents;
    MDB_stat st;
    check(mdb_stat(txn, records_, &st), "stat");
    guids.reserve(st.ms_entries);
    parents.reserve(st.ms_entries);
    MDB_cursor* cur;
    check(mdb_cursor_open(txn, records_, &cur), "cursor");
    MDB_val k, v;
    SGenericRecord rec;
    for (int rc = mdb_cursor_get(cur, &k, &v, MDB_FIRST); rc == 0;
         rc = mdb_cursor_get(cur, &k, &v, MDB_NEXT)) {
      uint64_t recno;
      std::memcpy(&recno, k.mv_data, 8);
      decode(v, &rec);
      guids.push_back(GuidEntry{{}, recno});
      std::memcpy(guids.back().key, rec.guid, 16);
      parents.push_back(ParentEntry{{}, 0, recno});
      parents.back().length = uint32_t(parentKey(rec, parents.back().key));
    }
    mdb_cursor_close(cur);
    std::sort(guids.begin(), guids.end(), [](const GuidEntry& a, const GuidEntry& b) {
      return std::memcmp(a.key, b.key, 16) < 0;
    });
    // LMDB's default order: bytes, then the shorter key first; duplicates by number.
    std::sort(parents.begin(), parents.end(), [](const ParentEntry& a, const ParentEntry& b) {
      const int c = std::memcmp(a.key, b.key, std::min(a.length, b.length));
      if (c != 0) return c < 0;
      if (a.length != b.length) return a.length < b.length;
      return a.recno < b.recno;
    });
    for (auto& e : guids) {
      MDB_val gk{16, e.key}, rv{8, &e.recno};
      check(mdb_put(txn, guid_, &gk, &rv, MDB_APPEND), "append guid");
    }
    for (auto& e : parents) {
      MDB_val pk{e.length, e.key}, rv{8, &e.recno};
      check(mdb_put(txn, parent_, &pk, &rv, MDB_APPENDDUP), "append parent");
    }
    check(mdb_txn_commit(txn), "commit rebuild");
  }

 private:
  void open(bool fresh) {
    check(mdb_env_create(&env_), "env");
    check(mdb_env_set_maxdbs(env_, 4), "maxdbs");
    check(mdb_env_set_mapsize(env_, size_t(64) << 30), "mapsize");
    check(mdb_env_open(env_, path_.c_str(),
                       MDB_NOSUBDIR | MDB_NOLOCK | MDB_NORDAHEAD | MDB_WRITEMAP | MDB_NOSYNC |
                           MDB_NOMETASYNC,
                       0600),
          "open");
    MDB_txn* txn = begin();
    const unsigned c = fresh ? MDB_CREATE : 0;
    check(mdb_dbi_open(txn, "records", c | MDB_INTEGERKEY, &records_), "records");
    check(mdb_dbi_open(txn, "guid", c, &guid_), "guid");
    check(mdb_dbi_open(txn, "parent", c | MDB_DUPSORT | MDB_DUPFIXED | MDB_INTEGERDUP, &parent_),
          "parent");
    MDB_cursor* cur;
    check(mdb_cursor_open(txn, records_, &cur), "cursor");
    MDB_val k, v;
    lastRecno_ = 0;
    if (mdb_cursor_get(cur, &k, &v, MDB_LAST) == 0) std::memcpy(&lastRecno_, k.mv_data, 8);
    mdb_cursor_close(cur);
    check(mdb_txn_commit(txn), "commit open");
  }

  MDB_txn* begin() {
    MDB_txn* txn;
    check(mdb_txn_begin(env_, nullptr, 0, &txn), "begin");
    return txn;
  }

  MDB_txn* reader() {
    if (!reader_)
      check(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &reader_), "begin read");
    else
      check(mdb_txn_renew(reader_), "renew");
    return reader_;
  }

  bool lookup(MDB_txn* txn, const uint8_t guid[16], uint64_t* recno) {
    MDB_val k{16, const_cast<uint8_t*>(guid)}, v;
    const int rc = mdb_get(txn, guid_, &k, &v);
    if (rc == MDB_NOTFOUND) return false;
    check(rc, "get guid");
    std::memcpy(recno, v.mv_data, 8);
    return true;
  }

  bool getRecord(MDB_txn* txn, uint64_t recno, SGenericRecord* out) {
    MDB_val k{8, &recno}, v;
    const int rc = mdb_get(txn, records_, &k, &v);
    if (rc == MDB_NOTFOUND) return false;
    check(rc, "get record");
    decode(v, out);
    return true;
  }

  static void decode(const MDB_val& v, SGenericRecord* out) {
    std::memcpy(out, v.mv_data, v.mv_size);
    std::memset(reinterpret_cast<char*>(out) + v.mv_size, 0, sizeof *out - v.mv_size);
  }

  // Fixed part plus the name part without its trailing zeros, as the engine
  // stores a variable-length record.
  void putRecord(MDB_txn* txn, uint64_t recno, const SGenericRecord& r, unsigned flags) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(&r);
    size_t size = sizeof r;
    while (size > kFixedPart && bytes[size - 1] == 0) --size;
    MDB_val k{8, &recno}, v{size, const_cast<uint8_t*>(bytes)};
    check(mdb_put(txn, records_, &k, &v, flags), "put record");
  }

  static size_t trimmed(const uint8_t* key, size_t len) {
    while (len > 0 && key[len - 1] == 0) --len;
    return len;
  }

  // parent guid + first 56 name bytes, trailing zeros dropped.
  static size_t parentKey(const SGenericRecord& r, uint8_t out[72]) {
    std::memcpy(out, r.parent_guid, 16);
    std::memcpy(out + 16, r.sname, 56);
    return std::max<size_t>(trimmed(out, 72), 1);
  }

  void putParent(MDB_txn* txn, const SGenericRecord& r, uint64_t recno) {
    uint8_t key[72];
    MDB_val k{parentKey(r, key), key}, v{8, &recno};
    check(mdb_put(txn, parent_, &k, &v, 0), "put parent");
  }

  void delParent(MDB_txn* txn, uint8_t* key, size_t len, uint64_t recno) {
    MDB_val k{len, key}, v{8, &recno};
    check(mdb_del(txn, parent_, &k, &v), "del parent");
  }

  void check(int rc, const char* what) {
    if (rc != 0) {
      std::fprintf(stderr, "lmdb: %s: %s\n", what, mdb_strerror(rc));
      benchFail(name(), what, rc);
    }
  }

  std::string path_;
  MDB_env* env_ = nullptr;
  MDB_txn* reader_ = nullptr;
  MDB_dbi records_ = 0, guid_ = 0, parent_ = 0;
  uint64_t lastRecno_ = 0;
  uint64_t usedBytes_ = 0;
};

}  // namespace

std::unique_ptr<BenchBackend> makeLmdbBackend() { return std::make_unique<LmdbBackend>(); }
