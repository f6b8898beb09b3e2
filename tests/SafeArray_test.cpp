#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <ostrelled/BStr.h>
#include <ostrelled/SafeArray.h>
#include <ostrelled/ScalarTypes.h>

#include "DataType/SafeArrayHandle.h"

namespace {

LPBSTRUNIT makeUnit(const char* text) { return CBStr(text).detach(); }

// String element index as text; get hands out a new unit, freed here.
std::string textAt(safearray_handle* array, unsigned int index) {
  LPBSTRUNIT unit = nullptr;
  if (!safearray_get_element(array, index, &unit)) return "<failed>";
  std::string text = unit != nullptr ? static_cast<const char*>(CBStr(unit)) : "<null>";
  delete[] unit;
  return text;
}

// Sets the middle of three elements to all one-bytes (a valid value of every scalar) and
// checks through a whole-array copy that exactly its bytes changed.
template <class T>
void expectMiddleSlotOnly(TVARTYPE vt) {
  safearray_handle* array = safearray_create(vt, 3);
  T value, back{};
  std::memset(&value, 1, sizeof value);
  EXPECT_TRUE(safearray_set_element(array, 1, &value) && safearray_get_element(array, 1, &back));
  EXPECT_EQ(std::memcmp(&back, &value, sizeof value), 0);
  void* copy = nullptr;
  ASSERT_TRUE(safearray_access_element(array, &copy));
  for (size_t i = 0; i < 3 * sizeof(T); ++i)
    EXPECT_EQ(static_cast<unsigned char*>(copy)[i], i >= sizeof(T) && i < 2 * sizeof(T)) << vt << ":" << i;
  safearray_destroy(array);
}

}  // namespace

TEST(SafeArray, EachScalarTypeStoresItsOwnWidthWithoutTouchingNeighbours) {
#define OSTRELLED_CHECK_SCALAR(name, type, tag, member, format, typeName) expectMiddleSlotOnly<type>(tag);
  OSTRELLED_SCALAR_TYPES(OSTRELLED_CHECK_SCALAR)
#undef OSTRELLED_CHECK_SCALAR
}

TEST(SafeArray, ResizeKeepsTheCommonPrefixAndZeroesNewElements) {
  safearray_handle* array = safearray_create(TVT_INT, 3);
  INT values[5] = {7, 8, 9};
  for (unsigned int i = 0; i < 3; ++i) safearray_set_element(array, i, &values[i]);
  EXPECT_TRUE(safearray_resize(array, 5));
  for (unsigned int i = 0; i < 5; ++i) {
    INT value = -1;
    EXPECT_TRUE(safearray_get_element(array, i, &value));
    EXPECT_EQ(value, values[i]);
  }
  EXPECT_TRUE(safearray_resize(array, 2));
  EXPECT_EQ(safearray_get_element_count(array), 2u);
  void* buffer = array->pReserveMemory;
  EXPECT_TRUE(safearray_resize(array, 2));  // same count: no reallocation
  EXPECT_EQ(array->pReserveMemory, buffer);
  safearray_clear(array);
  EXPECT_EQ(array->pReserveMemory, nullptr);
  safearray_destroy(array);
  EXPECT_EQ(array, nullptr);
  safearray_destroy(array);
}

TEST(SafeArray, BadInputFailsAndLeavesTheArrayUnchanged) {
  safearray_handle* array = safearray_create(TVT_INT, 3);
  safearray_handle* untyped = safearray_create(TVT_NULL, 4);
  safearray_handle* pastBool = safearray_create(static_cast<TVARTYPE>(15), 2);
  INT value = 99;
  struct Row {
    safearray_handle* handle;
    unsigned int index;
    void* element;
  } rows[] = {{nullptr, 0, &value}, {array, 3, &value},    {array, ~0u, &value},
              {array, 0, nullptr},  {untyped, 0, &value}, {pastBool, 0, &value}};
  for (const Row& row : rows) {
    EXPECT_FALSE(safearray_set_element(row.handle, row.index, row.element)) << &row - rows;
    EXPECT_FALSE(safearray_get_element(row.handle, row.index, row.element)) << &row - rows;
  }
  EXPECT_EQ(value, 99);
  void* copy = &value;
  EXPECT_FALSE(safearray_access_element(nullptr, &copy) || safearray_access_element(array, nullptr) ||
               safearray_access_element(untyped, &copy));
  EXPECT_EQ(copy, &value);
  EXPECT_FALSE(safearray_resize(nullptr, 1) || safearray_unaccess_element(nullptr));
  EXPECT_EQ(safearray_get_element_type(nullptr), TVT_NULL);
  EXPECT_EQ(safearray_get_element_count(nullptr), 0u);

  // Without an element type there is never storage, yet the count is kept, even when
  // a failing resize changes it (intended).
  EXPECT_EQ(safearray_get_element_count(untyped), 4u);
  EXPECT_FALSE(safearray_resize(untyped, 7));
  EXPECT_EQ(safearray_get_element_count(untyped), 7u);
  EXPECT_EQ(untyped->pReserveMemory, nullptr);
  safearray_destroy(pastBool);
  safearray_destroy(untyped);
  safearray_destroy(array);
}

TEST(SafeArray, StringElementsAreDeepCopiesOwnedByTheArray) {
  safearray_handle* array = safearray_create(TVT_BSTR, 4);
  EXPECT_EQ(textAt(array, 0), "<null>");
  LPBSTRUNIT mine = makeUnit("alpha");
  EXPECT_TRUE(safearray_set_element(array, 0, &mine));
  EXPECT_NE(array->pBSTRUnitArray[0], mine);
  mine[4].character = 'A';  // the caller's unit stays the caller's
  EXPECT_EQ(textAt(array, 0), "alpha");

  const char* texts[] = {"beta", "one", "two", "three"};  // "alpha" is freed on overwrite
  for (unsigned int i = 0; i < 4; ++i) {
    LPBSTRUNIT unit = makeUnit(texts[i]);
    safearray_set_element(array, i, &unit);
    delete[] unit;
  }
  LPBSTRUNIT none = nullptr;
  EXPECT_TRUE(safearray_set_element(array, 1, &none));
  EXPECT_TRUE(safearray_resize(array, 1));  // "two" and "three" freed here
  EXPECT_TRUE(safearray_resize(array, 2));
  EXPECT_EQ(textAt(array, 0), "beta");
  EXPECT_EQ(textAt(array, 1), "<null>");
  delete[] mine;
  safearray_destroy(array);  // LeakSanitizer checks that every unit went
}

TEST(SafeArray, AccessHandsOutIndependentCopiesFreedOnUnaccess) {
  safearray_handle* array = safearray_create(TVT_INT, 3);
  void* first = nullptr;
  void* second = nullptr;
  ASSERT_TRUE(safearray_access_element(array, &first) && safearray_access_element(array, &second));
  EXPECT_NE(first, second);
  static_cast<INT*>(first)[2] = 60;  // a copy, not the array
  INT value = -1;
  EXPECT_TRUE(safearray_get_element(array, 2, &value));
  EXPECT_EQ(value, 0);
  EXPECT_TRUE(safearray_unaccess_element(array));  // both freed
  EXPECT_TRUE(array->m_AllocDataBlockList.empty());
  ASSERT_TRUE(safearray_access_element(array, &first));  // still out at destruction: freed then
  safearray_clear(array);
  EXPECT_TRUE(safearray_access_element(array, &first));
  EXPECT_EQ(first, nullptr);
  EXPECT_EQ(array->m_AllocDataBlockList.size(), 1u);  // an empty array records nothing
  safearray_destroy(array);

  array = safearray_create(TVT_BSTR, 2);
  LPBSTRUNIT unit = makeUnit("kept");
  safearray_set_element(array, 1, &unit);
  delete[] unit;
  ASSERT_TRUE(safearray_access_element(array, &first));
  LPBSTRUNIT units[2];
  std::memcpy(units, first, sizeof units);
  EXPECT_EQ(units[0], nullptr);
  EXPECT_NE(units[1], array->pBSTRUnitArray[1]);
  EXPECT_STREQ(CBStr(units[1]), "kept");
  EXPECT_TRUE(safearray_unaccess_element(array));
  // Unaccess frees the copy's buffer only; its units are deliberately left to the caller.
  for (LPBSTRUNIT copied : units) delete[] copied;
  safearray_destroy(array);
}
