#include "TestSupport.h"

// Null handles and pointers, indexes and element types: checked against a model by fuzz/safearray_fuzz.cpp.
TEST(SafeArray, StringElementsAreDeepCopiesOwnedByTheArray) {
  safearray_handle* array = safearray_create(TVT_BSTR, 3);
  LPBSTRUNIT mine = CBStr("alpha").detach();
  EXPECT_TRUE(safearray_set_element(array, 0, &mine));
  mine[4].character = 'A';  // the caller's unit stays the caller's
  EXPECT_TRUE(safearray_set_element(array, 1, &mine) && safearray_set_element(array, 2, &mine));
  delete[] mine;
  LPBSTRUNIT got = nullptr;
  EXPECT_TRUE(safearray_get_element(array, 1, &got));
  EXPECT_STREQ(CBStr(got), "Alpha");
  delete[] got;  // get hands out a new unit
  LPBSTRUNIT none = nullptr;
  EXPECT_TRUE(safearray_set_element(array, 1, &none));                    // frees the unit it replaces
  EXPECT_TRUE(safearray_resize(array, 2) && safearray_resize(array, 3));  // and the one in slot 2
  void* copy = nullptr;
  ASSERT_TRUE(safearray_access_element(array, &copy));
  LPBSTRUNIT units[3];
  std::memcpy(units, copy, sizeof units);
  EXPECT_STREQ(CBStr(units[0]), "alpha");
  EXPECT_TRUE(units[1] == nullptr && units[2] == nullptr);
  EXPECT_TRUE(safearray_unaccess_element(array));
  // Unaccess frees the copy's buffer only; the units in it are left to the caller on purpose.
  for (LPBSTRUNIT copied : units) delete[] copied;
  safearray_destroy(array);
}
