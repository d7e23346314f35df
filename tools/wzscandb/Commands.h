// The subcommands of wzscandb.
//
// Each Add...Commands function adds its subcommands to the application and
// registers, for each, the function that runs it once the command line has
// been parsed. A runner returns the exit status or throws ToolError. Option
// values live in objects owned by the runners, so they outlive the parse.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "RecordTypes.h"

namespace CLI {
class App;
}

using CommandRunner = std::function<int()>;
using CommandTable = std::map<const CLI::App*, CommandRunner>;

// guid, record, fid: records and identifiers of paths, no database.
void AddRecordCommands(CLI::App& app, CommandTable& table);
// scan: records a directory tree into a database.
void AddScanCommand(CLI::App& app, CommandTable& table);
// ls, walk, path: a folder, a sub-tree, an entry.
void AddListCommands(CLI::App& app, CommandTable& table);
// touched, changed: what scans did.
void AddScanHistoryCommands(CLI::App& app, CommandTable& table);
void AddStatsCommand(CLI::App& app, CommandTable& table);
void AddCsvCommand(CLI::App& app, CommandTable& table);
// validate (alias check).
void AddValidateCommand(CLI::App& app, CommandTable& table);
void AddDuCommand(CLI::App& app, CommandTable& table);
void AddFindCommand(CLI::App& app, CommandTable& table);
// copy, move, remove, rebuild-index: database files and indexes.
void AddFileCommands(CLI::App& app, CommandTable& table);

// find(1)'s single-dash spelling of a find test (-name, -type, ...) in the
// double-dash form the parser knows; any other word as it is.
std::string FindOptionWord(const std::string& word);

// Adds --type to `command`, storing into `type`, which keeps its value when
// the option is absent; `allowed` lists the types the command accepts.
void AddTypeOption(CLI::App* command, RecordType& type, const std::vector<RecordType>& allowed);
