// WzException: the runtime's exception type. Thrown only where a runtime
// function cannot report through a CKoError (Wzc::getRand).
#pragma once

#include <stdexcept>
#include <string>

#include "runtime/WzRuntimeExport.h"

class WZRT_API WzException : public std::runtime_error {
 public:
  explicit WzException(const std::string& message) : std::runtime_error(message) {}
  const char* GetMessage() const noexcept { return what(); }
};
