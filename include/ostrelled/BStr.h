#ifndef OSTRELLED_BSTR_H
#define OSTRELLED_BSTR_H

#include <ostrelled/Types.h>

/// @file
/// Counted strings: the flat bstr_* functions over a handle, and CBStr, a scoped owner.

/// Owner of at most one counted-string block (defined inside the library).
struct bstr_handle;

extern "C" {
/// New handle with no value.
OSTRELLED_EXPORT bstr_handle* bstr_create();
/// Deletes the handle and its value, then sets the caller's pointer to null. Null does nothing.
OSTRELLED_EXPORT void bstr_destroy(bstr_handle*& handle);
/// Frees the value; the handle stays usable and empty.
OSTRELLED_EXPORT void bstr_clear(bstr_handle* handle);
/// Replaces the value by a copy of text with its terminator (length word strlen + 1); a
/// null text empties the handle. Null handle: true for a null text, false otherwise.
/// The source may lie inside the handle's own value.
/// @return true when the value was replaced or emptied.
OSTRELLED_EXPORT bool bstr_set_text(bstr_handle* handle, const char* text);
/// Copies len raw bytes (no terminator added); len 0 gives a present, empty block and
/// null data empties the handle. A negative len is refused: false, value unchanged.
OSTRELLED_EXPORT bool bstr_set_data(bstr_handle* handle, const char* data, int len);
/// Deep copy of a caller's block. A block with a negative length word is refused:
/// false, value unchanged.
OSTRELLED_EXPORT bool bstr_set_bstrunit(bstr_handle* handle, LPBSTRUNIT var);
/// Deep copy of handle2's value that leaves the handle empty when both are the same: the
/// old value is freed before handle2 is read, so bstr_set_bstr(h, h) empties h (intended).
OSTRELLED_EXPORT bool bstr_set_bstr(bstr_handle* handle1, bstr_handle* handle2);
/// The data bytes (after the length word), still owned by the handle; null when empty.
OSTRELLED_EXPORT const char* bstr_get_data(bstr_handle* handle);
/// The length word, read even from an empty handle, which is not checked: ask bstr_get_data
/// first. Kept that way on purpose; 0 for a null handle.
OSTRELLED_EXPORT int bstr_get_length(bstr_handle* handle);
/// Same length and same data bytes. Null handles are equal only to each other.
OSTRELLED_EXPORT bool bstr_equal_bstr(bstr_handle* handle1, bstr_handle* handle2);
/// bstr_equal_bstr against a raw block; a null handle equals only a null block.
OSTRELLED_EXPORT bool bstr_equal_bstrunit(bstr_handle* handle, LPBSTRUNIT var);
/// Frees the value and takes ownership of var without copying. A null handle leaves var
/// with the caller; attaching the block the handle already owns changes nothing.
OSTRELLED_EXPORT void bstr_attach_bstrunit(bstr_handle* handle, LPBSTRUNIT var);
/// Hands the value to the caller (who frees it with delete[]) and leaves the handle empty.
OSTRELLED_EXPORT LPBSTRUNIT bstr_detach_bstrunit(bstr_handle* handle);
}

/// Scoped owner of one bstr_handle that is emptied by assignment to itself (the value is
/// freed before it is read, as with bstr_set_bstr). Copies are deep.
class OSTRELLED_EXPORT CBStr {
 public:
  /// An empty string (no block).
  CBStr();
  /// A copy of text with its terminator; null gives an empty object.
  CBStr(const char* text) : CBStr() { bstr_set_text(m_hBstrHandle, text); }
  /// A copy of len raw bytes, as bstr_set_data (a negative len gives an empty object).
  CBStr(const char* data, int len) : CBStr() { bstr_set_data(m_hBstrHandle, data, len); }
  /// A deep copy of a caller's block, which the caller keeps.
  CBStr(LPBSTRUNIT bstrValue) : CBStr() { bstr_set_bstrunit(m_hBstrHandle, bstrValue); }
  /// A deep copy of other's value.
  CBStr(const CBStr& other) : CBStr() { bstr_set_bstr(m_hBstrHandle, other.m_hBstrHandle); }
  /// Frees the value.
  virtual ~CBStr();

  /// Replaces the value by a copy of text, as bstr_set_text.
  CBStr& operator=(const char* text);
  /// Replaces the value by a deep copy of a caller's block, as bstr_set_bstrunit.
  CBStr& operator=(LPBSTRUNIT bstrValue) {
    bstr_set_bstrunit(m_hBstrHandle, bstrValue);
    return *this;
  }
  /// Deep copy of other's value; assigning an object to itself empties it.
  CBStr& operator=(const CBStr& other) {
    bstr_set_bstr(m_hBstrHandle, other.m_hBstrHandle);
    return *this;
  }
  /// Same length and data as a raw block, as bstr_equal_bstrunit.
  bool operator==(LPBSTRUNIT bstrValue) const { return bstr_equal_bstrunit(m_hBstrHandle, bstrValue); }
  /// Same length and data, as bstr_equal_bstr.
  bool operator==(const CBStr& other) const { return bstr_equal_bstr(m_hBstrHandle, other.m_hBstrHandle); }

  /// The data bytes; null when empty.
  operator const char*() const;
  /// Takes ownership of bstrValue.
  void attach(LPBSTRUNIT bstrValue);
  /// Gives up the value; the caller frees it with delete[].
  LPBSTRUNIT detach();
  /// Frees the value; the object stays usable and empty.
  void clear() { bstr_clear(m_hBstrHandle); }
  /// The length word, which must not be asked of an empty object (see bstr_get_length).
  int get_length() const { return bstr_get_length(m_hBstrHandle); }

 private:
  bstr_handle* m_hBstrHandle;
};

#endif
