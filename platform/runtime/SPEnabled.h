// SPEnabled: marker base of objects that are handed out through shared
// pointers. It has no state and no operations besides its virtual destructor.
#pragma once

#include "runtime/WzRuntimeExport.h"

class WZRT_API SPEnabled {
 public:
  SPEnabled() = default;
  SPEnabled(const SPEnabled&) = default;
  SPEnabled& operator=(const SPEnabled&) = default;
  virtual ~SPEnabled();
};
