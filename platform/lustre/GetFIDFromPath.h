// LustreAPI::GetFIDFromPath: the FID of a file-system entry, from the Lustre
// client.
//
// The entry is opened read-only and non-blocking without following a final
// symbolic link, and the Lustre client is asked for its FID with the
// path-to-FID ioctl (LL_IOC_PATH2FID, _IOR('f', 173, long)). Returns 0 and
// sets `fid`'s sequence, object id and version on success; otherwise a
// negative errno and `fid` untouched: -ENOENT for a missing path, -ENOTTY for
// an entry on a file system that is not Lustre, -ELOOP for a symbolic link.
//
// Tests and tools that have no Lustre mount install a resolver that stands in
// for the open and the ioctl:
//   LustreAPI::SetFIDResolver([](const std::string& path, LustreAPI::lu_fid& fid) {
//     ...; return 0;   // or a negative errno
//   });
//   ...
//   LustreAPI::ResetFIDResolver();   // back to the Lustre client
// While a resolver is installed every lookup of the process goes to it. All
// three functions are thread-safe; a resolver may be called from any thread.
#pragma once

#include <functional>
#include <string>

#include "lustre/CLustreFID.h"
#include "lustre/LustreAPIExport.h"

namespace LustreAPI {

typedef std::function<int(const std::string& path, lu_fid& fid)> FIDResolver;

LUSTREAPI_API int GetFIDFromPath(const std::string& path, CLustreFID& fid);

// Installs `resolver` for every later lookup; an empty function is the same
// as ResetFIDResolver().
LUSTREAPI_API void SetFIDResolver(FIDResolver resolver);
LUSTREAPI_API void ResetFIDResolver();

}  // namespace LustreAPI
