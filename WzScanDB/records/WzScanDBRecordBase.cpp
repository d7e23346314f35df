#include "WzScanDB/records/WzScanDBRecordBase.h"

WzScanDBRecordBase::~WzScanDBRecordBase() {}

std::string WzScanDBRecordBase::toCSVHeader() { return "Not Supported"; }

std::string WzScanDBRecordBase::toCSV() { return std::string(); }
