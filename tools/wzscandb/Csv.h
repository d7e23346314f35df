// CSV fields as RFC 4180 writes them: a field that holds a comma, a double
// quote, a carriage return or a line feed is put in double quotes, with its
// double quotes doubled; records end in CRLF. Bytes are passed as they are.
#pragma once

#include <string>
#include <vector>

std::string CsvField(const std::string& text);
// The fields joined by commas, without the record's line ending.
std::string CsvRecord(const std::vector<std::string>& fields);
