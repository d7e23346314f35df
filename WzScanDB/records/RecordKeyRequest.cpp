#include "WzScanDB/records/RecordKeyRequest.h"

namespace WzRecordKeys {

const unsigned char kZeroName[kNameFieldLength] = {};

SPrepareIndexKeyStructure MakeKeyRequest(int index, int keyLength,
                                         std::initializer_list<const void*> data) {
  SPrepareIndexKeyStructure request;
  request.indexNumber = index;
  request.segmentNumbers.reserve(data.size());
  request.segmentModes.reserve(data.size());
  request.segmentData.reserve(data.size());
  int segment = 0;
  for (const void* source : data) {
    request.segmentNumbers.push_back(segment++);
    request.segmentModes.push_back(0);
    request.segmentData.push_back(source);
  }
  request.keyBufferSize = keyLength + kSpareKeyBytes;
  request.finishMode = 0;
  request.numSegments = segment;
  return request;
}

}  // namespace WzRecordKeys
