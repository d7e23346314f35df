#include "Numbers.h"

#include <CLI/CLI.hpp>

#include "ToolError.h"

uint64_t ParseCount(const std::string& text, const std::string& what, uint64_t max) {
  if (text.empty() || text.size() > 20 || text.find_first_not_of("0123456789") != std::string::npos)
    throw ToolError(kExitNotFound, what + " takes a number of 0 or more, not '" + text + "'");
  uint64_t value = 0;
  for (char c : text) {
    uint64_t digit = static_cast<uint64_t>(c - '0');
    if (value > (UINT64_MAX - digit) / 10)
      throw ToolError(kExitNotFound, what + " " + text + " is too large");
    value = value * 10 + digit;
  }
  if (value > max)
    throw ToolError(kExitNotFound, what + " " + text + " is above " + std::to_string(max));
  return value;
}

CLI::Option* AddCountOption(CLI::App* command, const std::string& name, uint64_t& value,
                            const std::string& description, bool* given, uint64_t max) {
  std::string flag = name.substr(0, name.find(','));
  return command
      ->add_option_function<std::string>(
          name,
          [&value, given, max, flag](const std::string& text) {
            try {
              value = ParseCount(text, flag, max);
            } catch (const ToolError& e) {
              throw CLI::ValidationError(e.what());
            }
            if (given) *given = true;
          },
          description)
      ->type_name("N");
}
