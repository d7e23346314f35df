// wzscandb: the operator's tool for scan databases.
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "LogOptions.h"
#include "OutputMode.h"
#include "SimulatedFids.h"
#include "Suggest.h"
#include "ToolError.h"

namespace {

// Global options that take a value.
bool TakesValue(const std::string& word) { return word == "--log-level" || word == "--log-file"; }

// Index of the first word of the command line that is neither an option nor
// an option's value (the subcommand's place), or argc.
int SubcommandIndex(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    std::string word = argv[i];
    if (TakesValue(word)) {
      ++i;
      continue;
    }
    if (!word.empty() && word[0] != '-') return i;
  }
  return argc;
}

std::vector<std::string> SubcommandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands({})) {
    names.push_back(command->get_name());
    for (const std::string& alias : command->get_aliases()) names.push_back(alias);
  }
  return names;
}

// The word in the subcommand's place when it names no subcommand: CLI11
// would only say that a subcommand is required.
std::string UnknownSubcommand(const CLI::App& app, int argc, char** argv) {
  int index = SubcommandIndex(argc, argv);
  if (index == argc) return std::string();
  std::string word = argv[index];
  for (const std::string& name : SubcommandNames(app))
    if (name == word) return std::string();
  return word;
}

}  // namespace

void AddTypeOption(CLI::App* command, RecordType& type, const std::vector<RecordType>& allowed) {
  std::vector<std::string> names;
  std::string list;
  for (RecordType each : allowed) {
    names.push_back(RecordTypeName(each));
    list += (list.empty() ? "" : "|") + names.back();
  }
  command
      ->add_option_function<std::string>(
          "--type",
          [&type, allowed](const std::string& name) {
            for (RecordType each : allowed)
              if (name == RecordTypeName(each)) type = each;
          },
          "Record type of the database: " + list + " (default " + RecordTypeName(type) + ")")
      ->check(CLI::IsMember(names))
      ->type_name("TYPE");
}

int main(int argc, char** argv) {
  CLI::App app{"wzscandb: build scan databases from directory trees and look into them"};
  app.require_subcommand(1, 1);
  app.fallthrough();
  app.set_version_flag("--version", std::string("wzscandb ") + WZ_VERSION);
  LogOptions logOptions;
  logOptions.AddTo(app);
  bool simulateFids = false;
  app.add_flag("--simulate-lustre-fids", simulateFids,
               "Stand in for the Lustre client: give every entry a FID made from its device and "
               "inode number (to try lustre databases on other file systems)");

  CommandTable table;
  AddScanCommand(app, table);
  AddListCommands(app, table);
  AddFindCommand(app, table);
  AddDuCommand(app, table);
  AddScanHistoryCommands(app, table);
  AddStatsCommand(app, table);
  AddCsvCommand(app, table);
  AddValidateCommand(app, table);
  AddFileCommands(app, table);
  AddRecordCommands(app, table);
  // Set last: subcommands made before it would repeat it in their help.
  app.footer(kExitStatusText);

  // find(1)'s single-dash tests, as the parser knows them.
  std::vector<std::string> words(argv, argv + argc);
  int subcommand = SubcommandIndex(argc, argv);
  if (subcommand < argc && words[subcommand] == "find")
    for (int i = subcommand + 1; i < argc; ++i) words[i] = FindOptionWord(words[i]);
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());

  try {
    app.parse(argc, pointers.data());
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::string word = UnknownSubcommand(app, argc, argv);
    std::string message = e.what();
    if (!word.empty()) {
      message = "unknown subcommand '" + word + "'";
      std::string closest = ClosestWord(word, SubcommandNames(app));
      if (!closest.empty()) message += "; did you mean '" + closest + "'?";
    }
    std::cerr << "wzscandb: " << message << " (see wzscandb --help)" << std::endl;
    return kExitNotFound;
  }

  UseLargeOutputBuffer();
  int status = kExitFailed;
  try {
    logOptions.Apply();
    if (simulateFids) InstallSimulatedFids();
    const CLI::App* chosen = app.get_subcommands().front();
    status = table.at(chosen)();
  } catch (const ToolError& e) {
    std::fflush(stdout);
    std::cerr << "wzscandb: " << e.what() << std::endl;
    status = e.status();
  } catch (const std::exception& e) {
    std::fflush(stdout);
    std::cerr << "wzscandb: " << e.what() << std::endl;
    status = kExitFailed;
  }
  if (std::fflush(stdout) != 0 && status == kExitOk) {
    std::cerr << "wzscandb: cannot write to standard output" << std::endl;
    status = kExitFailed;
  }
  return status;
}
