// Field type codes of the table engine, and how fillKeySegment turns a
// field's bytes into key bytes.
//
//   kFieldBinary   (128)  fixed-length byte array: bytes as they are.
//   kFieldString   (146)  NUL-terminated string: bytes as they are in a
//                          case-sensitive segment, ASCII upper-cased otherwise.
//   kFieldUInt8    (24)   unsigned 1-byte integer.
//   kFieldUInt32   (59)   unsigned 4-byte little-endian integer: stored in the
//                          key big-endian, so keys sort by value.
//   kFieldUInt64   (239)  unsigned 8-byte little-endian integer: big-endian in
//                          the key.
// A segment takes its field's first segmentSize bytes; integer segments take
// the whole field. Integers are never case-folded (inodes 0x41 and 0x61 stay
// two keys). Any other code is refused at registration (TBL_BAD_SCHEMA).
#pragma once

enum TFieldType : short {
  kFieldUInt8 = 24,
  kFieldUInt32 = 59,
  kFieldBinary = 128,
  kFieldString = 146,
  kFieldUInt64 = 239,
};
