// RecordTypeCheck: refuses a record whose concrete type is unrelated to the
// database's prototype (a Lustre record handed to a generic database, say).
// The engine would otherwise read or write another type's image, of another
// size, as if it were this table's record. Internal to the library.
#pragma once

#include "WzScanDB/records/WzScanDBRecordBase.h"
#include "runtime/CKoError.h"
#include "runtime/FXCodeLocation.h"

namespace WzScanDBInternal {

// Success when `record` is of the same dynamic type as `prototype`, or one of
// the two types derives from the other (same record image); otherwise
// errno 22 "The given record of type %s is not of the database's record type
// %s" at `location`. Both pointers must be non-null.
CKoError CheckRecordType(const WzScanDBRecordBasePtr& prototype,
                         const WzScanDBRecordBasePtr& record, const FXCodeLocation& location);

}  // namespace WzScanDBInternal
