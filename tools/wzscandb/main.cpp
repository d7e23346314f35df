// wzscandb: the operator's tool for scan databases.
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "LogOptions.h"
#include "SimulatedFids.h"
#include "ToolError.h"

namespace {

const char* kFooter =
    "Exit status: 0 success; 1 validate found the tree not consistent; 2 bad arguments, "
    "missing database or path; 3 database of another record type or in use by another "
    "process; 4 an operation failed.";

// The first word of the command line that is neither an option nor an
// option's value, when it names no subcommand: CLI11 would only say that a
// subcommand is required.
std::string UnknownSubcommand(const CLI::App& app, int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    std::string word = argv[i];
    if (word == "--log-level" || word == "--log-file") {
      ++i;
      continue;
    }
    if (word.empty() || word[0] == '-') continue;
    for (const CLI::App* command : app.get_subcommands({}))
      if (command->get_name() == word) return std::string();
    return word;
  }
  return std::string();
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
  app.footer(kFooter);
  LogOptions logOptions;
  logOptions.AddTo(app);
  bool simulateFids = false;
  app.add_flag("--simulate-lustre-fids", simulateFids,
               "Stand in for the Lustre client: give every entry a FID made from its device and "
               "inode number (to try lustre databases on other file systems)");

  CommandTable table;
  AddRecordCommands(app, table);
  AddScanCommand(app, table);
  AddQueryCommands(app, table);
  AddFileCommands(app, table);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::string word = UnknownSubcommand(app, argc, argv);
    std::string message = word.empty() ? e.what() : "unknown subcommand '" + word + "'";
    std::cerr << "wzscandb: " << message << " (see wzscandb --help)" << std::endl;
    return kExitNotFound;
  }

  try {
    logOptions.Apply();
    if (simulateFids) InstallSimulatedFids();
    const CLI::App* chosen = app.get_subcommands().front();
    int status = table.at(chosen)();
    std::cout.flush();
    return status;
  } catch (const ToolError& e) {
    std::cout.flush();
    std::cerr << "wzscandb: " << e.what() << std::endl;
    return e.status();
  } catch (const std::exception& e) {
    std::cout.flush();
    std::cerr << "wzscandb: " << e.what() << std::endl;
    return kExitFailed;
  }
}
