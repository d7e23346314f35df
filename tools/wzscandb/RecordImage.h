// RecordImage: the fields of a tree record (generic or Lustre) read and
// written straight in its table image, the bytes the engine stores.
//
// The tool reads children and walks trees through the engine into plain
// byte buffers; these helpers give the fields of such a buffer without a
// record object per entry. RecordLayout::Of(type) gives the offsets of the
// type's image (they follow SRecordStructure and SLustreRecord). Keys are the
// raw identifier bytes: the 16-byte GUID, or the 24-byte FID with its zero
// header word; an all-zero parent key marks a record at the top of its tree.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "RecordTypes.h"

struct RecordLayout {
  size_t size;          // the image's size in bytes (the engine's recordSize)
  size_t keyLength;     // own key at 0, parent key at keyLength
  size_t statOffset;    // struct stat, 144 bytes
  size_t refOffset;     // uint32_t reference time
  size_t flagsOffset;   // uint8_t flags
  size_t nameOffset;    // 255 bytes, NUL-terminated when shorter

  // Throws ToolError for a type without a tree.
  static const RecordLayout& Of(RecordType type);
};

// Bit values of the flags byte.
constexpr uint8_t kFlagDirectory = 1;
constexpr uint8_t kFlagVisited = 2;

// Read access to one image.
class ImageView {
 public:
  ImageView(const RecordLayout& layout, const char* image) : layout_(&layout), image_(image) {}

  const char* data() const { return image_; }
  std::string_view key() const { return {image_, layout_->keyLength}; }
  std::string_view parentKey() const { return {image_ + layout_->keyLength, layout_->keyLength}; }
  std::string_view name() const;
  struct stat stat() const;
  uint32_t ref() const;
  uint8_t flags() const { return static_cast<uint8_t>(image_[layout_->flagsOffset]); }
  bool isDir() const { return (flags() & kFlagDirectory) != 0; }
  // No parent: the root, or (Lustre) the top of a mount.
  bool isTop() const { return IsZero(parentKey()); }
  // An all-zero own key: the Lustre root, or an entry without identity.
  bool keyIsEmpty() const { return IsZero(key()); }

  static bool IsZero(std::string_view bytes);

 private:
  const RecordLayout* layout_;
  const char* image_;
};

// Writes into an image of `layout`.
void SetImageKey(const RecordLayout& layout, char* image, std::string_view key);
void SetImageParentKey(const RecordLayout& layout, char* image, std::string_view key);
void SetImageName(const RecordLayout& layout, char* image, const std::string& name);
void SetImageStat(const RecordLayout& layout, char* image, const struct stat& st);
void SetImageRef(const RecordLayout& layout, char* image, uint32_t ref);
// Sets or clears the directory bit; the other bits stay.
void SetImageDir(const RecordLayout& layout, char* image, bool isDir);

// The own key a record of `type` gets for the entry at `path`: the GUID of
// the path text, or the FID the Lustre client gives. False (and `key` left
// alone) when the entry has no identity of that type. Thread-safe.
bool IdentityOf(RecordType type, const std::string& path, char* key);
