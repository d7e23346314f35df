#include "WzScanDB/records/BackupTimeRecord.h"

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "WzScanDB/WzHandle.h"
#include "runtime/FXString.h"
#include "runtime/LogWriter.h"
#include "table/TFieldType.h"
#include "table/TKeyType.h"

static_assert(std::is_standard_layout<SBackupTimeRecordStructure>::value, "record image layout");
static_assert(offsetof(SBackupTimeRecordStructure, inode) == 0, "inode offset");
static_assert(offsetof(SBackupTimeRecordStructure, ctime) == 8, "ctime offset");
static_assert(offsetof(SBackupTimeRecordStructure, dummy) == 16, "dummy offset");
static_assert(sizeof(SBackupTimeRecordStructure) == 24, "record image size");

namespace {
constexpr int kRecordSize = 24;
constexpr int kFixedRecordSize = 16;
constexpr int kInodeKeyLength = 8;
constexpr int kSpareKeyBytes = 32;
}  // namespace

std::vector<SFields> CBackupTimeRecord::sFieldInformation;
std::vector<SIndices> CBackupTimeRecord::sIndexInformation;
std::vector<SSegments> CBackupTimeRecord::sSegmentInformation;

void SBackupTimeRecordStructure::clear() noexcept {
  std::memset(static_cast<void*>(this), 0, sizeof(*this));
}

CBackupTimeRecord::CBackupTimeRecord() {}

CBackupTimeRecord::CBackupTimeRecord(unsigned long long inode, unsigned long long ctime) {
  record.inode = inode;
  record.ctime = ctime;
  std::strncpy(record.dummy, "0", sizeof record.dummy);
}

CBackupTimeRecord::CBackupTimeRecord(const CBackupTimeRecord& other) : WzScanDBRecordBase(other) {
  std::memcpy(static_cast<void*>(&record), &other.record, sizeof record);
}

CBackupTimeRecord::~CBackupTimeRecord() {}

void CBackupTimeRecord::initializeFieldInformation() {
  sFieldInformation.clear();
  sFieldInformation.push_back({"inode", 0, kFieldUInt64, 8});
  sFieldInformation.push_back({"ctime", 8, kFieldUInt64, 8});
  sFieldInformation.push_back({"dummy", 16, kFieldString, 4});
}

void CBackupTimeRecord::initializeIndexInformation() {
  sIndexInformation.clear();
  sIndexInformation.push_back({"inode", kInodeKeyLength, kKeyFixed, 0, 0, 0, 1, 0});
}

void CBackupTimeRecord::initializeSegmentInformation() {
  sSegmentInformation.clear();
  sSegmentInformation.push_back({0, kInodeKeyLength, 0});
}

SFields CBackupTimeRecord::getFieldInformation(int i) { return sFieldInformation[i]; }
SIndices CBackupTimeRecord::getIndexInformation(int i) { return sIndexInformation[i]; }
SSegments CBackupTimeRecord::getSegmentInformation(int i) { return sSegmentInformation[i]; }

bool CBackupTimeRecord::isVariableLength() { return true; }
int CBackupTimeRecord::numFields() { return 3; }
int CBackupTimeRecord::numIndices() { return 1; }
int CBackupTimeRecord::numSegments() { return 1; }
int CBackupTimeRecord::recordSize() { return kRecordSize; }
int CBackupTimeRecord::fixedRecordSize() { return kFixedRecordSize; }

bool CBackupTimeRecord::isRoot() { return record.inode == 0 && record.ctime == 0; }

WzScanDBRecordBasePtr CBackupTimeRecord::getRoot() {
  CBackupTimeRecord* root = new CBackupTimeRecord(*this);
  WzScanDBRecordBasePtr handle = WzMakeHandle<WzScanDBRecordBase>(root);
  root->record.inode = 0;
  root->record.ctime = 0;
  return handle;
}

// A flat table: the key index stands in for the missing parent index.
int CBackupTimeRecord::keyIndex() { return 0; }
int CBackupTimeRecord::parentIndex() { return 0; }

std::string CBackupTimeRecord::getName() { return std::string(); }
int CBackupTimeRecord::getFlags() { return 0; }
void CBackupTimeRecord::setFlags(int) {}
void CBackupTimeRecord::setRefTime(unsigned long long) {}
unsigned long long CBackupTimeRecord::getRefTime() { return record.ctime; }

void* CBackupTimeRecord::getStructure() { return &record; }

void CBackupTimeRecord::setStructure(void* data) {
  if (data) std::memcpy(static_cast<void*>(&record), data, sizeof record);
}

CKoError CBackupTimeRecord::copyStandardFields(WzScanDBRecordBasePtr) { return CKoError(); }

bool CBackupTimeRecord::isDir() { return false; }
bool CBackupTimeRecord::checkParent(WzScanDBRecordBasePtr) { return false; }

SPrepareIndexKeyStructure CBackupTimeRecord::prepareIndexKeyFromParent() {
  return SPrepareIndexKeyStructure();
}

SPrepareIndexKeyStructure CBackupTimeRecord::prepareIndexKeyFromKey() { return prepareIndexKey(0); }

SPrepareIndexKeyStructure CBackupTimeRecord::prepareIndexKey(int index) {
  SPrepareIndexKeyStructure request;
  if (index != 0) return request;
  request.indexNumber = 0;
  request.keyBufferSize = kInodeKeyLength + kSpareKeyBytes;
  request.segmentNumbers.push_back(0);
  request.segmentModes.push_back(0);
  request.segmentData.push_back(&record.inode);
  request.finishMode = 0;
  request.numSegments = 1;
  return request;
}

bool CBackupTimeRecord::checkEqualOnIndex(WzScanDBRecordBasePtr other, int index) {
  CBackupTimeRecordPtr that = boost::dynamic_pointer_cast<CBackupTimeRecord>(other);
  if (!that) {
    WZ_LOG(-1, "virtual bool CBackupTimeRecord::checkEqualOnIndex(WzScanDBRecordBasePtr, int)", 111,
           "The Given record is NULL or not of type CBackupTimeRecord");
    return false;
  }
  if (index == 0) return record.inode == that->record.inode;
  return false;
}

std::string CBackupTimeRecord::toString() {
  return FXString::Format("Inode : %llu , Ctime : %llu",
                          static_cast<unsigned long long>(record.inode),
                          static_cast<unsigned long long>(record.ctime));
}

WzScanDBRecordBasePtr CBackupTimeRecord::Clone() {
  CBackupTimeRecord* clone = new CBackupTimeRecord(*this);
  WzScanDBRecordBasePtr handle = WzMakeHandle<WzScanDBRecordBase>(clone);
  clone->record.inode = record.inode;
  clone->record.ctime = record.ctime;
  return handle;
}

WzScanDBRecordBasePtr CBackupTimeRecord::MakeObject(const std::string&) {
  return WzScanDBRecordBasePtr();
}

WzScanDBRecordBasePtr CBackupTimeRecord::MakeParentObject() { return WzScanDBRecordBasePtr(); }
