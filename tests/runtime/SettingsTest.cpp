// The settings reader: what it finds, what it leaves untouched, and the
// warning for a malformed number.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "runtime/LogCapture.h"
#include "runtime/WZPlatformInfo.h"
#include "support/TempDir.h"

namespace {

class SettingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv(WZPlatformInfo::kSettingsFileVariable);
    g_ptrLogWriter->SetNone();  // the warnings are checked through a capture
  }
  void TearDown() override {
    unsetenv(WZPlatformInfo::kSettingsFileVariable);
    g_ptrLogWriter->SetStderr();
  }
  void UseSettings(const std::string& text) {
    path_ = dir_ / "settings.ini";
    std::ofstream(path_, std::ios::binary | std::ios::trunc) << text;
    setenv(WZPlatformInfo::kSettingsFileVariable, path_.c_str(), 1);
  }
  TempDir dir_;
  std::string path_;
};

TEST_F(SettingsTest, FindsValuesAndLeavesMissingOnesUntouched) {
  int value = 1234;
  EXPECT_FALSE(WZPlatformInfo::getRegInt("~FileSystemAgent", "nWzScanDBPerformanceLoggingInterval",
                                         &value));  // no variable
  EXPECT_EQ(value, 1234);
  setenv(WZPlatformInfo::kSettingsFileVariable, (dir_ / "absent.ini").c_str(), 1);
  EXPECT_FALSE(WZPlatformInfo::getRegInt("~FileSystemAgent", "x", &value));
  EXPECT_EQ(value, 1234);

  UseSettings(
      "\xEF\xBB\xBF; agent settings\r\n"
      "[Other]\r\n"
      "nWzScanDBPerformanceLoggingInterval = 5\r\n"
      "\r\n"
      "[ ~FileSystemAgent ]\r\n"
      "# interval in seconds\r\n"
      "  nWzScanDBPerformanceLoggingInterval=  300  \r\n"
      "Negative = -17\r\n"
      "Name = \"quoted text\"\r\n"
      "not a setting line\r\n"
      "Repeated = 1\r\n"
      "Repeated = 2\r\n"
      "[Later]\n"
      "Negative = 8\n");
  EXPECT_TRUE(WZPlatformInfo::getRegInt("~FileSystemAgent", "nWzScanDBPerformanceLoggingInterval",
                                        &value));
  EXPECT_EQ(value, 300);
  EXPECT_TRUE(WZPlatformInfo::getRegInt("~filesystemagent", "NEGATIVE", &value));
  EXPECT_EQ(value, -17);
  EXPECT_TRUE(WZPlatformInfo::getRegInt("~FileSystemAgent", "Repeated", &value));
  EXPECT_EQ(value, 2);
  EXPECT_TRUE(WZPlatformInfo::getRegInt("Later", "Negative", &value));
  EXPECT_EQ(value, 8);

  value = 77;
  EXPECT_FALSE(WZPlatformInfo::getRegInt("Missing", "Negative", &value));
  EXPECT_FALSE(WZPlatformInfo::getRegInt("~FileSystemAgent", "Missing", &value));
  EXPECT_FALSE(WZPlatformInfo::getRegInt("Other", "Negative", &value));
  EXPECT_EQ(value, 77);

  std::string text = "unchanged";
  EXPECT_TRUE(WZPlatformInfo::getRegString("~FileSystemAgent", "Name", &text));
  EXPECT_EQ(text, "quoted text");
  EXPECT_FALSE(WZPlatformInfo::getRegString("~FileSystemAgent", "not a setting line", &text));
  EXPECT_EQ(text, "quoted text");
}

TEST_F(SettingsTest, MalformedNumberWarnsAndLeavesValue) {
  UseSettings(
      "[~FileSystemAgent]\n"
      "Words = ten\n"
      "Trailing = 10s\n"
      "Empty =\n"
      "TooBig = 2147483648\n"
      "Biggest = 2147483647\n");
  auto capture = CLogCapture::Install();
  for (const char* name : {"Words", "Trailing", "Empty", "TooBig"}) {
    int value = 42;
    EXPECT_FALSE(WZPlatformInfo::getRegInt("~FileSystemAgent", name, &value)) << name;
    EXPECT_EQ(value, 42) << name;
  }
  auto warnings = capture->Entries();
  ASSERT_EQ(warnings.size(), 4u);
  for (const auto& entry : warnings) EXPECT_EQ(entry.level, -1);
  EXPECT_EQ(warnings[0].message,
            "Setting \"Words\" in section \"~FileSystemAgent\" is not a whole number: \"ten\"");
  EXPECT_EQ(warnings[3].message,
            "Setting \"TooBig\" in section \"~FileSystemAgent\" is not a whole number: "
            "\"2147483648\"");

  int value = 0;
  EXPECT_TRUE(WZPlatformInfo::getRegInt("~FileSystemAgent", "Biggest", &value));
  EXPECT_EQ(value, 2147483647);
  EXPECT_EQ(capture->Entries().size(), 4u);
  capture->Remove();
}

}  // namespace
