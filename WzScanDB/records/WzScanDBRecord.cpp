#include "WzScanDB/records/WzScanDBRecord.h"

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "WzScanDB/WzHandle.h"
#include "WzScanDB/records/RecordKeyRequest.h"
#include "runtime/CTimeStamp.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/FXFile.h"
#include "runtime/FXPath.h"
#include "runtime/FXString.h"
#include "runtime/LogWriter.h"
#include "table/TFieldType.h"
#include "table/TKeyType.h"

static_assert(std::is_standard_layout<SRecordStructure>::value, "record image layout");
static_assert(sizeof(struct stat) == 144, "stat_data is the x86-64 struct stat");
static_assert(offsetof(SRecordStructure, guid) == 0, "guid offset");
static_assert(offsetof(SRecordStructure, parent_guid) == 16, "parent_guid offset");
static_assert(offsetof(SRecordStructure, stat_data) == 32, "stat_data offset");
static_assert(offsetof(SRecordStructure, refTime) == 176, "refTime offset");
static_assert(offsetof(SRecordStructure, flags) == 180, "flags offset");
static_assert(offsetof(SRecordStructure, sname) == 181, "sname offset");
static_assert(sizeof(SRecordStructure) == 440, "record image size");

namespace {

constexpr int kRecordSize = 440;
constexpr int kFieldBytes = 436;  // everything but the trailing padding
constexpr int kFixedRecordSize = 181;
constexpr int kGuidKeyLength = 16;
constexpr int kParentKeyLength = 16 + WzRecordKeys::kNameSegmentLength;
constexpr int kKeyIndex = 0;
constexpr int kParentIndex = 1;

const char kRecordSource[] = "WzScanDB/WzScanDBRecord";

void CopyName(char (&field)[255], const std::string& name) {
  size_t length = name.size() < sizeof field ? name.size() : sizeof field;
  std::memcpy(field, name.data(), length);
}

}  // namespace

void SRecordStructure::clear() noexcept {
  std::memset(static_cast<void*>(this), 0, sizeof(*this));
}

WzScanDBRecord::WzScanDBRecord() {}

WzScanDBRecord::WzScanDBRecord(const std::string& path) { assignPath(path); }

WzScanDBRecord::WzScanDBRecord(const std::string& path, bool isDir, unsigned long long refTime) {
  assignPath(path);
  if (isDir)
    record.flags |= kRecordFlagDirectory;
  else
    record.flags &= ~kRecordFlagDirectory;
  record.refTime = static_cast<uint32_t>(refTime);
}

WzScanDBRecord::WzScanDBRecord(const WzScanDBRecord& other)
    : WzScanDBRecordBase(other),
      record(),
      fieldInformation(other.fieldInformation),
      indexInformation(other.indexInformation),
      segmentInformation(other.segmentInformation) {
  std::memcpy(static_cast<void*>(&record), &other.record, sizeof record);
}

WzScanDBRecord::~WzScanDBRecord() {}

void WzScanDBRecord::assignPath(const std::string& path) {
  std::string parent;
  std::string name;
  FXPath::SplitParentPath(path, parent, name);  // a path that does not split still hashes
  record.clear();
  record.guid = path;
  record.parent_guid = parent;
  CopyName(record.sname, name);
}

void WzScanDBRecord::initializeFieldInformation() {
  fieldInformation.clear();
  fieldInformation.push_back({"guid", 0, kFieldBinary, 16});
  fieldInformation.push_back({"parent_guid", 16, kFieldBinary, 16});
  fieldInformation.push_back({"stat_data", 32, kFieldBinary, 144});
  fieldInformation.push_back({"refTime", 176, kFieldUInt32, 4});
  fieldInformation.push_back({"flags", 180, kFieldUInt8, 1});
  fieldInformation.push_back({"sname", 181, kFieldString, 255});
}

void WzScanDBRecord::initializeIndexInformation() {
  indexInformation.clear();
  indexInformation.push_back({"guid", kGuidKeyLength, kKeyFixed, 0, 0, 0, 1, 0});
  indexInformation.push_back(
      {"parent_guid_and_sname", kParentKeyLength, kKeyCompressBoth, 1, 0, 0, 2, 1});
}

void WzScanDBRecord::initializeSegmentInformation() {
  segmentInformation.clear();
  segmentInformation.push_back({0, 16, 1});
  segmentInformation.push_back({1, 16, 1});
  segmentInformation.push_back({5, WzRecordKeys::kNameSegmentLength, 1});
}

SFields WzScanDBRecord::getFieldInformation(int i) { return fieldInformation[i]; }
SIndices WzScanDBRecord::getIndexInformation(int i) { return indexInformation[i]; }
SSegments WzScanDBRecord::getSegmentInformation(int i) { return segmentInformation[i]; }

bool WzScanDBRecord::isVariableLength() { return true; }
int WzScanDBRecord::numFields() { return 6; }
int WzScanDBRecord::numIndices() { return 2; }
int WzScanDBRecord::numSegments() { return 3; }
int WzScanDBRecord::recordSize() { return kRecordSize; }
int WzScanDBRecord::fixedRecordSize() { return kFixedRecordSize; }

bool WzScanDBRecord::isRoot() { return record.parent_guid.empty(); }

WzScanDBRecordBasePtr WzScanDBRecord::getRoot() {
  WzScanDBRecord* root = new WzScanDBRecord(*this);
  WzScanDBRecordBasePtr handle = WzMakeHandle<WzScanDBRecordBase>(root);
  std::string parent;
  std::string name;
  FXPath::SplitParentPath("/", parent, name);
  root->record.guid = std::string("/");
  root->record.parent_guid = name;
  return handle;
}

int WzScanDBRecord::keyIndex() { return kKeyIndex; }
int WzScanDBRecord::parentIndex() { return kParentIndex; }

std::string WzScanDBRecord::getName() {
  return std::string(record.sname, strnlen(record.sname, sizeof record.sname));
}

int WzScanDBRecord::getFlags() { return record.flags; }
void WzScanDBRecord::setFlags(int flags) { record.flags = static_cast<uint8_t>(flags); }

void WzScanDBRecord::setRefTime(unsigned long long refTime) {
  record.refTime = static_cast<uint32_t>(refTime);
}
unsigned long long WzScanDBRecord::getRefTime() { return record.refTime; }

void* WzScanDBRecord::getStructure() { return &record; }

// The engine usually reads straight into getStructure(): that image is
// already in place.
void WzScanDBRecord::setStructure(void* data) {
  if (data && data != &record) std::memcpy(static_cast<void*>(&record), data, kFieldBytes);
}

CKoError WzScanDBRecord::copyStandardFields(WzScanDBRecordBasePtr other) {
  WzScanDBRecordPtr source = boost::dynamic_pointer_cast<WzScanDBRecord>(other);
  if (!source)
    return FXErrorUtil::ErrorErrNo(
        FXCodeLocation(kRecordSource,
                       "virtual CKoError WzScanDBRecord::copyStandardFields(WzScanDBRecordBasePtr)",
                       __LINE__),
        1, "The given record is not of the type WzScanDBRecord");
  record.flags = source->record.flags;
  std::memcpy(&record.stat_data, &source->record.stat_data, sizeof record.stat_data);
  return CKoError();
}

bool WzScanDBRecord::isDir() { return (record.flags & kRecordFlagDirectory) != 0; }

bool WzScanDBRecord::checkParent(WzScanDBRecordBasePtr candidate) {
  WzScanDBRecordPtr parent = boost::dynamic_pointer_cast<WzScanDBRecord>(candidate);
  if (!parent) {
    WZ_LOG(-1, "virtual bool WzScanDBRecord::checkParent(WzScanDBRecordBasePtr)", __LINE__,
           "The given record is nullptr or it is not of type WzScanDBRecord");
    return false;
  }
  return parent->record.guid == record.parent_guid;
}

SPrepareIndexKeyStructure WzScanDBRecord::prepareIndexKeyFromParent() {
  return WzRecordKeys::MakeKeyRequest(kParentIndex, kParentKeyLength,
                                      {&record.guid, WzRecordKeys::kZeroName});
}

SPrepareIndexKeyStructure WzScanDBRecord::prepareIndexKeyFromKey() {
  return prepareIndexKey(kKeyIndex);
}

SPrepareIndexKeyStructure WzScanDBRecord::prepareIndexKey(int index) {
  if (index == kKeyIndex)
    return WzRecordKeys::MakeKeyRequest(kKeyIndex, kGuidKeyLength, {&record.guid});
  if (index == kParentIndex)
    return WzRecordKeys::MakeKeyRequest(kParentIndex, kParentKeyLength,
                                        {&record.parent_guid, record.sname});
  return SPrepareIndexKeyStructure();
}

bool WzScanDBRecord::checkEqualOnIndex(WzScanDBRecordBasePtr other, int index) {
  WzScanDBRecordPtr that = boost::dynamic_pointer_cast<WzScanDBRecord>(other);
  if (!that) {
    WZ_LOG(-1, "virtual bool WzScanDBRecord::checkEqualOnIndex(WzScanDBRecordBasePtr, int)",
           __LINE__, "The given record is nullptr or is not of type WzScanDBRecord");
    return false;
  }
  if (index == kKeyIndex) return record.guid == that->record.guid;
  if (index == kParentIndex)
    return record.parent_guid == that->record.parent_guid && getName() == that->getName();
  return false;
}

std::string WzScanDBRecord::toString() {
  FXFile::CFileData data(record.stat_data);
  return FXString::Format(
      "GUID : [%s] Parent GUID : [%s] Name : [%s] Directory : [%s] CTime : [%lld] MTime : [%lld] "
      "Size : [%u] Update Time : [%d]",
      record.guid.toString().c_str(), record.parent_guid.toString().c_str(), getName().c_str(),
      isDir() ? "yes" : "no", data.GetChangeTime().ToUnixSeconds(),
      data.GetModificationTime().ToUnixSeconds(), static_cast<unsigned>(data.GetSize()),
      static_cast<int>(record.refTime));
}

WzScanDBRecordBasePtr WzScanDBRecord::Clone() {
  return WzMakeHandle<WzScanDBRecordBase>(new WzScanDBRecord(*this));
}

WzScanDBRecordBasePtr WzScanDBRecord::MakeObject(const std::string& path) {
  return WzMakeHandle<WzScanDBRecordBase>(new WzScanDBRecord(path));
}

WzScanDBRecordBasePtr WzScanDBRecord::MakeParentObject() {
  WzScanDBRecord* parent = new WzScanDBRecord();
  WzScanDBRecordBasePtr handle = WzMakeHandle<WzScanDBRecordBase>(parent);
  parent->record.guid = record.parent_guid;
  return handle;
}

std::string WzScanDBRecord::toCSVHeader() {
  return "GUID,Parent GUID,Name,Directory,CTime,MTime,Size,Update Time";
}

std::string WzScanDBRecord::toCSV() {
  FXFile::CFileData data(record.stat_data);
  return FXString::Format("%s,%s,%s,%s,%lld,%lld,%u,%d", record.guid.toString().c_str(),
                          record.parent_guid.toString().c_str(), getName().c_str(),
                          isDir() ? "yes" : "no", data.GetChangeTime().ToUnixSeconds(),
                          data.GetModificationTime().ToUnixSeconds(),
                          static_cast<unsigned>(data.GetSize()), static_cast<int>(record.refTime));
}
