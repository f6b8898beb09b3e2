// The reference-counted read and write interfaces over a variant, and their stubs.

#include <ostrelled/VariantWrapper.h>

#include <memory>
#include <string>

#include <ostrelled/StringAssistant.h>
#include <ostrelled/Variant.h>

#include "DataType/internal/BStrBlock.h"
#include "internal/Handle.h"

namespace internal = ostrelled::internal;

namespace {

// The scalar reads and writes differ only in the variant function they call.
template <class T>
bool readInto(const TVARIANT* pWrapperValue, T& value, T (*resolve)(const TVARIANT&)) {
  if (pWrapperValue == nullptr) return false;
  value = resolve(*pWrapperValue);
  return true;
}

template <class T>
bool writeWith(TVARIANT* pWrapperValue, void (*set)(TVARIANT&, T, bool), T value, bool bIncludeType) {
  if (pWrapperValue == nullptr) return false;
  set(*pWrapperValue, value, bIncludeType);
  return true;
}

// The value as text. A string is read where it is; any other value through a converted
// copy. A tag past TVT_BOOL has no text: its union would be taken for a string block.
bool valueText(const TVARIANT& value, std::string& text) {
  if (value.vt == TVT_BSTR) {
    text = internal::withBlockText(value.bstrVal, [](const char* data) { return std::string(data); });
    return true;
  }
  if (value.vt > TVT_BOOL) return false;
  return CVariant(value).getValue(text);
}

// A new heap variant holding a deep copy of source; nothing leaks if the copy fails.
TVARIANT* newVariantCopy(const TVARIANT& source) {
  std::unique_ptr<TVARIANT> copy(new TVARIANT);
  variant_init(*copy);
  variant_set_variant(*copy, source);
  return copy.release();
}

}  // namespace

CVariantRead::~CVariantRead() = default;

// Both text results go out through the library's one buffer convention.
bool CVariantRead::getType(char* pType, DWORD& dwLen) {
  if (m_pWrapperValue == nullptr) return false;
  std::string name;
  CVariant::resolveDataType(m_pWrapperValue->vt, name);  // TVT_NULL leaves it empty
  return CStringAssistant::getBaseStringFromSTLString(name, pType, dwLen);
}

bool CVariantRead::getValue(char* pValue, DWORD& dwLen) {
  std::string text;
  if (m_pWrapperValue == nullptr || !valueText(*m_pWrapperValue, text)) return false;
  return CStringAssistant::getBaseStringFromSTLString(text, pValue, dwLen);
}

#define OSTRELLED_DEFINE_READ(name, type, tag, member, format, typeName) \
  bool CVariantRead::getValue(type& value) { return readInto(m_pWrapperValue, value, variant_resolve_as_##name); }
OSTRELLED_SCALAR_TYPES(OSTRELLED_DEFINE_READ)
#undef OSTRELLED_DEFINE_READ

CVariantWrite::~CVariantWrite() = default;

bool CVariantWrite::setType(const char* pType) {
  if (m_pWrapperValue == nullptr) return false;
  // An unknown or null name asks for TVT_NULL, which no value converts to: the value
  // stays as it was, and the call still reports success (intended).
  TVARTYPE type = TVT_NULL;
  variant_resolve_type(pType, type);
  variant_change_type(*m_pWrapperValue, type);
  return true;
}

bool CVariantWrite::setValue(const char* pValue, bool bIncludeType) {
  return writeWith(m_pWrapperValue, variant_set_string, pValue, bIncludeType);
}

#define OSTRELLED_DEFINE_WRITE(name, type, tag, member, format, typeName)       \
  bool CVariantWrite::setValue(type value, bool bIncludeType) {                 \
    return writeWith(m_pWrapperValue, variant_set_##name, value, bIncludeType); \
  }
OSTRELLED_SCALAR_TYPES(OSTRELLED_DEFINE_WRITE)
#undef OSTRELLED_DEFINE_WRITE

// The handle holds one reference to each interface object for its whole life, so the
// objects always exist; callers' references only ever extend that life.
struct variant_wrapper_handle {
  variant_wrapper_handle() : m_bAllowRead(true), m_bAllowWrite(false), m_bOwnVariant(false), m_pWrapperValue(nullptr) {
    m_VariantRead = new CVariantRead;
    m_VariantWrite = new CVariantWrite;
  }
  variant_wrapper_handle(const variant_wrapper_handle&) = delete;
  variant_wrapper_handle& operator=(const variant_wrapper_handle&) = delete;

  virtual ~variant_wrapper_handle() {
    releaseOwnedVariant();
    // Interfaces that callers still hold keep their pointer to the freed variant; they
    // must not be used any more. Only their lifetime outlasts the handle.
    m_VariantWrite.release();
    m_VariantRead.release();
  }

  // Wraps pValue (owned or not), freeing a variant owned so far; both interface objects
  // follow at once, including those already handed out.
  void wrap(TVARIANT* pValue, bool bOwn) {
    releaseOwnedVariant();
    m_pWrapperValue = pValue;
    m_bOwnVariant = bOwn;
    m_VariantRead->setWrapperValue(pValue);
    m_VariantWrite->setWrapperValue(pValue);
  }

  void releaseOwnedVariant() {
    if (m_pWrapperValue == nullptr || !m_bOwnVariant) return;
    variant_clear(*m_pWrapperValue);
    delete m_pWrapperValue;
    m_pWrapperValue = nullptr;
  }

  bool m_bAllowRead;
  bool m_bAllowWrite;
  bool m_bOwnVariant;
  TVARIANT* m_pWrapperValue;
  CReference<CVariantRead> m_VariantRead;
  CReference<CVariantWrite> m_VariantWrite;
};

namespace {

// The handle's interface object with one more reference for the caller, or null when
// the mode forbids handing it out.
template <class T>
T* handOut(bool bAllowed, const CReference<T>& reference) {
  if (!bAllowed) return nullptr;
  if (!reference.nil()) reference->addRef();
  return reference;
}

}  // namespace

variant_wrapper_handle* variant_wrapper_create() { return new variant_wrapper_handle; }

void variant_wrapper_destroy(variant_wrapper_handle*& handle) { internal::destroyHandle(handle); }

void variant_wrapper_set_mode(variant_wrapper_handle* handle, bool bAllowRead, bool bAllowWrite) {
  if (handle == nullptr) return;
  handle->m_bAllowRead = bAllowRead;
  handle->m_bAllowWrite = bAllowWrite;
}

void variant_wrapper_set_wrapper_value(variant_wrapper_handle* handle, TVARIANT* wrapperVar, bool bCopyVar) {
  if (handle == nullptr) return;
  // Freeing the owned variant first would leave nothing to copy or point at.
  if (wrapperVar != nullptr && wrapperVar == handle->m_pWrapperValue && handle->m_bOwnVariant) return;
  if (bCopyVar && wrapperVar != nullptr)
    handle->wrap(newVariantCopy(*wrapperVar), true);
  else
    handle->wrap(wrapperVar, false);
}

TVARIANT* variant_wrapper_get_wrapper_value(variant_wrapper_handle* handle) {
  return handle != nullptr ? handle->m_pWrapperValue : nullptr;
}

bool variant_wrapper_get_type(variant_wrapper_handle* handle, char* pType, const DWORD& dwLen) {
  if (handle == nullptr) return false;
  DWORD len = dwLen;
  const bool result = handle->m_VariantRead->getType(pType, len);
  // The size goes back through the const reference: a size query has no other way out.
  // Intended; written only when it changed, so a caller's exact-size constant is never hit.
  if (len != dwLen) const_cast<DWORD&>(dwLen) = len;
  return result;
}

bool variant_wrapper_set_type(variant_wrapper_handle* handle, const char* pType) {
  return handle != nullptr && handle->m_VariantWrite->setType(pType);
}

IVariantRead* variant_wrapper_get_variantread(variant_wrapper_handle* handle) {
  return handle != nullptr ? handOut(handle->m_bAllowRead, handle->m_VariantRead) : nullptr;
}

IVariantWrite* variant_wrapper_get_variantwrite(variant_wrapper_handle* handle) {
  return handle != nullptr ? handOut(handle->m_bAllowWrite, handle->m_VariantWrite) : nullptr;
}

variant_wrapper_handle* variant_wrapper_clone(variant_wrapper_handle* handle) {
  if (handle == nullptr) return nullptr;
  // Held by a smart pointer until complete: a failed copy of a string frees the clone.
  std::unique_ptr<variant_wrapper_handle> clone(new variant_wrapper_handle);
  clone->m_bAllowRead = handle->m_bAllowRead;
  clone->m_bAllowWrite = handle->m_bAllowWrite;
  // The clone owns its copy whether or not the source owned the original.
  if (handle->m_pWrapperValue != nullptr)
    clone->wrap(newVariantCopy(*handle->m_pWrapperValue), true);
  else
    clone->m_bOwnVariant = handle->m_bOwnVariant;
  return clone.release();
}
