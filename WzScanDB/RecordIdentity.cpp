// RecordIdentity: the own-identifier bytes of a record image.
#include "WzScanDB/RecordIdentity.h"

#include <cstring>

namespace WzScanDBInternal {

RecordIdentity::RecordIdentity(WzScanDBRecordBase& prototype) {
  const int imageSize = prototype.recordSize();
  const int keyIndex = prototype.keyIndex();
  bool followed = imageSize > 0 && keyIndex >= 0 && keyIndex < prototype.numIndices();
  if (followed) {
    const SIndices index = prototype.getIndexInformation(keyIndex);
    followed = index.numSegments > 0 && index.segmentNumber >= 0 &&
               index.segmentNumber + index.numSegments <= prototype.numSegments();
    for (int s = 0; followed && s < index.numSegments; ++s) {
      const SSegments segment = prototype.getSegmentInformation(index.segmentNumber + s);
      if (segment.fieldNumber < 0 || segment.fieldNumber >= prototype.numFields() ||
          segment.segmentSize <= 0) {
        followed = false;
        break;
      }
      const SFields field = prototype.getFieldInformation(segment.fieldNumber);
      const size_t length = static_cast<size_t>(segment.segmentSize);
      if (field.offset + length > static_cast<size_t>(imageSize)) {
        followed = false;
        break;
      }
      pieces_.emplace_back(static_cast<size_t>(field.offset), length);
    }
  }
  if (!followed) {
    pieces_.clear();
    if (imageSize > 0) pieces_.emplace_back(0, static_cast<size_t>(imageSize));
  }
  for (const auto& piece : pieces_) size_ += piece.second;
}

void RecordIdentity::read(WzScanDBRecordBase& record, std::string& out) const {
  const char* image = static_cast<const char*>(record.getStructure());
  out.clear();
  for (const auto& piece : pieces_) out.append(image + piece.first, piece.second);
}

bool RecordIdentity::matches(WzScanDBRecordBase& record, const std::string& id) const {
  if (id.size() != size_) return false;
  const char* image = static_cast<const char*>(record.getStructure());
  size_t at = 0;
  for (const auto& piece : pieces_) {
    if (std::memcmp(image + piece.first, id.data() + at, piece.second) != 0) return false;
    at += piece.second;
  }
  return true;
}

void RecordIdentity::write(const std::string& id, WzScanDBRecordBase& record) const {
  char* image = static_cast<char*>(record.getStructure());
  size_t at = 0;
  for (const auto& piece : pieces_) {
    if (at + piece.second > id.size()) return;
    std::memcpy(image + piece.first, id.data() + at, piece.second);
    at += piece.second;
  }
}

}  // namespace WzScanDBInternal
