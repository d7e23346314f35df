// ToolError: the failure a wzscandb subcommand reports to its user.
//
// Subcommands throw a ToolError carrying the process exit status and one line
// of text; main() prints "wzscandb: <text>" on standard error and exits with
// the status. ErrorLine() folds a library CKoError (a stack of frames over
// several lines) into that one line.
#pragma once

#include <stdexcept>
#include <string>

#include "runtime/CKoError.h"

// Exit statuses of the tool.
enum ExitStatus : int {
  kExitOk = 0,
  kExitInconsistent = 1,  // validate: the tree is not consistent
  kExitNotFound = 2,      // bad arguments; missing database, path or directory; occupied destination
  kExitRefused = 3,       // database of another record type, or in use by another process
  kExitFailed = 4,        // the library or the system failed an operation
  kExitPartial = 5,       // scan: some entries could not be read (listed; their records kept)
};

// The exit statuses as the main help lists them.
extern const char* const kExitStatusText;

class ToolError : public std::runtime_error {
 public:
  ToolError(int status, const std::string& message)
      : std::runtime_error(message), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

// The messages of `error`'s frames, most recent first, joined with ": ", and
// the code with its text in brackets. Line breaks inside messages are dropped.
std::string ErrorLine(const CKoError& error);

// Throws ToolError(kExitFailed, what + ": " + ErrorLine(error)) when `error`
// is an error; nothing on success.
void ThrowIfError(const CKoError& error, const std::string& what);
