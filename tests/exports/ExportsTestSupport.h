// Shared helpers of the exported-function tests: a fixture that silences the
// log and captures it in memory, generic records made by the factories, a
// database opened through the exported functions, and a stale error value
// that every exported function must overwrite.
#pragma once

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "WzScanDB/WzScanDBExports.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/LogCapture.h"
#include "runtime/LogWriter.h"
#include "support/TempDir.h"

namespace exportstest {

constexpr const char* kExportsSource = "WzScanDB/WzScanDBExports";
constexpr const char* kOpenSignature =
    "void WzScanDBObjectOpen(WzScanDBPtr, CKoError&, WZIndexing::TAccessEnum)";
constexpr const char* kStaleMessage = "stale error left by the caller";

// An error the caller left in its variable: must never survive a call.
inline CKoError Stale() {
  return FXErrorUtil::ErrorErrNo(FXCodeLocation("tests/exports", "Stale()", 1), 99,
                                 "%s", kStaleMessage);
}

inline WzScanDBRecordBasePtr Generic(const std::string& path, bool isDir) {
  WzScanDBRecordPtr record;
  std::string text = path;
  CreateGlusterRecordObject(record, text, isDir, 0);
  return record;
}

class ExportsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("WZ_SETTINGS_FILE");
    g_ptrLogWriter->SetNone();
    g_ptrLogWriter->SetLevel(0);
    capture = CLogCapture::Install();
  }
  void TearDown() override {
    capture->Remove();
    g_ptrLogWriter->SetLevel(0);
  }

  // A generic database created in `directory` through the exported
  // functions, with its root folder stored.
  WzScanDBPtr OpenGeneric(const std::string& directory) {
    WzScanDBRecordPtr prototype;
    CreateGlusterEmptyRecordObject(prototype);
    WzScanDBPtr handle;
    CreateWzScanDBObject(handle, prototype);
    std::string dir = directory;
    CKoError err;
    WzScanDBObjectInitialize(handle, dir, err);
    EXPECT_TRUE(err.IsSuccess()) << err.AsString();
    WzScanDBObjectAddFolder(handle, Generic("/", true), err);
    EXPECT_TRUE(err.IsSuccess()) << err.AsString();
    return handle;
  }

  static void Add(const WzScanDBPtr& handle, const std::string& path, bool isDir) {
    CKoError err;
    if (isDir)
      WzScanDBObjectAddFolder(handle, Generic(path, true), err);
    else
      WzScanDBObjectAddFile(handle, Generic(path, false), err);
    EXPECT_TRUE(err.IsSuccess()) << path << ": " << err.AsString();
  }

  // The stored record with the key of `path`, or null.
  static WzScanDBRecordBasePtr Stored(const WzScanDBPtr& handle, const std::string& path) {
    WzScanDBRecordBasePtr probe = Generic(path, false);
    WzScanDBRecordBasePtr out = Generic("", false);
    bool found = false;
    CKoError err;
    WzScanDBObjectCheckDBRecord(handle, probe, out, found, err);
    EXPECT_TRUE(err.IsSuccess()) << err.AsString();
    return found ? out : WzScanDBRecordBasePtr();
  }

  // Names of every record in physical order, read through GetFirstRecord /
  // GetNextRecord.
  static std::vector<std::string> Names(const WzScanDBPtr& handle) {
    std::vector<std::string> names;
    WzScanDBRecordBasePtr buffer = Generic("", false);
    // Bounded, so that a read that never reaches the end fails the test
    // instead of running on.
    for (int status = GetFirstRecord(handle, -1, buffer->getStructure());
         status == 0 && names.size() < 1000;
         status = GetNextRecord(handle, -1, buffer->getStructure()))
      names.push_back(buffer->getName());
    return names;
  }

  std::shared_ptr<CLogCapture> capture;
};

}  // namespace exportstest
