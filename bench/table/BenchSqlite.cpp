// The peer: the same table in SQLite, one rowid table with a unique guid
// index and a (parent, name) index, write-ahead log, synchronous=NORMAL,
// every statement its own transaction, prepared statements reused.
#include <sqlite3.h>

#include <cstring>

#include "BenchBackend.h"

namespace {

// Bytes of the record kept in the "rest" column: stat_data, refTime, flags.
constexpr size_t kRestOffset = 32;
constexpr size_t kRestSize = 181 - kRestOffset;

class SqliteBackend : public BenchBackend {
 public:
  ~SqliteBackend() override {
    if (db_) close();
  }
  const char* name() const override { return "sqlite"; }

  void create(const std::string& directory) override {
    path_ = directory + "/peer.sqlite";
    open();
    exec(
        "CREATE TABLE records(id INTEGER PRIMARY KEY, guid BLOB NOT NULL, parent BLOB NOT NULL,"
        " name BLOB NOT NULL, rest BLOB NOT NULL)");
    createIndexes();
    prepare();
  }

  void reopen() override {
    close();
    open();
    prepare();
  }

  void close() override {
    if (!db_) return;
    for (sqlite3_stmt* s : {add_, read_, children_, modify_, remove_, walk_}) sqlite3_finalize(s);
    add_ = read_ = children_ = modify_ = remove_ = walk_ = nullptr;
    exec("PRAGMA wal_checkpoint(TRUNCATE)");
    check(sqlite3_close(db_), "close");
    db_ = nullptr;
  }

  uint64_t bytesOnDisk() const override {
    return fileBytes(path_) + fileBytes(path_ + "-wal") + fileBytes(path_ + "-shm");
  }

  void add(const SGenericRecord& r) override {
    bind(add_, r);
    step(add_, SQLITE_DONE, "insert");
  }

  bool read(const uint8_t guid[16], SGenericRecord* out) override {
    sqlite3_bind_blob(read_, 1, guid, 16, SQLITE_STATIC);
    const int rc = sqlite3_step(read_);
    if (rc == SQLITE_ROW) decode(read_, out);
    sqlite3_reset(read_);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) fail(rc, "select");
    return rc == SQLITE_ROW;
  }

  uint64_t children(const uint8_t parent[16]) override {
    // The index range of one parent, in name order.
    sqlite3_bind_blob(children_, 1, parent, 16, SQLITE_STATIC);
    uint64_t count = 0;
    SGenericRecord rec;
    int rc;
    while ((rc = sqlite3_step(children_)) == SQLITE_ROW) {
      if (std::memcmp(sqlite3_column_blob(children_, 1), parent, 16) != 0) break;
      decode(children_, &rec);
      ++count;
    }
    sqlite3_reset(children_);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) fail(rc, "children");
    return count;
  }

  void modify(const SGenericRecord& r) override {
    sqlite3_bind_blob(modify_, 1, r.parent_guid, 16, SQLITE_STATIC);
    sqlite3_bind_blob(modify_, 2, r.sname, int(strnlen(r.sname, sizeof r.sname)), SQLITE_STATIC);
    sqlite3_bind_blob(modify_, 3, reinterpret_cast<const char*>(&r) + kRestOffset, int(kRestSize),
                      SQLITE_STATIC);
    sqlite3_bind_blob(modify_, 4, r.guid, 16, SQLITE_STATIC);
    step(modify_, SQLITE_DONE, "update");
    if (sqlite3_changes(db_) != 1) benchFail(name(), "modify: record missing", 0);
  }

  void remove(const uint8_t guid[16]) override {
    sqlite3_bind_blob(remove_, 1, guid, 16, SQLITE_STATIC);
    step(remove_, SQLITE_DONE, "delete");
    if (sqlite3_changes(db_) != 1) benchFail(name(), "delete: record missing", 0);
  }

  uint64_t walk() override {
    uint64_t count = 0;
    SGenericRecord rec;
    int rc;
    while ((rc = sqlite3_step(walk_)) == SQLITE_ROW) {
      decode(walk_, &rec);
      ++count;
    }
    sqlite3_reset(walk_);
    if (rc != SQLITE_DONE) fail(rc, "walk");
    return count;
  }

  void rebuild() override {
    for (sqlite3_stmt* s : {add_, read_, children_, modify_, remove_, walk_}) sqlite3_finalize(s);
    exec("DROP INDEX records_guid");
    exec("DROP INDEX records_parent");
    createIndexes();
    prepare();
  }

 private:
  void open() {
    check(sqlite3_open(path_.c_str(), &db_), "open");
    exec("PRAGMA journal_mode=WAL");
    exec("PRAGMA synchronous=NORMAL");
    // Let it cache as much as the engine's map holds in memory.
    exec("PRAGMA cache_size=-1048576");
  }

  void createIndexes() {
    exec("CREATE UNIQUE INDEX records_guid ON records(guid)");
    exec("CREATE INDEX records_parent ON records(parent, name)");
  }

  void prepare() {
    add_ = stmt("INSERT INTO records(guid, parent, name, rest) VALUES(?, ?, ?, ?)");
    read_ = stmt("SELECT guid, parent, name, rest FROM records WHERE guid = ?");
    children_ = stmt(
        "SELECT guid, parent, name, rest FROM records WHERE parent = ? ORDER BY name");
    modify_ = stmt("UPDATE records SET parent = ?, name = ?, rest = ? WHERE guid = ?");
    remove_ = stmt("DELETE FROM records WHERE guid = ?");
    walk_ = stmt("SELECT guid, parent, name, rest FROM records ORDER BY id");
  }

  void bind(sqlite3_stmt* s, const SGenericRecord& r) {
    sqlite3_bind_blob(s, 1, r.guid, 16, SQLITE_STATIC);
    sqlite3_bind_blob(s, 2, r.parent_guid, 16, SQLITE_STATIC);
    sqlite3_bind_blob(s, 3, r.sname, int(strnlen(r.sname, sizeof r.sname)), SQLITE_STATIC);
    sqlite3_bind_blob(s, 4, reinterpret_cast<const char*>(&r) + kRestOffset, int(kRestSize),
                      SQLITE_STATIC);
  }

  static void decode(sqlite3_stmt* s, SGenericRecord* out) {
    std::memset(out, 0, sizeof *out);
    std::memcpy(out->guid, sqlite3_column_blob(s, 0), 16);
    std::memcpy(out->parent_guid, sqlite3_column_blob(s, 1), 16);
    std::memcpy(out->sname, sqlite3_column_blob(s, 2), size_t(sqlite3_column_bytes(s, 2)));
    std::memcpy(reinterpret_cast<char*>(out) + kRestOffset, sqlite3_column_blob(s, 3), kRestSize);
  }

  sqlite3_stmt* stmt(const char* sql) {
    sqlite3_stmt* s = nullptr;
    check(sqlite3_prepare_v2(db_, sql, -1, &s, nullptr), sql);
    return s;
  }

  void step(sqlite3_stmt* s, int want, const char* what) {
    const int rc = sqlite3_step(s);
    sqlite3_reset(s);
    if (rc != want) fail(rc, what);
  }

  void exec(const char* sql) {
    char* error = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &error) != SQLITE_OK) {
      std::fprintf(stderr, "sqlite: %s: %s\n", sql, error ? error : "?");
      benchFail(name(), "exec", 0);
    }
  }

  void check(int rc, const char* what) {
    if (rc != SQLITE_OK) fail(rc, what);
  }

  [[noreturn]] void fail(int rc, const char* what) {
    std::fprintf(stderr, "sqlite: %s: %s\n", what, db_ ? sqlite3_errmsg(db_) : "?");
    benchFail(name(), what, rc);
  }

  std::string path_;
  sqlite3* db_ = nullptr;
  sqlite3_stmt *add_ = nullptr, *read_ = nullptr, *children_ = nullptr, *modify_ = nullptr,
               *remove_ = nullptr, *walk_ = nullptr;
};

}  // namespace

std::unique_ptr<BenchBackend> makeSqliteBackend() { return std::make_unique<SqliteBackend>(); }
