// Building blocks of the key requests of the tree records (internal to the
// library).
//
// MakeKeyRequest fills a request for `index` with one segment per entry of
// `data`, in key order: segment numbers 0, 1, ..., modes 0, finish mode 0.
// kZeroName is the empty name that a folder's children start key uses: one
// constant block shared by every request, so it outlives any key built from it.
#pragma once

#include <initializer_list>

#include "WzScanDB/records/WzScanDBRecordBase.h"

namespace WzRecordKeys {

constexpr int kSpareKeyBytes = 32;  // the key buffer is keyLength + 32 bytes
constexpr int kNameFieldLength = 255;
constexpr int kNameSegmentLength = 56;

extern const unsigned char kZeroName[kNameFieldLength];

SPrepareIndexKeyStructure MakeKeyRequest(int index, int keyLength,
                                         std::initializer_list<const void*> data);

}  // namespace WzRecordKeys
