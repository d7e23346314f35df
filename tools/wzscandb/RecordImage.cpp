#include "RecordImage.h"

#include <algorithm>
#include <cstring>

#include "ToolError.h"
#include "WzScanDB/records/WzScanDBKeyGUID.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "lustre/GetFIDFromPath.h"

namespace {

const RecordLayout kGeneric{sizeof(SRecordStructure),          sizeof(WzScanDBKeyGUID),
                            offsetof(SRecordStructure, stat_data), offsetof(SRecordStructure, refTime),
                            offsetof(SRecordStructure, flags),     offsetof(SRecordStructure, sname)};
const RecordLayout kLustre{sizeof(SLustreRecord),           sizeof(LustreAPI::CLustreFID),
                           offsetof(SLustreRecord, stat_data), offsetof(SLustreRecord, refTime),
                           offsetof(SLustreRecord, flags),     offsetof(SLustreRecord, sname)};

static_assert(offsetof(SRecordStructure, parent_guid) == sizeof(WzScanDBKeyGUID),
              "the parent GUID follows the own GUID");
static_assert(offsetof(SLustreRecord, ParentFID) == sizeof(LustreAPI::CLustreFID),
              "the parent FID follows the own FID");

constexpr size_t kNameLength = 255;

}  // namespace

const RecordLayout& RecordLayout::Of(RecordType type) {
  if (type == RecordType::kGeneric) return kGeneric;
  if (type == RecordType::kLustre) return kLustre;
  throw ToolError(kExitNotFound, std::string("a ") + RecordTypeName(type) +
                                     " database has no folders or paths");
}

bool ImageView::IsZero(std::string_view bytes) {
  for (char c : bytes)
    if (c != 0) return false;
  return true;
}

std::string_view ImageView::name() const {
  const char* name = image_ + layout_->nameOffset;
  return {name, strnlen(name, kNameLength)};
}

struct stat ImageView::stat() const {
  struct stat st;
  std::memcpy(&st, image_ + layout_->statOffset, sizeof(st));
  return st;
}

uint32_t ImageView::ref() const {
  uint32_t ref;
  std::memcpy(&ref, image_ + layout_->refOffset, sizeof(ref));
  return ref;
}

void SetImageKey(const RecordLayout& layout, char* image, std::string_view key) {
  std::memcpy(image, key.data(), layout.keyLength);
}

void SetImageParentKey(const RecordLayout& layout, char* image, std::string_view key) {
  std::memcpy(image + layout.keyLength, key.data(), layout.keyLength);
}

void SetImageName(const RecordLayout& layout, char* image, const std::string& name) {
  char* field = image + layout.nameOffset;
  size_t length = std::min(name.size(), kNameLength);
  std::memcpy(field, name.data(), length);
  if (length < kNameLength) std::memset(field + length, 0, kNameLength - length);
}

void SetImageStat(const RecordLayout& layout, char* image, const struct stat& st) {
  std::memcpy(image + layout.statOffset, &st, sizeof(st));
}

void SetImageRef(const RecordLayout& layout, char* image, uint32_t ref) {
  std::memcpy(image + layout.refOffset, &ref, sizeof(ref));
}

void SetImageDir(const RecordLayout& layout, char* image, bool isDir) {
  uint8_t flags = static_cast<uint8_t>(image[layout.flagsOffset]);
  flags = isDir ? (flags | kFlagDirectory) : (flags & ~kFlagDirectory);
  image[layout.flagsOffset] = static_cast<char>(flags);
}

bool IdentityOf(RecordType type, const std::string& path, char* key) {
  if (type == RecordType::kGeneric) {
    WzScanDBKeyGUID guid(path);
    std::memcpy(key, &guid, sizeof(guid));
    return true;
  }
  if (type == RecordType::kLustre) {
    LustreAPI::CLustreFID fid;
    if (LustreAPI::GetFIDFromPath(path, fid) != 0 || fid.empty()) return false;
    std::memcpy(key, &fid, sizeof(fid));
    return true;
  }
  return false;
}
