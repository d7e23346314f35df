// Shared helpers of the exported-function tests: a fixture that silences the
// log and captures it, generic records made by the factories, a database
// opened through the exported functions, and a stale error value that every
// exported function must overwrite.
#pragma once

#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "WzScanDB/WzScanDBExports.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/LogCapture.h"
#include "runtime/LogWriter.h"
#include "support/TempDir.h"
#include "support/LogAt.h"

namespace exportstest {

constexpr const char* kStaleMessage = "stale error left by the caller";

// An error the caller left in its variable: must never survive a call.
inline CKoError Stale() {
  return FXErrorUtil::ErrorErrNo(FXCodeLocation("tests/exports", "Stale()", 1), 99, "%s",
                                 kStaleMessage);
}

// Calls an exported function whose last argument is the error, starting from
// a stale error.
template <class Fn, class... Args>
CKoError Call(Fn fn, Args&&... args) {
  CKoError err = Stale();
  fn(std::forward<Args>(args)..., err);
  return err;
}

#define EXPECT_OK(err) EXPECT_TRUE((err).IsSuccess()) << (err).AsString()

inline WzScanDBRecordBasePtr Generic(const std::string& path, bool isDir = false) {
  WzScanDBRecordPtr record;
  std::string text = path;
  CreateGlusterRecordObject(record, text, isDir, 0);
  return record;
}

inline WzScanDBPtr NewHandle() {
  WzScanDBRecordPtr prototype;
  CreateGlusterEmptyRecordObject(prototype);
  WzScanDBPtr handle;
  CreateWzScanDBObject(handle, prototype);
  return handle;
}

class ExportsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    capture = InstallQuietCapture(0);
  }
  void TearDown() override {
    capture->Remove();
    g_ptrLogWriter->SetLevel(0);
  }

  // A generic database opened in `directory` through the exported functions,
  // holding the root folder and then `paths` (folders end in '/').
  static WzScanDBPtr OpenGeneric(const std::string& directory,
                                 const std::vector<std::string>& paths = {}) {
    WzScanDBPtr handle = NewHandle();
    std::string dir = directory;
    CKoError err;
    WzScanDBObjectInitialize(handle, dir, err);
    EXPECT_TRUE(err.IsSuccess()) << err.AsString();
    WzScanDBObjectAddFolder(handle, Generic("/", true), err);
    for (std::string path : paths) {
      if (path.size() > 1 && path.back() == '/') {
        path.pop_back();
        WzScanDBObjectAddFolder(handle, Generic(path, true), err);
      } else {
        WzScanDBObjectAddFile(handle, Generic(path), err);
      }
      EXPECT_TRUE(err.IsSuccess()) << path << ": " << err.AsString();
    }
    return handle;
  }

  // The stored record with the key of `path`, or null.
  static WzScanDBRecordBasePtr Stored(const WzScanDBPtr& handle, const std::string& path) {
    WzScanDBRecordBasePtr out = Generic("");
    bool found = false;
    CKoError err;
    WzScanDBObjectCheckDBRecord(handle, Generic(path), out, found, err);
    EXPECT_TRUE(err.IsSuccess()) << err.AsString();
    return found ? out : WzScanDBRecordBasePtr();
  }

  // Names of the records read through GetFirstRecord / GetNextRecord on
  // `index`; bounded, so that a read that never ends fails the test.
  static std::vector<std::string> Names(const WzScanDBPtr& handle, int index = -1) {
    std::vector<std::string> names;
    WzScanDBRecordBasePtr buffer = Generic("");
    for (int status = GetFirstRecord(handle, index, buffer->getStructure());
         status == 0 && names.size() < 1000;
         status = GetNextRecord(handle, index, buffer->getStructure()))
      names.push_back(buffer->getName());
    return names;
  }

  std::shared_ptr<CLogCapture> capture;
};

}  // namespace exportstest
