#include "lustre/PathLustre.h"

#include <cstdio>

namespace LustreAPI {

int path_lustre(char* buffer, int size, const char* mount, const lu_fid* fid) {
  return std::snprintf(buffer, size < 0 ? 0 : static_cast<size_t>(size), "%s/%s/fid/%#llx:0x%x:0x%x",
                       mount, ".lustre", static_cast<unsigned long long>(fid->f_seq), fid->f_oid,
                       fid->f_ver);
}

}  // namespace LustreAPI
