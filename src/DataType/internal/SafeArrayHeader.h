#ifndef OSTRELLED_SRC_DATATYPE_INTERNAL_SAFEARRAYHEADER_H
#define OSTRELLED_SRC_DATATYPE_INTERNAL_SAFEARRAYHEADER_H

// The safe array's header and its handle, defined in SafeArray.cpp; private to
// that source.

#include <list>

#include <ostrelled/SafeArray.h>

// The array header: element type, count and one buffer seen through typed pointers.
struct tagTSAFEITEMARRAY {
  TVARTYPE vt;
  unsigned int m_uintArraySize;
  union {
    CHAR* pCharArray;
    BYTE* pByteArray;
    SHORT* pShortArray;
    USHORT* pUShortArray;
    INT* pIntArray;
    UINT* pUIntArray;
    LONG* pLongArray;
    ULONG* pULongArray;
    LONGLONG* pLongLongArray;
    ULONGLONG* pULongLongArray;
    FLOAT* pFloatArray;
    DOUBLE* pDoubleArray;
    LPBSTRUNIT* pBSTRUnitArray;
    TVARIANT_BOOL* pBoolArray;
    void* pReserveMemory;
  };
};

// One copy handed out by safearray_access_element.
typedef struct _ALLOC_DATA_BLOCK {
  TVARTYPE m_vtAllocItemType;
  void* m_pAllocItemBuffer;
  unsigned int m_uintAllocItemCount;
} ALLOC_DATA_BLOCK;

// The array behind a safearray_handle pointer; private to the library.
struct safearray_handle : tagTSAFEITEMARRAY {
  safearray_handle(TVARTYPE vtElementType, unsigned int uintElementCount);
  virtual ~safearray_handle();
  safearray_handle(const safearray_handle&) = delete;
  safearray_handle& operator=(const safearray_handle&) = delete;

  // Reallocates to exactly uintElementCount elements; see safearray_resize.
  bool resize(unsigned int uintElementCount);
  void clear() { resize(0); }
  // Frees every copy handed out, in the order they went out, and empties the list.
  void releaseAllBlock();
  void appendDataBlock(const ALLOC_DATA_BLOCK& block) { m_AllocDataBlockList.push_back(block); }
  // Frees the copy's buffer, not the string units in it (intended), and resets the record.
  void releaseDataBlock(ALLOC_DATA_BLOCK& block);

  std::list<ALLOC_DATA_BLOCK> m_AllocDataBlockList;
};

#endif
