// Counted strings: the bstr_* functions over the blocks of internal/BStrBlock.h.

#include <ostrelled/BStr.h>

#include <cstring>

#include "DataType/internal/BStrBlock.h"
#include "internal/Handle.h"

namespace internal = ostrelled::internal;

using namespace ostrelled::internal;

namespace {

// The common path of the setters whose source is caller memory (text, data, a block).
// The copy is made before the old value is freed, so a source that lies inside the
// handle's own value stays readable. A null source leaves the handle empty.
template <class MakeCopy>
bool replaceValue(bstr_handle* handle, const void* source, MakeCopy makeCopy) {
  if (handle == nullptr) return source == nullptr;
  LPBSTRUNIT copy = source == nullptr ? nullptr : makeCopy();
  bstr_clear(handle);
  handle->m_bstrValue = copy;
  return true;
}

}  // namespace

bstr_handle* bstr_create() { return new bstr_handle(); }

void bstr_destroy(bstr_handle*& handle) { internal::destroyHandle(handle); }

void bstr_clear(bstr_handle* handle) {
  if (handle != nullptr) freeBlock(handle->m_bstrValue);
}

bool bstr_set_text(bstr_handle* handle, const char* text) {
  // The length word counts the terminator, which is copied too.
  return replaceValue(handle, text, [text] { return makeBlock(text, std::strlen(text) + 1); });
}

bool bstr_set_data(bstr_handle* handle, const char* data, int len) {
  if (handle != nullptr && len < 0) return false;
  return replaceValue(handle, data, [data, len] { return makeBlock(data, static_cast<size_t>(len)); });
}

bool bstr_set_bstrunit(bstr_handle* handle, LPBSTRUNIT var) {
  if (var != nullptr && blockLength(var) < 0) return false;
  return replaceValue(handle, var, [var] { return copyBlock(var); });
}

bool bstr_set_bstr(bstr_handle* handle1, bstr_handle* handle2) {
  if (handle1 == nullptr) return handle2 == nullptr;
  // Freed before handle2 is read: bstr_set_bstr(h, h) leaves h empty. Intended.
  bstr_clear(handle1);
  if (handle2 != nullptr) handle1->m_bstrValue = copyBlock(handle2->m_bstrValue);
  return true;
}

const char* bstr_get_data(bstr_handle* handle) {
  if (handle == nullptr || handle->m_bstrValue == nullptr) return nullptr;
  return blockData(handle->m_bstrValue);
}

int bstr_get_length(bstr_handle* handle) {
  // An empty handle's missing length word is read unchecked; intended, callers test
  // bstr_get_data first.
  return handle == nullptr ? 0 : blockLength(handle->m_bstrValue);
}

bool bstr_equal_bstr(bstr_handle* handle1, bstr_handle* handle2) {
  if (handle1 == nullptr) return handle2 == nullptr;
  if (handle2 == nullptr) return false;
  return blockDataEqual(handle1->m_bstrValue, handle2->m_bstrValue);
}

bool bstr_equal_bstrunit(bstr_handle* handle, LPBSTRUNIT var) {
  if (handle == nullptr) return var == nullptr;
  return blockDataEqual(handle->m_bstrValue, var);
}

void bstr_attach_bstrunit(bstr_handle* handle, LPBSTRUNIT var) {
  // Re-attaching the owned block must not free it.
  if (handle == nullptr || handle->m_bstrValue == var) return;
  bstr_clear(handle);
  handle->m_bstrValue = var;
}

LPBSTRUNIT bstr_detach_bstrunit(bstr_handle* handle) {
  if (handle == nullptr) return nullptr;
  LPBSTRUNIT value = handle->m_bstrValue;
  handle->m_bstrValue = nullptr;
  return value;
}

CBStr::CBStr() : m_hBstrHandle(bstr_create()) {}

CBStr::~CBStr() {
  bstr_clear(m_hBstrHandle);
  bstr_destroy(m_hBstrHandle);
}

CBStr& CBStr::operator=(const char* text) {
  bstr_set_text(m_hBstrHandle, text);
  return *this;
}

CBStr::operator const char*() const { return bstr_get_data(m_hBstrHandle); }

void CBStr::attach(LPBSTRUNIT bstrValue) { bstr_attach_bstrunit(m_hBstrHandle, bstrValue); }

LPBSTRUNIT CBStr::detach() { return bstr_detach_bstrunit(m_hBstrHandle); }
