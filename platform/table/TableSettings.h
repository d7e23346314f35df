// TableSettings: the agent settings (section ~FileSystemAgent of the settings
// file, WZPlatformInfo) that shape a table's durability. Read at every open.
#pragma once

namespace wztable {

constexpr const char* kSettingsSection = "~FileSystemAgent";
// Milliseconds between flushes of the write-ahead log: what a power loss may
// take at most. 0 flushes every write before it returns (the cautious choice,
// at a disk flush per write). Default 1000, at most 60000.
constexpr const char* kSyncIntervalSetting = "nWzScanDBSyncIntervalMs";
constexpr int kDefaultSyncIntervalMs = 1000;
// Non-zero: check every page of both files at every open, even of files that
// were closed cleanly (which otherwise get the quick check).
constexpr const char* kCheckPagesSetting = "nWzScanDBCheckPagesOnOpen";
// MiB of log after which the table files are brought up to date (a
// checkpoint). Bounds the work of a replay. Default 64.
constexpr const char* kLogLimitSetting = "nWzScanDBLogLimitMiB";
// Milliseconds a write waits for read-only openers (other processes or
// table objects) to leave the snapshot whose pages its group would reuse;
// after that the write is refused with TBL_IN_USE. Default 30000.
constexpr const char* kReaderWaitSetting = "nWzScanDBReaderWaitMs";
constexpr int kDefaultReaderWaitMs = 30000;

}  // namespace wztable
