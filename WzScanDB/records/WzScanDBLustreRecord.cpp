#include "WzScanDB/records/WzScanDBLustreRecord.h"

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "WzScanDB/WzHandle.h"
#include "WzScanDB/records/RecordKeyRequest.h"
#include "lustre/GetFIDFromPath.h"
#include "runtime/FXPath.h"
#include "runtime/FXString.h"
#include "runtime/LogWriter.h"
#include "table/TFieldType.h"
#include "table/TKeyType.h"

static_assert(std::is_standard_layout<SLustreRecord>::value, "record image layout");
static_assert(offsetof(SLustreRecord, FID) == 0, "FID offset");
static_assert(offsetof(SLustreRecord, ParentFID) == 24, "ParentFID offset");
static_assert(offsetof(SLustreRecord, stat_data) == 48, "stat_data offset");
static_assert(offsetof(SLustreRecord, refTime) == 192, "refTime offset");
static_assert(offsetof(SLustreRecord, flags) == 196, "flags offset");
static_assert(offsetof(SLustreRecord, sname) == 197, "sname offset");
static_assert(sizeof(SLustreRecord) == 456, "record image size");

namespace {

constexpr int kRecordSize = 456;
constexpr int kFixedRecordSize = 197;
constexpr int kFIDKeyLength = 24;
constexpr int kParentKeyLength = 24 + WzRecordKeys::kNameSegmentLength;
constexpr int kKeyIndex = 0;
constexpr int kParentIndex = 1;

const char kCannotConvert[] = "Cannot convert path to FID for Path %s";
const char kFromPathSignature[] = "WzScanDBLustreRecord::WzScanDBLustreRecord(const string&)";
const char kFromPathDirSignature[] =
    "WzScanDBLustreRecord::WzScanDBLustreRecord(std::string, bool, long long unsigned int)";
const char kFromPathParentSignature[] =
    "WzScanDBLustreRecord::WzScanDBLustreRecord(std::string, LustreAPI::CLustreFIDPtr, bool, long "
    "long unsigned int)";

// Looks up `path`'s FID into `fid`; a failure leaves `fid` as it was and logs
// `shown` (the name part for the own FID, the parent path for the parent's).
void LookUpFID(const std::string& path, const std::string& shown, LustreAPI::CLustreFID& fid,
               const char* signature, int line) {
  if (LustreAPI::GetFIDFromPath(path, fid) != 0)
    WZ_LOG(-1, signature, line, kCannotConvert, shown.c_str());
}

}  // namespace

std::vector<SFields> WzScanDBLustreRecord::sFieldInformation;
std::vector<SIndices> WzScanDBLustreRecord::sIndexInformation;
std::vector<SSegments> WzScanDBLustreRecord::sSegmentInformation;

void SLustreRecord::clear() noexcept { std::memset(static_cast<void*>(this), 0, sizeof(*this)); }

SLustreRecord& SLustreRecord::operator=(const SLustreRecord& other) noexcept {
  FID = other.FID;
  ParentFID = other.ParentFID;
  std::memcpy(&stat_data, &other.stat_data, sizeof stat_data);
  refTime = other.refTime;
  flags = other.flags;
  std::memcpy(sname, other.sname, sizeof sname);
  return *this;
}

WzScanDBLustreRecord::WzScanDBLustreRecord() {}

WzScanDBLustreRecord::WzScanDBLustreRecord(const WzScanDBLustreRecord& other)
    : WzScanDBRecordBase(other) {
  record.FID = other.record.FID;
  record.ParentFID = other.record.ParentFID;
  std::memcpy(&record.stat_data, &other.record.stat_data, sizeof record.stat_data);
  record.refTime = other.record.refTime;
  record.flags = other.record.flags;
  std::memcpy(record.sname, other.record.sname, strnlen(other.record.sname, sizeof record.sname));
}

WzScanDBLustreRecord::WzScanDBLustreRecord(const std::string& path) {
  std::string parent;
  std::string name;
  FXPath::SplitParentPath(path, parent, name);
  LookUpFID(path, name, record.FID, kFromPathSignature, __LINE__);
  LookUpFID(parent, parent, record.ParentFID, kFromPathSignature, __LINE__);
  setName(name);
}

WzScanDBLustreRecord::WzScanDBLustreRecord(std::string path, bool isDir,
                                           unsigned long long refTime) {
  std::string parent;
  std::string name;
  FXPath::SplitParentPath(path, parent, name);
  LookUpFID(path, name, record.FID, kFromPathDirSignature, __LINE__);
  LookUpFID(parent, parent, record.ParentFID, kFromPathDirSignature, __LINE__);
  setName(name);
  setDirAndRefTime(isDir, refTime);
}

WzScanDBLustreRecord::WzScanDBLustreRecord(std::string path, LustreAPI::CLustreFIDPtr parentFID,
                                           bool isDir, unsigned long long refTime) {
  std::string parent;
  std::string name;
  FXPath::SplitParentPath(path, parent, name);
  LookUpFID(path, name, record.FID, kFromPathParentSignature, __LINE__);
  if (parentFID) record.ParentFID = *parentFID;
  setName(name);
  setDirAndRefTime(isDir, refTime);
}

WzScanDBLustreRecord::WzScanDBLustreRecord(LustreAPI::CLustreFIDPtr fid,
                                           LustreAPI::CLustreFIDPtr parentFID,
                                           const std::string& name, bool isDir,
                                           unsigned long long refTime) {
  if (fid) record.FID = *fid;
  if (parentFID) record.ParentFID = *parentFID;
  setName(name);
  setDirAndRefTime(isDir, refTime);
}

WzScanDBLustreRecord::WzScanDBLustreRecord(LustreAPI::CLustreFIDPtr fid) {
  if (fid) record.FID = *fid;
}

WzScanDBLustreRecord::~WzScanDBLustreRecord() {}

void WzScanDBLustreRecord::setName(const std::string& name) {
  size_t length = name.size() < sizeof record.sname ? name.size() : sizeof record.sname;
  std::memcpy(record.sname, name.data(), length);
}

void WzScanDBLustreRecord::setDirAndRefTime(bool isDir, unsigned long long refTime) {
  if (isDir)
    record.flags |= kRecordFlagDirectory;
  else
    record.flags &= ~kRecordFlagDirectory;
  record.refTime = static_cast<uint32_t>(refTime);
}

void WzScanDBLustreRecord::initializeFieldInformation() {
  sFieldInformation.clear();
  sFieldInformation.push_back({"FID", 0, kFieldBinary, 24});
  sFieldInformation.push_back({"ParentFID", 24, kFieldBinary, 24});
  sFieldInformation.push_back({"stat_data", 48, kFieldBinary, 144});
  sFieldInformation.push_back({"refTime", 192, kFieldUInt32, 4});
  sFieldInformation.push_back({"flags", 196, kFieldUInt8, 1});
  sFieldInformation.push_back({"sname", 197, kFieldString, 255});
}

void WzScanDBLustreRecord::initializeIndexInformation() {
  sIndexInformation.clear();
  sIndexInformation.push_back({"FID", kFIDKeyLength, kKeyFixed, 0, 0, 0, 1, 0});
  sIndexInformation.push_back(
      {"parent_FID_and_sname", kParentKeyLength, kKeyCompressBoth, 1, 0, 0, 2, 1});
}

void WzScanDBLustreRecord::initializeSegmentInformation() {
  sSegmentInformation.clear();
  sSegmentInformation.push_back({0, 24, 1});
  sSegmentInformation.push_back({1, 24, 1});
  sSegmentInformation.push_back({5, WzRecordKeys::kNameSegmentLength, 1});
}

SFields WzScanDBLustreRecord::getFieldInformation(int i) { return sFieldInformation[i]; }
SIndices WzScanDBLustreRecord::getIndexInformation(int i) { return sIndexInformation[i]; }
SSegments WzScanDBLustreRecord::getSegmentInformation(int i) { return sSegmentInformation[i]; }

bool WzScanDBLustreRecord::isVariableLength() { return true; }
int WzScanDBLustreRecord::numFields() { return 6; }
int WzScanDBLustreRecord::numIndices() { return 2; }
int WzScanDBLustreRecord::numSegments() { return 3; }
int WzScanDBLustreRecord::recordSize() { return kRecordSize; }
int WzScanDBLustreRecord::fixedRecordSize() { return kFixedRecordSize; }

bool WzScanDBLustreRecord::isRoot() { return record.ParentFID.empty(); }

WzScanDBRecordBasePtr WzScanDBLustreRecord::getRoot() {
  WzScanDBLustreRecord* root = new WzScanDBLustreRecord(*this);
  WzScanDBRecordBasePtr handle = WzMakeHandle<WzScanDBRecordBase>(root);
  root->record.FID = LustreAPI::CLustreFID();
  root->record.ParentFID = LustreAPI::CLustreFID();
  return handle;
}

int WzScanDBLustreRecord::keyIndex() { return kKeyIndex; }
int WzScanDBLustreRecord::parentIndex() { return kParentIndex; }

std::string WzScanDBLustreRecord::getName() {
  return std::string(record.sname, strnlen(record.sname, sizeof record.sname));
}

int WzScanDBLustreRecord::getFlags() { return record.flags; }
void WzScanDBLustreRecord::setFlags(int flags) { record.flags = static_cast<uint8_t>(flags); }

void WzScanDBLustreRecord::setRefTime(unsigned long long refTime) {
  record.refTime = static_cast<uint32_t>(refTime);
}
unsigned long long WzScanDBLustreRecord::getRefTime() { return record.refTime; }

void* WzScanDBLustreRecord::getStructure() { return &record; }

// The engine usually reads straight into getStructure(): that image is
// already in place.
void WzScanDBLustreRecord::setStructure(void* data) {
  if (data && data != &record) record = *static_cast<const SLustreRecord*>(data);
}

CKoError WzScanDBLustreRecord::copyStandardFields(WzScanDBRecordBasePtr other) {
  // Only the flag byte: the status of a Lustre entry is kept by the caller.
  // A record of another type carries nothing this type can take.
  WzScanDBLustreRecordPtr source = boost::dynamic_pointer_cast<WzScanDBLustreRecord>(other);
  if (source) record.flags = source->record.flags;
  return CKoError();
}

bool WzScanDBLustreRecord::isDir() { return (record.flags & kRecordFlagDirectory) != 0; }

bool WzScanDBLustreRecord::checkParent(WzScanDBRecordBasePtr candidate) {
  WzScanDBLustreRecordPtr parent = boost::dynamic_pointer_cast<WzScanDBLustreRecord>(candidate);
  if (!parent) {
    WZ_LOG(-1, "virtual bool WzScanDBLustreRecord::checkParent(WzScanDBRecordBasePtr)", __LINE__,
           "The given record is NULL or not of type WzScanDBLustreRecord\n");
    return false;
  }
  return parent->record.FID == record.ParentFID;
}

SPrepareIndexKeyStructure WzScanDBLustreRecord::prepareIndexKeyFromParent() {
  return WzRecordKeys::MakeKeyRequest(kParentIndex, kParentKeyLength,
                                      {&record.FID, WzRecordKeys::kZeroName});
}

SPrepareIndexKeyStructure WzScanDBLustreRecord::prepareIndexKeyFromKey() {
  return prepareIndexKey(kKeyIndex);
}

SPrepareIndexKeyStructure WzScanDBLustreRecord::prepareIndexKey(int index) {
  if (index == kKeyIndex)
    return WzRecordKeys::MakeKeyRequest(kKeyIndex, kFIDKeyLength, {&record.FID});
  if (index == kParentIndex)
    return WzRecordKeys::MakeKeyRequest(kParentIndex, kParentKeyLength,
                                        {&record.ParentFID, record.sname});
  return SPrepareIndexKeyStructure();
}

bool WzScanDBLustreRecord::checkEqualOnIndex(WzScanDBRecordBasePtr other, int index) {
  WzScanDBLustreRecordPtr that = boost::dynamic_pointer_cast<WzScanDBLustreRecord>(other);
  if (!that) {
    WZ_LOG(-1, "virtual bool WzScanDBLustreRecord::checkEqualOnIndex(WzScanDBRecordBasePtr, int)",
           __LINE__, "The given record is NULL or not of the type WzScanDBLustreRecord\n");
    return false;
  }
  if (index == kKeyIndex) return record.FID == that->record.FID;
  if (index == kParentIndex)
    return record.ParentFID == that->record.ParentFID && getName() == that->getName();
  return false;
}

std::string WzScanDBLustreRecord::toString() {
  return FXString::Format(
      "FID = [%s] : Parent FID = [%s] : Name = [%s] : flags = [%d] : Update Time = [%d]",
      record.FID.toString().c_str(), record.ParentFID.toString().c_str(), getName().c_str(),
      static_cast<int>(record.flags), static_cast<int>(record.refTime));
}

WzScanDBRecordBasePtr WzScanDBLustreRecord::Clone() {
  return WzMakeHandle<WzScanDBRecordBase>(new WzScanDBLustreRecord(*this));
}

WzScanDBRecordBasePtr WzScanDBLustreRecord::MakeObject(const std::string& path) {
  return WzMakeHandle<WzScanDBRecordBase>(new WzScanDBLustreRecord(path));
}

WzScanDBRecordBasePtr WzScanDBLustreRecord::MakeParentObject() {
  WzScanDBLustreRecord* parent = new WzScanDBLustreRecord();
  WzScanDBRecordBasePtr handle = WzMakeHandle<WzScanDBRecordBase>(parent);
  parent->record.FID = record.ParentFID;
  return handle;
}
