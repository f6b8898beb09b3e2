#ifndef OSTRELLED_SAFEARRAY_H
#define OSTRELLED_SAFEARRAY_H

#include <ostrelled/Types.h>

/// @file
/// Typed one-dimensional arrays: the flat safearray_* functions over a handle.

/// A one-dimensional array of elements of one TVARTYPE (defined inside the library).
/// Scalars are stored by value; TVT_BSTR elements are counted-string units owned by the
/// array. A handle must not be used from two threads at once.
struct safearray_handle;

extern "C" {
/// New array of uintElementCount zeroed elements (null units for TVT_BSTR), never null even
/// for an element type outside TVT_I1..TVT_BOOL: that gives an array whose count reads
/// uintElementCount while it has no storage, so every set, get and access on it fails.
OSTRELLED_EXPORT safearray_handle* safearray_create(TVARTYPE vtElementType, unsigned int uintElementCount);
/// Frees the array, its units and every copy still out from safearray_access_element,
/// then sets the caller's pointer to null. Null does nothing.
OSTRELLED_EXPORT void safearray_destroy(safearray_handle*& handle);
/// Resizes to 0 elements. Null is ignored.
OSTRELLED_EXPORT void safearray_clear(safearray_handle* handle);
/// The element type; TVT_NULL for a null handle.
OSTRELLED_EXPORT TVARTYPE safearray_get_element_type(safearray_handle* handle);
/// The element count; 0 for a null handle.
OSTRELLED_EXPORT unsigned int safearray_get_element_count(safearray_handle* handle);
/// Copies the value *element (of the array's own type; for TVT_BSTR an LPBSTRUNIT, deep
/// copied, the caller keeps its unit) into slot uintIndex. False, array unchanged, for a
/// null handle or element, an index at or past the count, or an array without storage.
OSTRELLED_EXPORT bool safearray_set_element(safearray_handle* handle, unsigned int uintIndex, void* element);
/// Copies slot uintIndex into *element. For TVT_BSTR *element receives a new unit (null
/// for an empty slot) that the caller frees with delete[]. Fails as safearray_set_element.
OSTRELLED_EXPORT bool safearray_get_element(safearray_handle* handle, unsigned int uintIndex, void* element);
/// *elementArray receives a new copy of the whole array whose TVT_BSTR units are NOT freed
/// with it: the caller must delete[] each of them (kept on purpose). The copy itself is
/// kept by the array until safearray_unaccess_element or destruction; writing into it
/// changes nothing. An empty array gives null and true.
OSTRELLED_EXPORT bool safearray_access_element(safearray_handle* handle, void** elementArray);
/// Frees every copy handed out by safearray_access_element (but not the string units in
/// them, see above). False only for a null handle.
OSTRELLED_EXPORT bool safearray_unaccess_element(safearray_handle* handle);
/// Reallocates to exactly uintElementCount elements, and changes the count even of an array
/// without storage while returning false for it (intended). The common prefix is kept and
/// new elements are zero; false also for a null handle.
OSTRELLED_EXPORT bool safearray_resize(safearray_handle* handle, unsigned int uintElementCount);
}

#endif
