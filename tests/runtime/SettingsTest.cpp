// The settings reader: what it finds, what it leaves untouched, and the
// warning for a malformed number.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "runtime/LogCapture.h"
#include "runtime/WZPlatformInfo.h"
#include "support/TempDir.h"

namespace {

const char kAgent[] = "~FileSystemAgent";

class SettingsTest : public ::testing::Test {
 protected:
  void SetUp() override { g_ptrLogWriter->SetNone(); }  // warnings are checked through a capture
  void TearDown() override {
    unsetenv(WZPlatformInfo::kSettingsFileVariable);
    g_ptrLogWriter->SetStderr();
  }
  void UseSettings(const std::string& text) {
    std::ofstream(dir_ / "settings.ini", std::ios::binary | std::ios::trunc) << text;
    setenv(WZPlatformInfo::kSettingsFileVariable, (dir_ / "settings.ini").c_str(), 1);
  }
  // The value read for (section, name), or "untouched" when the call fails and leaves it.
  static std::string Read(const char* section, const char* name) {
    int value = 1234;
    bool found = WZPlatformInfo::getRegInt(section, name, &value);
    return found ? std::to_string(value) : value == 1234 ? "untouched" : "changed on failure";
  }
  TempDir dir_;
};

TEST_F(SettingsTest, FindsValuesAndLeavesMissingOnesUntouched) {
  unsetenv(WZPlatformInfo::kSettingsFileVariable);
  EXPECT_EQ(Read(kAgent, "nWzScanDBPerformanceLoggingInterval"), "untouched");
  setenv(WZPlatformInfo::kSettingsFileVariable, (dir_ / "absent.ini").c_str(), 1);
  EXPECT_EQ(Read(kAgent, "x"), "untouched");

  UseSettings(
      "\xEF\xBB\xBF; agent settings\r\n"
      "[Other]\r\nnWzScanDBPerformanceLoggingInterval = 5\r\n\r\n"
      "[ ~FileSystemAgent ]\r\n"
      "# interval in seconds\r\n"
      "  nWzScanDBPerformanceLoggingInterval=  300  \r\n"
      "Negative = -17\r\n"
      "Name = \"quoted text\"\r\n"
      "not a setting line\r\n"
      "Repeated = 1\r\nRepeated = 2\r\n"
      "[Later]\nNegative = 8\n");
  const char* rows[][3] = {{kAgent, "nWzScanDBPerformanceLoggingInterval", "300"},
                           {"~filesystemagent", "NEGATIVE", "-17"},
                           {kAgent, "Repeated", "2"},
                           {"Later", "Negative", "8"},
                           {"Missing", "Negative", "untouched"},
                           {kAgent, "Missing", "untouched"},
                           {"Other", "Negative", "untouched"}};
  for (const auto& row : rows) EXPECT_EQ(Read(row[0], row[1]), row[2]) << row[0] << " " << row[1];

  std::string text = "unchanged";
  EXPECT_TRUE(WZPlatformInfo::getRegString(kAgent, "Name", &text));
  EXPECT_EQ(text, "quoted text");
  EXPECT_FALSE(WZPlatformInfo::getRegString(kAgent, "not a setting line", &text));
  EXPECT_EQ(text, "quoted text");
}

TEST_F(SettingsTest, MalformedNumberWarnsAndLeavesValue) {
  UseSettings("[~FileSystemAgent]\nWords = ten\nTrailing = 10s\nEmpty =\n"
              "TooBig = 2147483648\nBiggest = 2147483647\n");
  auto capture = CLogCapture::Install();
  for (const char* name : {"Words", "Trailing", "Empty", "TooBig"})
    EXPECT_EQ(Read(kAgent, name), "untouched") << name;
  EXPECT_EQ(Read(kAgent, "Biggest"), "2147483647");
  auto warnings = capture->Entries();
  ASSERT_EQ(warnings.size(), 4u);
  for (const auto& entry : warnings) EXPECT_EQ(entry.level, -1);
  EXPECT_EQ(warnings[0].message,
            "Setting \"Words\" in section \"~FileSystemAgent\" is not a whole number: \"ten\"");
  EXPECT_EQ(warnings[3].message,
            "Setting \"TooBig\" in section \"~FileSystemAgent\" is not a whole number: \"2147483648\"");
  capture->Remove();
}

}  // namespace
