// WzIsLiveHandle: whether a handle that the exported functions were given
// refers to an object they may use. An empty handle does not, nor does one
// whose object DestroyWzScanDBObject or Delete...Object destroyed (such a
// handle still points where it did; its deleter, made by WzMakeHandle,
// remembers the destruction). Reads only the handle's control block, never
// the object. Internal to the library.
#pragma once

#include <boost/shared_ptr.hpp>

#include "WzScanDB/WzHandle.h"

template <class T>
bool WzIsLiveHandle(const boost::shared_ptr<T>& handle) {
  if (!handle) return false;
  const CWzHandleDeleter* deleter = boost::get_deleter<CWzHandleDeleter>(handle);
  return !(deleter && deleter->destroyed);
}
