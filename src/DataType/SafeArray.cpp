// Typed safe arrays: one buffer per array, element access by type tag, bounds checked.

#include "DataType/internal/SafeArrayHeader.h"

#include <algorithm>
#include <cstring>

#include "DataType/internal/BStrBlock.h"
#include "DataType/internal/ScalarDispatch.h"
#include "internal/Handle.h"

namespace internal = ostrelled::internal;

namespace {

// Calls f(ScalarTag<T>) with the C++ type of one element of vt: the scalar list's
// type, or LPBSTRUNIT for TVT_BSTR. False for anything that is no element type.
template <class F>
bool visitElement(TVARTYPE vt, F&& f) {
  if (vt == TVT_BSTR) return f(internal::ScalarTag<LPBSTRUNIT>{});
  return internal::visitScalar(vt, f);
}

// Bytes per element; 0 for TVT_NULL and values past TVT_BOOL.
size_t elementWidth(TVARTYPE vt) {
  size_t width = 0;
  visitElement(vt, [&width](auto tag) {
    width = sizeof(typename decltype(tag)::type);
    return true;
  });
  return width;
}

// Buffers are typed arrays of the element type, so they are freed with that type too.
void* allocateElements(TVARTYPE vt, unsigned int count) {
  void* buffer = nullptr;
  visitElement(vt, [&](auto tag) {
    buffer = new typename decltype(tag)::type[count]();
    return true;
  });
  return buffer;
}

void freeElements(TVARTYPE vt, void* buffer) {
  visitElement(vt, [buffer](auto tag) {
    delete[] static_cast<typename decltype(tag)::type*>(buffer);
    return true;
  });
}

void freeUnits(LPBSTRUNIT* units, unsigned int count) {
  for (unsigned int i = 0; i < count; ++i) internal::freeBlock(units[i]);
}

// A new zeroed buffer of count elements whose first keep elements copy source: bytes for
// scalars, deep copies for string units. On an allocation failure nothing is left behind.
void* copyElements(TVARTYPE vt, const void* source, unsigned int keep, unsigned int count) {
  void* buffer = allocateElements(vt, count);
  if (vt != TVT_BSTR) {
    if (keep > 0) std::memcpy(buffer, source, keep * elementWidth(vt));
    return buffer;
  }
  LPBSTRUNIT* units = static_cast<LPBSTRUNIT*>(buffer);
  const LPBSTRUNIT* from = static_cast<const LPBSTRUNIT*>(source);
  try {
    for (unsigned int i = 0; i < keep; ++i) units[i] = internal::copyBlock(from[i]);
  } catch (...) {
    freeUnits(units, keep);  // the rest are still null
    freeElements(vt, buffer);
    throw;
  }
  return buffer;
}

// Slot uintIndex of an array with storage, or null when a set or get must fail.
void* checkedSlot(safearray_handle* handle, unsigned int uintIndex, const void* element) {
  if (handle == nullptr || element == nullptr || uintIndex >= handle->m_uintArraySize) return nullptr;
  // A typeless array has a count but no storage; the buffer test is only a second guard,
  // as every typed array with a non-zero count has its buffer.
  const size_t width = elementWidth(handle->vt);
  if (width == 0 || handle->pReserveMemory == nullptr) return nullptr;
  return static_cast<unsigned char*>(handle->pReserveMemory) + uintIndex * width;
}

}  // namespace

// The type is fixed here for the array's whole life; the elements come from one resize,
// so a typeless array gets its count the same (deliberate) way as a later resize gives it.
safearray_handle::safearray_handle(TVARTYPE vtElementType, unsigned int uintElementCount) {
  vt = vtElementType;
  m_uintArraySize = 0;
  pReserveMemory = nullptr;
  resize(uintElementCount);
}

// Copies still out go with the array: callers are told that destruction frees them,
// units of string copies excepted.
safearray_handle::~safearray_handle() {
  releaseAllBlock();
  clear();
}

bool safearray_handle::resize(unsigned int uintElementCount) {
  if (uintElementCount == m_uintArraySize) return true;
  if (elementWidth(vt) == 0) {
    // The count changes although there is no storage behind it. Intended: such an array
    // reports the count it was given while every access to its elements fails.
    m_uintArraySize = uintElementCount;
    return false;
  }
  const unsigned int oldCount = m_uintArraySize;
  void* oldBuffer = pReserveMemory;
  // The new buffer is complete before the header changes, so an allocation failure
  // leaves the array as it was. Kept string units are copied, then all old ones freed.
  pReserveMemory = uintElementCount == 0
                       ? nullptr
                       : copyElements(vt, oldBuffer, std::min(oldCount, uintElementCount), uintElementCount);
  m_uintArraySize = uintElementCount;
  if (oldBuffer != nullptr) {
    if (vt == TVT_BSTR) freeUnits(static_cast<LPBSTRUNIT*>(oldBuffer), oldCount);
    freeElements(vt, oldBuffer);
  }
  return true;
}

void safearray_handle::releaseAllBlock() {
  for (ALLOC_DATA_BLOCK& block : m_AllocDataBlockList) releaseDataBlock(block);
  m_AllocDataBlockList.clear();
}

void safearray_handle::releaseDataBlock(ALLOC_DATA_BLOCK& block) {
  if (block.m_vtAllocItemType < TVT_I1 || block.m_vtAllocItemType > TVT_BOOL) return;
  // Only the buffer goes: the units of a string copy belong to whoever accessed it.
  // Intended; callers free those units themselves.
  if (block.m_pAllocItemBuffer != nullptr) freeElements(block.m_vtAllocItemType, block.m_pAllocItemBuffer);
  block.m_vtAllocItemType = TVT_NULL;
  block.m_pAllocItemBuffer = nullptr;
  block.m_uintAllocItemCount = 0;
}

safearray_handle* safearray_create(TVARTYPE vtElementType, unsigned int uintElementCount) {
  return new safearray_handle(vtElementType, uintElementCount);
}

void safearray_destroy(safearray_handle*& handle) { internal::destroyHandle(handle); }

void safearray_clear(safearray_handle* handle) {
  if (handle != nullptr) handle->clear();
}

TVARTYPE safearray_get_element_type(safearray_handle* handle) { return handle != nullptr ? handle->vt : TVT_NULL; }

unsigned int safearray_get_element_count(safearray_handle* handle) {
  return handle != nullptr ? handle->m_uintArraySize : 0;
}

bool safearray_set_element(safearray_handle* handle, unsigned int uintIndex, void* element) {
  void* slot = checkedSlot(handle, uintIndex, element);
  if (slot == nullptr) return false;
  if (handle->vt != TVT_BSTR) {
    std::memcpy(slot, element, elementWidth(handle->vt));
    return true;
  }
  // Copied before the old unit goes, so a failed allocation leaves the slot intact.
  LPBSTRUNIT copy = internal::copyBlock(*static_cast<LPBSTRUNIT*>(element));
  LPBSTRUNIT& unit = *static_cast<LPBSTRUNIT*>(slot);
  internal::freeBlock(unit);
  unit = copy;
  return true;
}

bool safearray_get_element(safearray_handle* handle, unsigned int uintIndex, void* element) {
  void* slot = checkedSlot(handle, uintIndex, element);
  if (slot == nullptr) return false;
  // A string leaves as a new unit; whatever *element held before is the caller's and is
  // overwritten, not freed.
  if (handle->vt == TVT_BSTR)
    *static_cast<LPBSTRUNIT*>(element) = internal::copyBlock(*static_cast<LPBSTRUNIT*>(slot));
  else
    std::memcpy(element, slot, elementWidth(handle->vt));
  return true;
}

bool safearray_access_element(safearray_handle* handle, void** elementArray) {
  if (handle == nullptr || elementArray == nullptr) return false;
  if (handle->m_uintArraySize == 0) {
    *elementArray = nullptr;
    return true;
  }
  if (elementWidth(handle->vt) == 0) return false;
  // The record goes on the list first: if the copy then fails to allocate, the record
  // holds no buffer and is simply skipped on release.
  handle->appendDataBlock({handle->vt, nullptr, handle->m_uintArraySize});
  ALLOC_DATA_BLOCK& block = handle->m_AllocDataBlockList.back();
  block.m_pAllocItemBuffer =
      copyElements(handle->vt, handle->pReserveMemory, handle->m_uintArraySize, handle->m_uintArraySize);
  *elementArray = block.m_pAllocItemBuffer;
  return true;
}

bool safearray_unaccess_element(safearray_handle* handle) {
  if (handle == nullptr) return false;
  handle->releaseAllBlock();
  return true;
}

bool safearray_resize(safearray_handle* handle, unsigned int uintElementCount) {
  return handle != nullptr && handle->resize(uintElementCount);
}
