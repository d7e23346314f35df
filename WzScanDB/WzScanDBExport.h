// Symbol visibility of libWzScanDB.so. The library is built with hidden
// visibility; public classes and exported functions carry WZSCANDB_API.
#pragma once

#define WZSCANDB_API __attribute__((visibility("default")))
