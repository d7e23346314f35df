// Fixture of the tree-read suites, typed over the tree record type: a fresh
// database in a temporary directory holding the records of a TreeModel `t`
// (the root stored at once, the rest by Store), and helpers that tell which
// node a record read back is.
//
// GenericRecords are built from the node's full path; LustreRecords from
// (FID, parent FID, name), the FID of node n being (0x200000400, n + 1), the
// root without a parent FID. Each keeps its own identifier in the first
// kIdBytes bytes of its image.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "support/LogAt.h"
#include "support/TempDir.h"
#include "support/TreeModel.h"

using Records = std::vector<WzScanDBRecordBasePtr>;
using Paths = std::vector<std::string>;

struct GenericRecords {
  static constexpr size_t kFlagsOffset = 180, kIdBytes = 16;
  static WzScanDBRecordBasePtr Prototype() { return boost::make_shared<WzScanDBRecord>(); }
  static WzScanDBRecordBasePtr Make(const TreeModel& t, int id) {
    return boost::make_shared<WzScanDBRecord>(t.fullPath(id), t.nodes.at(id).isDir, 0);
  }
};
struct LustreRecords {
  static constexpr size_t kFlagsOffset = 196, kIdBytes = 24;
  static WzScanDBRecordBasePtr Prototype() { return boost::make_shared<WzScanDBLustreRecord>(); }
  static LustreAPI::CLustreFIDPtr FidOf(int id) {
    return boost::make_shared<LustreAPI::CLustreFID>(0x200000400ULL, uint32_t(id + 1), 0);
  }
  static WzScanDBRecordBasePtr Make(const TreeModel& t, int id) {
    const TreeModel::Node& n = t.nodes.at(id);
    return boost::make_shared<WzScanDBLustreRecord>(FidOf(id), id ? FidOf(n.parent) : nullptr,
                                                    n.name, n.isDir, 0);
  }
};
typedef ::testing::Types<GenericRecords, LustreRecords> TreeRecordTypes;

template <class RecordType>
class TreeReadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    db = boost::make_shared<WzScanDB>(RecordType::Prototype());
    ASSERT_FALSE(db->initialize(dir.path()).IsError());
    Store();
  }
  void TearDown() override { db->close(); }

  WzScanDBRecordBasePtr Rec(int id) const { return RecordType::Make(t, id); }
  // Adds nodes `from` on to `to`, with addRecordWithoutCheck.
  void StoreInto(WzScanDB& to, int from) {
    for (int id = from; id < t.size(); ++id)
      ASSERT_FALSE(to.addRecordWithoutCheck(Rec(id)).IsError()) << id;
  }
  // Adds to the database every node made since the last call.
  void Store() {
    StoreInto(*db, stored);
    stored = t.size();
  }
  // The node a record read back describes, by its own identifier; -1: none.
  int NodeOf(const WzScanDBRecordBasePtr& record) {
    auto identity = [](const WzScanDBRecordBasePtr& r) {
      return std::string(static_cast<const char*>(r->getStructure()), RecordType::kIdBytes);
    };
    for (; indexed < t.size(); ++indexed) ids[identity(Rec(indexed))] = indexed;
    auto hit = ids.find(identity(record));
    return hit == ids.end() ? -1 : hit->second;
  }
  std::vector<int> NodesOf(const Records& records) {
    std::vector<int> nodes;
    for (const auto& record : records) nodes.push_back(NodeOf(record));
    return nodes;
  }
  // The flag byte of every record of `of`'s table, by node, from the images.
  std::map<int, int> TableFlags(WzScanDB& of) {
    std::map<int, int> flags;
    WzScanDBRecordBasePtr probe = RecordType::Prototype();
    auto* image = static_cast<unsigned char*>(probe->getStructure());
    for (int s = of.firstRecord(-1, image); s == 0; s = of.nextRecord(-1, image))
      flags[NodeOf(probe)] = image[RecordType::kFlagsOffset];
    return flags;
  }

  TempDir dir;
  WzScanDBPtr db;
  TreeModel t;
  int stored = 0, indexed = 0;
  std::map<std::string, int> ids;
};

// `err` failed with `kind` and `code` (-1: any), its top frame holding
// `message` at `line` of `function`.
inline void ExpectTop(const CKoError& err, EKoErrorKind kind, long long code,
                      const std::string& message, const std::string& function, int line) {
  ASSERT_TRUE(err.IsError()) << message;
  EXPECT_EQ(kind, err.GetKind()) << message;
  if (code >= 0) { EXPECT_EQ(code, err.GetCode()) << message; }
  const CKoErrorFrame& top = err.GetFrames().back();
  EXPECT_EQ(message, top.message);
  EXPECT_STREQ("WzScanDB/WzScanDB", top.location.file);
  EXPECT_EQ(function, top.location.function);
  EXPECT_EQ(line, top.location.line) << message;
}
