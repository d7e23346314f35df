// OutputMode: how a command writes its records to standard output.
//
// kText is for people: one line per record. kNull (-0/--null) ends every
// record with a NUL byte instead of a newline, so that any name, newlines
// included, passes through `xargs -0` and friends. kJson (--json) writes one
// JSON object per line (see EntryJson.h for the fields).
//
// OutputLine writes through a large stdout buffer; the tool flushes it before
// it exits.
#pragma once

#include <cstdio>
#include <string>

namespace CLI {
class App;
}

enum class OutputMode { kText, kNull, kJson };

// Adds -0/--null and --json (mutually exclusive) to `command`.
void AddOutputOptions(CLI::App* command, OutputMode& mode);

// Gives standard output a large buffer; call once before the first line.
void UseLargeOutputBuffer();

// Writes `text` followed by "\n", or by "\0" in kNull mode.
void OutputLine(OutputMode mode, const std::string& text, FILE* out = stdout);
