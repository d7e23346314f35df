// Symbol visibility of the Lustre interface library (libLustreAPI.so). The
// library is built with hidden visibility; its public classes and functions
// carry LUSTREAPI_API.
#pragma once

#define LUSTREAPI_API __attribute__((visibility("default")))
