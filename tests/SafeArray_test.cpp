#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include <ostrelled/BStr.h>
#include <ostrelled/SafeArray.h>
#include <ostrelled/ScalarTypes.h>

#include "DataType/SafeArrayHandle.h"

namespace {

// A caller's own counted-string unit holding text (terminator counted).
LPBSTRUNIT makeUnit(const char* text) {
  CBStr owner(text);
  return owner.detach();
}

std::string unitText(LPBSTRUNIT unit) {
  if (unit == nullptr) return "<null>";
  CBStr reader(unit);
  return static_cast<const char*>(reader);
}

std::string elementText(safearray_handle* array, unsigned int index) {
  LPBSTRUNIT unit = nullptr;
  if (!safearray_get_element(array, index, &unit)) return "<failed>";
  std::string text = unitText(unit);
  delete[] unit;  // get hands out a new unit that the caller owns
  return text;
}

INT intAt(safearray_handle* array, unsigned int index) {
  INT value = -12345;
  EXPECT_TRUE(safearray_get_element(array, index, &value)) << "index " << index;
  return value;
}

safearray_handle* intArray(std::initializer_list<INT> values) {
  safearray_handle* array = safearray_create(TVT_INT, static_cast<unsigned int>(values.size()));
  unsigned int index = 0;
  for (INT value : values) safearray_set_element(array, index++, &value);
  return array;
}

// Stores a value with every byte set in the middle slot of three and checks, through a
// whole-array copy, that exactly that slot's bytes changed.
template <class T>
void expectMiddleSlotOnly(TVARTYPE vt, const char* name) {
  SCOPED_TRACE(name);
  safearray_handle* array = safearray_create(vt, 3);
  EXPECT_EQ(safearray_get_element_type(array), vt);
  T value;
  std::memset(&value, 1, sizeof value);  // all bytes 1 is a valid value of every scalar, bool included
  EXPECT_TRUE(safearray_set_element(array, 1, &value));

  T back;
  std::memset(&back, 0, sizeof back);
  EXPECT_TRUE(safearray_get_element(array, 1, &back));
  EXPECT_EQ(std::memcmp(&back, &value, sizeof value), 0);

  void* copy = nullptr;
  ASSERT_TRUE(safearray_access_element(array, &copy));
  const unsigned char* bytes = static_cast<const unsigned char*>(copy);
  for (size_t i = 0; i < 3 * sizeof(T); ++i) {
    const bool inMiddle = i >= sizeof(T) && i < 2 * sizeof(T);
    EXPECT_EQ(bytes[i], inMiddle ? 1 : 0) << "byte " << i;
  }
  safearray_destroy(array);
}

}  // namespace

// Replacing the global allocator clashes with the sanitizers' own, so the counting
// allocator exists only in the plain build.
#if defined(__SANITIZE_ADDRESS__)
#define OSTRELLED_COUNT_ALLOCATIONS 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OSTRELLED_COUNT_ALLOCATIONS 0
#endif
#endif
#ifndef OSTRELLED_COUNT_ALLOCATIONS
#define OSTRELLED_COUNT_ALLOCATIONS 1
#endif

#if OSTRELLED_COUNT_ALLOCATIONS
// Counts global allocations while armed, to prove that scalar element access allocates nothing.
namespace {
bool g_countAllocations = false;
int g_allocations = 0;
}  // namespace

void* operator new(size_t size) {
  if (g_countAllocations) ++g_allocations;
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
#endif

TEST(SafeArray, CreateGivesZeroedElementsOfTheRequestedType) {
  safearray_handle* array = safearray_create(TVT_INT, 3);
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(safearray_get_element_type(array), TVT_INT);
  EXPECT_EQ(safearray_get_element_count(array), 3u);
  for (unsigned int i = 0; i < 3; ++i) EXPECT_EQ(intAt(array, i), 0);
  safearray_destroy(array);
  EXPECT_EQ(array, nullptr);
  safearray_destroy(array);  // null again: nothing happens
}

TEST(SafeArray, EachScalarTypeStoresItsOwnWidthWithoutTouchingNeighbours) {
#define OSTRELLED_CHECK_SCALAR(name, type, tag, member, format, typeName) expectMiddleSlotOnly<type>(tag, #name);
  OSTRELLED_SCALAR_TYPES(OSTRELLED_CHECK_SCALAR)
#undef OSTRELLED_CHECK_SCALAR
}

TEST(SafeArray, ResizeKeepsTheCommonPrefixAndZeroesNewElements) {
  safearray_handle* array = intArray({7, 8, 9});
  EXPECT_TRUE(safearray_resize(array, 5));
  EXPECT_EQ(safearray_get_element_count(array), 5u);
  const INT grown[] = {7, 8, 9, 0, 0};
  for (unsigned int i = 0; i < 5; ++i) EXPECT_EQ(intAt(array, i), grown[i]);

  EXPECT_TRUE(safearray_resize(array, 2));
  EXPECT_EQ(safearray_get_element_count(array), 2u);
  EXPECT_EQ(intAt(array, 0), 7);
  EXPECT_EQ(intAt(array, 1), 8);
  INT value = 0;
  EXPECT_FALSE(safearray_get_element(array, 2, &value));

  // Same count: success without reallocating.
  void* buffer = array->pReserveMemory;
  EXPECT_TRUE(safearray_resize(array, 2));
  EXPECT_EQ(array->pReserveMemory, buffer);

  safearray_clear(array);
  EXPECT_EQ(safearray_get_element_count(array), 0u);
  EXPECT_EQ(array->pReserveMemory, nullptr);
  EXPECT_TRUE(safearray_resize(array, 1));
  EXPECT_EQ(intAt(array, 0), 0);
  safearray_destroy(array);
}

TEST(SafeArray, BadInputFailsAndLeavesTheArrayUnchanged) {
  safearray_handle* array = intArray({1, 2, 3});
  safearray_handle* nullTyped = safearray_create(TVT_NULL, 4);
  safearray_handle* pastBool = safearray_create(static_cast<TVARTYPE>(15), 2);
  INT value = 99;
  struct Row {
    const char* what;
    safearray_handle* handle;
    unsigned int index;
    void* element;
  } rows[] = {
      {"null handle", nullptr, 0, &value},       {"index equal to count", array, 3, &value},
      {"index far past count", array, ~0u, &value}, {"null element", array, 0, nullptr},
      {"TVT_NULL array", nullTyped, 0, &value},   {"type past TVT_BOOL", pastBool, 0, &value},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_FALSE(safearray_set_element(row.handle, row.index, row.element));
    EXPECT_FALSE(safearray_get_element(row.handle, row.index, row.element));
    EXPECT_EQ(value, 99);
  }
  for (unsigned int i = 0; i < 3; ++i) EXPECT_EQ(intAt(array, i), static_cast<INT>(i + 1));

  void* copy = &value;
  EXPECT_FALSE(safearray_access_element(nullptr, &copy));
  EXPECT_FALSE(safearray_access_element(array, nullptr));
  EXPECT_FALSE(safearray_access_element(nullTyped, &copy));
  EXPECT_FALSE(safearray_access_element(pastBool, &copy));
  EXPECT_EQ(copy, &value);
  EXPECT_TRUE(nullTyped->m_AllocDataBlockList.empty());

  EXPECT_FALSE(safearray_resize(nullptr, 1));
  EXPECT_FALSE(safearray_unaccess_element(nullptr));
  safearray_clear(nullptr);
  EXPECT_EQ(safearray_get_element_type(nullptr), TVT_NULL);
  EXPECT_EQ(safearray_get_element_count(nullptr), 0u);

  safearray_destroy(pastBool);
  safearray_destroy(nullTyped);
  safearray_destroy(array);
}

TEST(SafeArray, ArrayWithoutElementTypeKeepsItsCountButNoStorage) {
  safearray_handle* array = safearray_create(TVT_NULL, 4);
  EXPECT_EQ(safearray_get_element_type(array), TVT_NULL);
  EXPECT_EQ(safearray_get_element_count(array), 4u);
  EXPECT_EQ(array->pReserveMemory, nullptr);
  // Resize reports failure yet takes the new count (intended).
  EXPECT_FALSE(safearray_resize(array, 7));
  EXPECT_EQ(safearray_get_element_count(array), 7u);
  EXPECT_TRUE(safearray_resize(array, 7));
  EXPECT_EQ(array->pReserveMemory, nullptr);
  safearray_destroy(array);
}

TEST(SafeArray, StringElementsAreDeepCopiesInAndOut) {
  safearray_handle* array = safearray_create(TVT_BSTR, 3);
  EXPECT_EQ(elementText(array, 0), "<null>");  // new string elements are null units

  LPBSTRUNIT mine = makeUnit("alpha");
  EXPECT_TRUE(safearray_set_element(array, 0, &mine));
  EXPECT_NE(array->pBSTRUnitArray[0], mine);
  mine[4].character = 'A';  // the caller's unit stays the caller's
  EXPECT_EQ(elementText(array, 0), "alpha");

  LPBSTRUNIT out = mine;
  EXPECT_TRUE(safearray_get_element(array, 0, &out));
  EXPECT_NE(out, mine);
  EXPECT_NE(out, array->pBSTRUnitArray[0]);
  EXPECT_EQ(unitText(out), "alpha");
  delete[] out;

  // Overwriting frees the old unit (LeakSanitizer would report it otherwise); a null
  // unit empties the slot.
  LPBSTRUNIT other = makeUnit("beta");
  EXPECT_TRUE(safearray_set_element(array, 0, &other));
  EXPECT_EQ(elementText(array, 0), "beta");
  LPBSTRUNIT none = nullptr;
  EXPECT_TRUE(safearray_set_element(array, 0, &none));
  EXPECT_EQ(elementText(array, 0), "<null>");
  delete[] other;
  delete[] mine;
  safearray_destroy(array);
}

TEST(SafeArray, ResizingStringsFreesDroppedUnitsAndKeepsTheRest) {
  safearray_handle* array = safearray_create(TVT_BSTR, 4);
  const char* texts[] = {"zero", "one", "two", "three"};
  for (unsigned int i = 0; i < 4; ++i) {
    LPBSTRUNIT unit = makeUnit(texts[i]);
    safearray_set_element(array, i, &unit);
    delete[] unit;
  }
  EXPECT_TRUE(safearray_resize(array, 2));  // "two" and "three" freed here
  EXPECT_EQ(elementText(array, 0), "zero");
  EXPECT_EQ(elementText(array, 1), "one");
  EXPECT_TRUE(safearray_resize(array, 3));
  EXPECT_EQ(elementText(array, 1), "one");
  EXPECT_EQ(elementText(array, 2), "<null>");
  safearray_destroy(array);  // frees the remaining units
}

TEST(SafeArray, AccessHandsOutIndependentCopiesFreedOnUnaccess) {
  safearray_handle* array = intArray({4, 5, 6});
  void* first = nullptr;
  void* second = nullptr;
  ASSERT_TRUE(safearray_access_element(array, &first));
  ASSERT_TRUE(safearray_access_element(array, &second));
  ASSERT_NE(first, nullptr);
  EXPECT_NE(first, second);
  EXPECT_NE(first, array->pReserveMemory);
  EXPECT_EQ(array->m_AllocDataBlockList.size(), 2u);
  INT* copy = static_cast<INT*>(first);
  EXPECT_EQ(copy[2], 6);
  copy[2] = 60;  // a copy, not the array
  EXPECT_EQ(intAt(array, 2), 6);

  EXPECT_TRUE(safearray_unaccess_element(array));  // both copies freed
  EXPECT_TRUE(array->m_AllocDataBlockList.empty());
  EXPECT_TRUE(safearray_unaccess_element(array));

  // Copies still out when the array goes are freed with it.
  ASSERT_TRUE(safearray_access_element(array, &first));
  safearray_clear(array);
  void* empty = &first;
  EXPECT_TRUE(safearray_access_element(array, &empty));
  EXPECT_EQ(empty, nullptr);
  EXPECT_EQ(array->m_AllocDataBlockList.size(), 1u);  // an empty array records nothing
  safearray_destroy(array);
}

TEST(SafeArray, StringCopiesLeaveTheirUnitsToTheCaller) {
  safearray_handle* array = safearray_create(TVT_BSTR, 3);
  LPBSTRUNIT unit = makeUnit("kept");
  safearray_set_element(array, 1, &unit);
  delete[] unit;

  void* copy = nullptr;
  ASSERT_TRUE(safearray_access_element(array, &copy));
  LPBSTRUNIT units[3];
  std::memcpy(units, copy, sizeof units);
  EXPECT_EQ(units[0], nullptr);
  EXPECT_NE(units[1], array->pBSTRUnitArray[1]);
  EXPECT_EQ(unitText(units[1]), "kept");
  EXPECT_TRUE(safearray_unaccess_element(array));
  // Unaccess frees the copy's buffer only; its units are deliberately left to the caller.
  for (LPBSTRUNIT copied : units) delete[] copied;
  safearray_destroy(array);
}

#if OSTRELLED_COUNT_ALLOCATIONS
TEST(SafeArray, ScalarSetAndGetAllocateNothing) {
  safearray_handle* array = safearray_create(TVT_R8, 8);
  DOUBLE value = 2.5;
  g_allocations = 0;
  g_countAllocations = true;
  for (unsigned int i = 0; i < 8; ++i) {
    safearray_set_element(array, i, &value);
    safearray_get_element(array, i, &value);
  }
  g_countAllocations = false;
  EXPECT_EQ(g_allocations, 0);
  EXPECT_EQ(value, 2.5);
  safearray_destroy(array);
}
#endif
