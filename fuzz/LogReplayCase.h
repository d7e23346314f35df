// LogReplayCase: one case of a table opened beside a write-ahead log that
// may be damaged, foreign or out of date, and what the open must do with it.
// Shared by the libFuzzer target fuzz_log_replay and the regression test of
// the inputs it found (tests/hostile).
//
// The fixtures are real tables and logs, made once per process by the engine
// itself with a fixed history (LogReplayFixtures): table A closed after its
// first session, the log of its second session (written on top of those
// files, as a killed process leaves it), the log of a third session, table A
// closed after the third session, the log of table B, and the log of a
// second history of table A that forked from the first session.
//
// An input picks a pairing of files and log, then damages the log: records
// dropped, repeated, swapped or moved (record-level), then bytes cut off,
// zeroed (a range, or all from some point on), overwritten, flipped or
// appended (byte-level). Expected:
//   - this table's own log: the open succeeds and the table holds exactly
//     what the live session held after the first k writes, where k lies
//     between the writes wholly before the first damaged byte and the writes
//     still in their order; only a damaged header may make it refuse
//     (status 110), and a log that is empty or zero up to where its records
//     start (what a kill while the log was being made leaves) is no log;
//   - another table's log: refused with 118;
//   - a log older than the table files: nothing replayed;
//   - a log that starts after what the files hold (files older than the
//     log): refused with 110;
//   - a log of another history of the same table: refused with 110, or
//     opened into a consistent table.
// Whatever the answer: no crash, the consistency check passes after a
// successful open, a clean close removes the log and the table opens again
// with the same records; a refusal leaves the log as it was and the files
// reading as they did (read-only open).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace logreplay {

struct Verdict {
  std::string outcome;  // e.g. "replayed 12 of 40", "refused 118"
  std::string failure;  // empty when every expectation held
};

// Runs one input in a private directory under $TMPDIR (made on first use,
// with the fixtures).
Verdict RunCase(const uint8_t* data, size_t size);

// Writes a few inputs (one per pairing, undamaged) as seeds into `directory`.
void WriteSeeds(const std::string& directory);

}  // namespace logreplay
