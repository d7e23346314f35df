#include "Csv.h"

std::string CsvField(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (char c : text) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  quoted += '"';
  return quoted;
}

std::string CsvRecord(const std::vector<std::string>& fields) {
  std::string record;
  for (size_t i = 0; i < fields.size(); ++i) {
    if (i) record += ',';
    record += CsvField(fields[i]);
  }
  return record;
}
