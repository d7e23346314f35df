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

// True when an object of dynamic type `derived` at `object` is also a
// `base`: the C++ runtime's own test for whether a handler of type `base`
// catches an exception of type `derived`.
bool IsA(const std::type_info& derived, const void* object, const std::type_info& base) {
  void* adjusted = const_cast<void*>(object);
  return base.__do_catch(&derived, &adjusted, 1);
}

}  // namespace

CKoError WzScanDBInternal::CheckRecordType(const WzScanDBRecordBasePtr& prototype,
                                           const WzScanDBRecordBasePtr& record,
                                           const FXCodeLocation& location) {
  const std::type_info& expected = typeid(*prototype);
  const std::type_info& given = typeid(*record);
  if (expected == given) return CKoError();
  // A type derived from the prototype's (or the prototype's derived from the
  // record's) keeps the same record image: a derived record, or a test
  // double. Only unrelated record types are refused.
  if (IsA(given, dynamic_cast<const void*>(record.get()), expected) ||
      IsA(expected, dynamic_cast<const void*>(prototype.get()), given))
    return CKoError();
  return FXErrorUtil::ErrorErrNo(location, 22,
                                 "The given record of type %s is not of the database's record "
                                 "type %s",
                                 TypeName(given).c_str(), TypeName(expected).c_str());
}
