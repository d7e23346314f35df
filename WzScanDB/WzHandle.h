// Handles that survive an explicit destroy.
//
// The exported Delete...Object and DestroyWzScanDBObject functions destroy an
// object while the caller's shared pointer still refers to it (the handle is
// deliberately left as it is). Every object that this library hands out is
// therefore owned with a CWzHandleDeleter: WzDestroyHandleObject() destroys the
// object and marks the deleter, and the deleter then does nothing when the last
// shared pointer goes, so dropping the handle afterwards is harmless.
//
// Create every record and database object that leaves the library with
// WzMakeHandle(). Not thread-safe against a concurrent destroy of the same
// object (the caller owns that race, as with any delete).
#pragma once

#include <boost/shared_ptr.hpp>

#include "WzScanDB/WzScanDBExport.h"

struct CWzHandleDeleter {
  bool destroyed = false;
  template <class T>
  void operator()(T* object) const {
    if (!destroyed) delete object;
  }
};

template <class T>
boost::shared_ptr<T> WzMakeHandle(T* object) {
  return boost::shared_ptr<T>(object, CWzHandleDeleter());
}

// Destroys the object of `handle` through its virtual destructor and leaves
// the handle pointing where it did. Nothing for an empty handle. An object not
// made by WzMakeHandle is destroyed too (its owner must not let it go again).
template <class T>
void WzDestroyHandleObject(const boost::shared_ptr<T>& handle) {
  T* object = handle.get();
  if (!object) return;
  CWzHandleDeleter* deleter = boost::get_deleter<CWzHandleDeleter>(handle);
  if (deleter) {
    if (deleter->destroyed) return;
    deleter->destroyed = true;
  }
  delete object;
}
