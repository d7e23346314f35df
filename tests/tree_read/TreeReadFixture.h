// Fixture of the tree-read suites: a fresh database of one record type in a
// temporary directory, a TreeBuilder whose root is already stored, and
// helpers that read the table back.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "WzScanDB/WzScanDB.h"
#include "runtime/CKoError.h"
#include "support/LogAt.h"
#include "support/TempDir.h"
#include "support/TreeBuilder.h"

template <class RecordType>
class TreeReadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    db = boost::make_shared<WzScanDB>(RecordType::Prototype());
    CKoError err = db->initialize(dir.path());
    ASSERT_FALSE(err.IsError()) << err.AsString();
    Store();
  }
  void TearDown() override { db->close(); }

  void Store() {
    CKoError err = tree.store(*db);
    ASSERT_FALSE(err.IsError()) << err.AsString();
  }

  // The flag byte of every record of the table, by node id, read straight
  // from the record images.
  std::map<int, int> TableFlags() {
    std::map<int, int> flags;
    WzScanDBRecordBasePtr probe = RecordType::Prototype();
    auto* image = static_cast<unsigned char*>(probe->getStructure());
    for (int status = db->firstRecord(-1, image); status == 0;
         status = db->nextRecord(-1, image)) {
      probe->setStructure(image);
      flags[tree.nodeOf(probe)] = image[RecordType::kFlagsOffset];
    }
    return flags;
  }

  // Sets the visited bit of every stored node through updateDBRecord.
  void MarkAllVisited() {
    for (int id = 0; id < tree.model().size(); ++id) {
      WzScanDBRecordBasePtr rec = tree.record(id);
      rec->setFlags(rec->getFlags() | kRecordFlagVisited);
      CKoError err = db->updateDBRecord(rec);
      ASSERT_FALSE(err.IsError()) << err.AsString();
    }
  }

  std::vector<std::string> RelativePaths(int start, const std::vector<int>& ids) const {
    std::vector<std::string> paths;
    for (int id : ids) paths.push_back(tree.model().relativePath(start, id));
    return paths;
  }

  TempDir dir;
  WzScanDBPtr db;
  TreeBuilder<RecordType> tree;
};

typedef ::testing::Types<GenericRecords, LustreRecords> TreeRecordTypes;

// The frame where an error was made, and the frame pushed last.
inline const CKoErrorFrame& Origin(const CKoError& err) { return err.GetFrames().front(); }
inline const CKoErrorFrame& Top(const CKoError& err) { return err.GetFrames().back(); }

// Checks the text, function and line of one frame.
inline void ExpectFrame(const CKoErrorFrame& frame, const std::string& message,
                        const std::string& function, int line) {
  EXPECT_EQ(message, frame.message);
  EXPECT_STREQ("WzScanDB/WzScanDB", frame.location.file);
  EXPECT_EQ(function, std::string(frame.location.function));
  EXPECT_EQ(line, frame.location.line) << message;
}

