// TreeBuilder: trees of scan records for tests, for either tree record type,
// with an independent in-memory model of the tree to compute what the
// database should answer.
//
//   TreeBuilder<GenericRecords> tree;             // node 0 is the root folder
//   int a = tree.model().addFolder(0, "a");
//   tree.model().addFile(a, "f");
//   CKoError err = tree.store(db);                // writes every node not yet stored
//   WzScanDBRecordBasePtr rec = tree.record(a);   // a fresh record of node a
//   tree.model().breadthFirst(a);                 // expected walk order below a
//
// TreeModel knows nothing of the database: it orders children the way the
// parent-and-name index does (byte-wise on the first 56 bytes of the name,
// shorter first; names that agree on those 56 bytes keep insertion order, as
// the index's order among equal keys is the engine's business) and walks
// breadth-first, expanding folders in the order they are met.
//
// Record types:
//   GenericRecords  WzScanDBRecord built from the node's full path ("/", "/a",
//                   "/a/b"); the root is the record of "/".
//   LustreRecords   WzScanDBLustreRecord built from (FID, parent FID, name);
//                   the FIDs come from a counter (sequence kSequence, object id
//                   node id + 1), and the root has no parent FID.
// Not thread-safe.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>

#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "lustre/CLustreFID.h"

class TreeModel {
 public:
  // Bytes of the name that the parent-and-name index keys on.
  static constexpr size_t kKeyNameBytes = 56;

  struct Node {
    std::string name;
    int parent;  // -1 for the root
    bool isDir;
    std::vector<int> children;  // in insertion order
  };

  TreeModel() { nodes_.push_back(Node{std::string(), -1, true, {}}); }

  int addFolder(int parent, const std::string& name) { return add(parent, name, true); }
  int addFile(int parent, const std::string& name) { return add(parent, name, false); }

  const Node& node(int id) const { return nodes_.at(id); }
  int size() const { return static_cast<int>(nodes_.size()); }

  // Children of `folder` in the order of the parent-and-name index.
  std::vector<int> childrenInKeyOrder(int folder) const {
    std::vector<int> ordered = nodes_.at(folder).children;
    std::stable_sort(ordered.begin(), ordered.end(), [this](int a, int b) {
      return nodes_[a].name.substr(0, kKeyNameBytes) < nodes_[b].name.substr(0, kKeyNameBytes);
    });
    return ordered;
  }

  // Every node below `start` (not `start` itself), breadth-first.
  std::vector<int> breadthFirst(int start) const {
    std::vector<int> order;
    std::deque<int> folders{start};
    while (!folders.empty()) {
      const int folder = folders.front();
      folders.pop_front();
      for (int child : childrenInKeyOrder(folder)) {
        order.push_back(child);
        if (nodes_[child].isDir) folders.push_back(child);
      }
    }
    return order;
  }

  // Path of `id` relative to its ancestor `start`: "name" for a child of
  // start, "sub/name" below that.
  std::string relativePath(int start, int id) const {
    std::string path = nodes_.at(id).name;
    for (int up = nodes_.at(id).parent; up != start; up = nodes_.at(up).parent) {
      if (up < 0) return std::string();  // start is not an ancestor
      path = nodes_[up].name + "/" + path;
    }
    return path;
  }

  // Absolute path: "/" for the root, "/a", "/a/b" below it.
  std::string fullPath(int id) const {
    if (id == 0) return "/";
    const int parent = nodes_.at(id).parent;
    return (parent == 0 ? std::string() : fullPath(parent)) + "/" + nodes_[id].name;
  }

  // Shapes ------------------------------------------------------------------

  // `count` children of `parent` named prefix + zero-padded number; every
  // `folderEvery`-th one (0: none) is a folder. Returns the new ids.
  std::vector<int> addFlat(int parent, int count, const std::string& prefix, int folderEvery) {
    std::vector<int> ids;
    ids.reserve(count);
    char digits[16];
    for (int i = 0; i < count; ++i) {
      snprintf(digits, sizeof(digits), "%06d", i);
      const bool dir = folderEvery > 0 && i % folderEvery == 0;
      ids.push_back(add(parent, prefix + digits, dir));
    }
    return ids;
  }

  // A chain of `depth` nested folders below `parent`; returns the deepest.
  int addChain(int parent, int depth, const std::string& prefix) {
    int current = parent;
    for (int i = 0; i < depth; ++i) current = addFolder(current, prefix + std::to_string(i));
    return current;
  }

  // A random tree of about `count` entries below `parent`: fan-out up to
  // `maxFanOut`, names of 1 to 80 bytes drawn from letters, digits, '.', '-'
  // and bytes above 0x7f (to catch signed comparisons), unique in the tree.
  void addRandom(int parent, int count, int maxFanOut, uint32_t seed) {
    uint32_t state = seed ? seed : 1;
    auto next = [&state]() {
      state ^= state << 13;
      state ^= state >> 17;
      state ^= state << 5;
      return state;
    };
    static const char kAlphabet[] =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-\xc3\xa9\xe2\x82\xac";
    const size_t alphabetSize = sizeof(kAlphabet) - 1;
    std::deque<int> folders{parent};
    int made = 0;
    while (made < count && !folders.empty()) {
      const int folder = folders.front();
      folders.pop_front();
      const int fanOut = 1 + static_cast<int>(next() % maxFanOut);
      for (int i = 0; i < fanOut && made < count; ++i, ++made) {
        std::string name;
        const size_t length = 1 + next() % 80;
        for (size_t k = 0; k < length; ++k) name += kAlphabet[next() % alphabetSize];
        name += "~" + std::to_string(made);  // unique in the whole tree
        const bool dir = next() % 3 == 0;
        const int id = add(folder, name, dir);
        if (dir) folders.push_back(id);
      }
      if (folders.empty()) folders.push_back(parent);  // keep growing until count
    }
  }

 private:
  int add(int parent, const std::string& name, bool isDir) {
    const int id = static_cast<int>(nodes_.size());
    nodes_.push_back(Node{name, parent, isDir, {}});
    nodes_.at(parent).children.push_back(id);
    return id;
  }

  std::vector<Node> nodes_;
};

// Generic records: identity from the full path.
struct GenericRecords {
  static constexpr const char* kName = "Generic";
  // Offset of the flag byte in the record image.
  static constexpr size_t kFlagsOffset = 180;

  static WzScanDBRecordBasePtr Prototype() { return boost::make_shared<WzScanDBRecord>(); }

  // Text of the record's own identifier; empty for another record type.
  static std::string Identity(const WzScanDBRecordBasePtr& record) {
    boost::shared_ptr<WzScanDBRecord> typed = boost::dynamic_pointer_cast<WzScanDBRecord>(record);
    return typed ? typed->getGUID().toString() : std::string();
  }

  WzScanDBRecordBasePtr make(const TreeModel& model, int id, unsigned long long refTime) const {
    return boost::make_shared<WzScanDBRecord>(model.fullPath(id), model.node(id).isDir, refTime);
  }
};

// Lustre records: identity from a counter-allocated FID per node.
struct LustreRecords {
  static constexpr const char* kName = "Lustre";
  static constexpr size_t kFlagsOffset = 196;
  static constexpr uint64_t kSequence = 0x200000400ULL;

  static WzScanDBRecordBasePtr Prototype() { return boost::make_shared<WzScanDBLustreRecord>(); }

  static std::string Identity(const WzScanDBRecordBasePtr& record) {
    boost::shared_ptr<WzScanDBLustreRecord> typed =
        boost::dynamic_pointer_cast<WzScanDBLustreRecord>(record);
    return typed ? typed->getFID().toString() : std::string();
  }

  static LustreAPI::CLustreFIDPtr FidOf(int id) {
    return boost::make_shared<LustreAPI::CLustreFID>(kSequence, static_cast<uint32_t>(id + 1), 0);
  }

  WzScanDBRecordBasePtr make(const TreeModel& model, int id, unsigned long long refTime) const {
    const TreeModel::Node& node = model.node(id);
    LustreAPI::CLustreFIDPtr parent = node.parent < 0 ? LustreAPI::CLustreFIDPtr()
                                                      : FidOf(node.parent);
    return boost::make_shared<WzScanDBLustreRecord>(FidOf(id), parent, node.name, node.isDir,
                                                    refTime);
  }
};

template <class RecordType>
class TreeBuilder {
 public:
  TreeModel& model() { return model_; }
  const TreeModel& model() const { return model_; }

  // A fresh record describing node `id` (not read from any table).
  WzScanDBRecordBasePtr record(int id, unsigned long long refTime = 0) const {
    return type_.make(model_, id, refTime);
  }

  // The node that a record (typically one read from the table) describes,
  // by its own identifier; -1 when it is no node of the model.
  int nodeOf(const WzScanDBRecordBasePtr& found) const {
    for (; indexed_ < model_.size(); ++indexed_) {
      identities_[RecordType::Identity(record(indexed_))] = indexed_;
    }
    auto hit = identities_.find(RecordType::Identity(found));
    return hit == identities_.end() ? -1 : hit->second;
  }

  // nodeOf for every record of a list.
  std::vector<int> nodesOf(const std::vector<WzScanDBRecordBasePtr>& records) const {
    std::vector<int> ids;
    ids.reserve(records.size());
    for (const WzScanDBRecordBasePtr& each : records) ids.push_back(nodeOf(each));
    return ids;
  }

  // Adds every node created since the last store, in creation order, with
  // addRecordWithoutCheck. Stops at the first error.
  CKoError store(WzScanDB& db, unsigned long long refTime = 0) {
    for (; stored_ < model_.size(); ++stored_) {
      CKoError err = db.addRecordWithoutCheck(record(stored_, refTime));
      if (err.IsError()) return err;
    }
    return CKoError();
  }

 private:
  TreeModel model_;
  RecordType type_;
  int stored_ = 0;
  mutable int indexed_ = 0;
  mutable std::map<std::string, int> identities_;
};
