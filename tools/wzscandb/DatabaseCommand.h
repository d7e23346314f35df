// What the commands that read a database share: their arguments (DBDIR,
// --type, the output mode), opening the database read-only, and finding a
// path's stored record as an image.
#pragma once

#include <string>
#include <vector>

#include "OutputMode.h"
#include "RecordImage.h"
#include "RecordTypes.h"
#include "ScanDatabase.h"

namespace CLI {
class App;
}

struct DatabaseArguments {
  std::string directory;
  RecordType type = RecordType::kGeneric;
  OutputMode output = OutputMode::kText;
};

// Adds a subcommand with DBDIR and --type (of `types`; all three by default).
CLI::App* AddDatabaseCommand(CLI::App& app, const char* name, const char* description,
                             DatabaseArguments& args,
                             const std::vector<RecordType>& types = {RecordType::kGeneric,
                                                                     RecordType::kLustre,
                                                                     RecordType::kBackupTime});

// The stored image of the entry at `path` (see ScanDatabase::FindPath).
std::vector<char> FindImage(ScanDatabase& database, const std::string& path);
// The stored image of `path`, which must be a folder (ToolError otherwise).
std::vector<char> FindFolderImage(ScanDatabase& database, const std::string& path);
