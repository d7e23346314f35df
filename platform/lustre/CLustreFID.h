// CLustreFID: a Lustre file identifier (FID) as the scan records store it.
//
// The object is exactly 24 bytes and is placed inside record images that are
// cleared with memset, copied byte for byte and compared byte-wise:
//   bytes 0..7    a header word, zero in every FID this library makes; FID
//                 assignment never writes it
//   bytes 8..15   sequence   (lu_fid.f_seq)
//   bytes 16..19  object id  (lu_fid.f_oid)
//   bytes 20..23  version    (lu_fid.f_ver)
// It has no virtual functions and is standard-layout, so offsetof works on
// the structures that hold it.
//
// Equality and empty() look at the lu_fid only, never at the header word.
// A plain value: distinct objects may be used from different threads.
#pragma once

#include <cstdint>
#include <string>

#include <boost/shared_ptr.hpp>

#include "lustre/LustreAPIExport.h"

namespace LustreAPI {

// The kernel's struct lu_fid, kept here so that no Lustre header is needed.
struct lu_fid {
  uint64_t f_seq;
  uint32_t f_oid;
  uint32_t f_ver;
};
static_assert(sizeof(lu_fid) == 16, "lu_fid is 16 bytes");

class LUSTREAPI_API CLustreFID {
 public:
  // The empty FID (0x0:0x0:0x0), header word zero.
  CLustreFID() noexcept : header_(0), fid_{0, 0, 0} {}
  CLustreFID(uint64_t sequence, uint32_t objectId, uint32_t version) noexcept
      : header_(0), fid_{sequence, objectId, version} {}
  explicit CLustreFID(const lu_fid& fid) noexcept : header_(0), fid_(fid) {}
  // The copy gets the other's lu_fid and a zero header word.
  CLustreFID(const CLustreFID& other) noexcept : header_(0), fid_(other.fid_) {}

  // Copies sequence, object id and version; the header word stays as it is.
  CLustreFID& operator=(const CLustreFID& other) noexcept {
    fid_ = other.fid_;
    return *this;
  }
  CLustreFID& operator=(const lu_fid& fid) noexcept {
    fid_ = fid;
    return *this;
  }

  bool operator==(const CLustreFID& other) const noexcept {
    return fid_.f_seq == other.fid_.f_seq && fid_.f_oid == other.fid_.f_oid &&
           fid_.f_ver == other.fid_.f_ver;
  }
  bool operator!=(const CLustreFID& other) const noexcept { return !(*this == other); }

  // True when sequence, object id and version are all zero.
  bool empty() const noexcept { return fid_.f_seq == 0 && fid_.f_oid == 0 && fid_.f_ver == 0; }
  // Sets sequence, object id and version to zero.
  void clear() noexcept { fid_ = lu_fid{0, 0, 0}; }

  // "[0x%llx:0x%x:0x%x]": lower-case hexadecimal, no padding,
  // e.g. "[0x200000400:0x1a:0x0]".
  std::string toString() const;

  uint64_t getSequence() const noexcept { return fid_.f_seq; }
  uint32_t getObjectId() const noexcept { return fid_.f_oid; }
  uint32_t getVersion() const noexcept { return fid_.f_ver; }
  const lu_fid& getFid() const noexcept { return fid_; }
  uint64_t getHeaderWord() const noexcept { return header_; }

 private:
  uint64_t header_;
  lu_fid fid_;
};

typedef boost::shared_ptr<CLustreFID> CLustreFIDPtr;

}  // namespace LustreAPI
