// TKeyType: how the table engine stores the keys of one index.
//
//   kKeyFixed (0)            the key is stored as it is built.
//   kKeyCompressBoth (12)    compressed at its leading and trailing end: the
//                            engine drops the key's trailing zero bytes before
//                            storing it and before searching with it, keeping
//                            at least one byte (an all-zero key is stored as
//                            one zero byte). Dropping trailing zeros keeps the
//                            order of keys of one fixed length, so reads see
//                            the same order as with kKeyFixed. The leading
//                            end is stored as it is.
// Other values are refused when the index is registered.
#pragma once

#include <cstdint>

enum TKeyType : int32_t {
  kKeyFixed = 0,
  kKeyCompressBoth = 12,
};
