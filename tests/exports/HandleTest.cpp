// Creation, destruction and initialisation of database handles through the
// exported functions.
#include <boost/weak_ptr.hpp>

#include "ExportsTestSupport.h"
#include "WzScanDB/WzHandle.h"
#include "table/TableStatus.h"

namespace exportstest {
namespace {

TEST_F(ExportsTest, CreateReplacesTheHandleAndKeepsItsOwnPrototype) {
  WzScanDBRecordPtr prototype;
  CreateGlusterEmptyRecordObject(prototype);
  const long uses = prototype.use_count();
  WzScanDBPtr handle;
  CreateWzScanDBObject(handle, prototype);
  ASSERT_TRUE(handle && boost::get_deleter<CWzHandleDeleter>(handle));
  EXPECT_FALSE(WzScanDBObjectIsInitialized(handle));
  EXPECT_EQ(uses, prototype.use_count()) << "the database holds a clone";
  // A second create into the same handle releases the first object.
  boost::weak_ptr<WzScanDB> first = handle;
  CreateWzScanDBObject(handle, prototype);
  EXPECT_TRUE(first.expired());

  // The caller destroys its prototype outright; the database must not notice
  // (under AddressSanitizer a shared prototype would be a use after free).
  DeleteGlusterRecordObject(prototype);
  TempDir dir;
  std::string path = dir.path();
  ASSERT_TRUE(Call(WzScanDBObjectInitialize, handle, path).IsSuccess());
  EXPECT_TRUE(WzScanDBObjectIsInitialized(handle));
  EXPECT_OK(Call(WzScanDBObjectAddFile, handle, Generic("/f")));
  EXPECT_TRUE(Stored(handle, "/f"));
  EXPECT_OK(Call(WzScanDBObjectClose, handle));
  EXPECT_FALSE(WzScanDBObjectIsInitialized(handle));

  // A null prototype gives a database that refuses to initialise.
  WzScanDBPtr empty;
  CreateWzScanDBObject(empty, WzScanDBRecordBasePtr());
  ASSERT_TRUE(empty);
  CKoError err = Call(WzScanDBObjectInitialize, empty, path);
  EXPECT_EQ(22, err.GetCode());
  EXPECT_EQ("Cannot Initialize Database because the Record Structure is not initialized",
            err.GetTopMessage());
}

TEST_F(ExportsTest, DestroyLeavesTheHandleAndDroppingItIsHarmless) {
  DestroyWzScanDBObject(WzScanDBPtr());  // nothing to do, nothing fails
  TempDir dir;
  std::string path = dir.path();
  WzScanDBPtr writer = OpenGeneric(path, {"/f"});
  Call(WzScanDBObjectClose, writer);
  DestroyWzScanDBObject(writer);
  writer.reset();

  // A table opened at the engine level holds the files' lock until the
  // object is destroyed: a second database cannot open them meanwhile.
  WzScanDBPtr handle = NewHandle();
  handle->initialize((path + "/WzScanDB").c_str());
  CKoError err;
  WzScanDBObjectOpen(handle, err, WZIndexing::kAccessReadWrite);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_EQ(TBL_IN_USE, Call(WzScanDBObjectInitialize, NewHandle(), path).GetCode());

  WzScanDB* const object = handle.get();
  WzScanDBPtr alias = handle;
  DestroyWzScanDBObject(handle);
  EXPECT_EQ(object, handle.get());  // neither reset nor released
  EXPECT_EQ(2, handle.use_count());
  EXPECT_TRUE(boost::get_deleter<CWzHandleDeleter>(alias)->destroyed);
  DestroyWzScanDBObject(alias);  // already destroyed: nothing more happens

  // The destructor closed the table: the files are free again.
  WzScanDBPtr reader = NewHandle();
  ASSERT_TRUE(Call(WzScanDBObjectInitialize, reader, path).IsSuccess());
  EXPECT_TRUE(Stored(reader, "/f"));
  Call(WzScanDBObjectClose, reader);
  handle.reset();  // the deleter knows the object is gone
  alias.reset();
}

}  // namespace
}  // namespace exportstest
