#include "lustre/CLustreFID.h"

#include <cstddef>
#include <cstdio>
#include <type_traits>

namespace LustreAPI {

static_assert(sizeof(CLustreFID) == 24, "a FID occupies 24 bytes of a record image");
static_assert(std::is_standard_layout<CLustreFID>::value, "CLustreFID must be standard-layout");
static_assert(!std::is_polymorphic<CLustreFID>::value, "CLustreFID must have no vtable");
static_assert(offsetof(lu_fid, f_oid) == 8 && offsetof(lu_fid, f_ver) == 12, "lu_fid layout");

std::string CLustreFID::toString() const {
  char text[64];
  std::snprintf(text, sizeof text, "[0x%llx:0x%x:0x%x]",
                static_cast<unsigned long long>(fid_.f_seq), fid_.f_oid, fid_.f_ver);
  return text;
}

}  // namespace LustreAPI
