// Record type check of the store and lookup paths.
#include "WzScanDB/RecordTypeCheck.h"

#include <cxxabi.h>

#include <cstdlib>
#include <string>
#include <typeinfo>

#include "runtime/FXErrorUtil.h"

namespace {

std::string TypeName(const std::type_info& type) {
  int status = 0;
  char* demangled = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
  std::string name = status == 0 && demangled ? demangled : type.name();
  std::free(demangled);
  return name;
}

}  // namespace

CKoError WzScanDBInternal::CheckRecordType(const WzScanDBRecordBasePtr& prototype,
                                           const WzScanDBRecordBasePtr& record,
                                           const FXCodeLocation& location) {
  const std::type_info& expected = typeid(*prototype);
  const std::type_info& given = typeid(*record);
  if (expected == given) return CKoError();
  return FXErrorUtil::ErrorErrNo(location, 22,
                                 "The given record of type %s is not of the database's record "
                                 "type %s",
                                 TypeName(given).c_str(), TypeName(expected).c_str());
}
