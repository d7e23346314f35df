#include "LogOptions.h"

#include <cstdlib>

#include <CLI/CLI.hpp>

#include "ToolError.h"
#include "runtime/LogWriter.h"

void LogOptions::AddTo(CLI::App& app) {
  app.add_option_function<int>(
         "--log-level",
         [this](const int& level) {
           level_ = level;
           levelGiven_ = true;
         },
         "Level of the library's log lines to write (-1 errors, 0 life cycle, up to 7 "
         "per-record trace); without --log-file they go to standard error")
      ->type_name("N");
  app.add_option("--log-file", file_, "Append the library's log to this file (default: no log)")
      ->type_name("PATH");
}

void LogOptions::Apply() const {
  if (!file_.empty()) {
    CKoError error = g_ptrLogWriter->SetFile(file_);
    if (error.IsError())
      throw ToolError(kExitFailed, "cannot open log file " + file_ + ": " + ErrorLine(error));
    g_ptrLogWriter->SetLevel(levelGiven_ ? level_ : 0);
    return;
  }
  if (levelGiven_) {
    g_ptrLogWriter->SetStderr();
    g_ptrLogWriter->SetLevel(level_);
    return;
  }
  if (std::getenv("WZ_LOG_FILE") || std::getenv("WZ_LOG_LEVEL")) return;
  g_ptrLogWriter->SetNone();
  // Below every level the library uses, so that no line is even formatted.
  g_ptrLogWriter->SetLevel(-2);
}
