// path_lustre: the open-by-FID path of a Lustre entry,
//   "<mount>/.lustre/fid/<seq>:<oid>:<ver>" formatted "%s/%s/fid/%#llx:0x%x:0x%x".
// Writes at most `size` bytes into `buffer`, NUL included, and returns what
// snprintf returns (the length of the full text, or a negative value).
#pragma once

#include "lustre/CLustreFID.h"
#include "lustre/LustreAPIExport.h"

namespace LustreAPI {
LUSTREAPI_API int path_lustre(char* buffer, int size, const char* mount, const lu_fid* fid);
}  // namespace LustreAPI
