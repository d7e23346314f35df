// Numbers on the command line: decimal digits only, so that "-5" or "12abc"
// is refused with a message instead of being wrapped or cut.
#pragma once

#include <cstdint>
#include <string>

namespace CLI {
class App;
class Option;
}  // namespace CLI

// Parses `text` as a decimal number of at most `max`; throws ToolError
// (kExitNotFound) naming `what` when it is not one.
uint64_t ParseCount(const std::string& text, const std::string& what, uint64_t max = UINT64_MAX);

// Adds option `name` taking such a number into `value`; `given` becomes true
// when the option appears. The check runs during parsing, so a bad value is a
// usage error like any other.
CLI::Option* AddCountOption(CLI::App* command, const std::string& name, uint64_t& value,
                            const std::string& description, bool* given = nullptr,
                            uint64_t max = UINT64_MAX);
