// Type names of the value tags, and text fetched by the two-call buffer convention.
#include <ostrelled/StringAssistant.h>
#include <ostrelled/Variant.h>

#include <cstring>

#include "DataType/internal/ScalarDispatch.h"

using namespace ostrelled::internal;

namespace {

// The name of a value tag; null for TVT_NULL and values outside the enumeration.
const char* typeName(TVARTYPE type) {
  if (type == TVT_BSTR) return "string";
  const char* name = nullptr;
  visitScalar(type, [&name](auto tag) {
    name = Scalar<typename decltype(tag)::type>::kTypeName;
    return true;
  });
  return name;
}

// Asks call(nullptr, len) for the size, then call(buffer, len) for the text. False,
// text unchanged, when the size query fails or reports 0. The buffer holds one zero
// more than asked for, so the text ends inside it whatever the second call does.
template <class Call>
bool fetchText(Call call, std::string& text) {
  DWORD len = 0;
  if (!call(nullptr, len) || len == 0) return false;
  std::string buffer(len, '\0');
  call(&buffer[0], len);  // its result is not needed: a refused copy leaves ""
  text = buffer.c_str();
  return true;
}

}  // namespace

bool variant_resolve_display_type(TVARTYPE type, char* strType, DWORD& dwLen) {
  const char* name = typeName(type);
  return name != nullptr && CStringAssistant::getBaseStringFromSTLString(name, strType, dwLen);
}

bool variant_resolve_type(const char* strType, TVARTYPE& type) {
  if (strType == nullptr) return false;
  for (int tag = TVT_I1; tag <= TVT_BOOL; ++tag) {
    if (std::strcmp(typeName(static_cast<TVARTYPE>(tag)), strType) == 0) {
      type = static_cast<TVARTYPE>(tag);
      return true;
    }
  }
  type = TVT_NULL;
  return false;
}

bool CVariant::resolveDataType(TVARTYPE type, std::string& strType) {
  return fetchText([type](char* buffer, DWORD& len) { return variant_resolve_display_type(type, buffer, len); },
                   strType);
}

bool CVariant::resolveDataType(std::string strType, TVARTYPE& type) {
  return variant_resolve_type(strType.c_str(), type);
}

std::string CVariantHelper::getType(IVariantRead* pVariant) {
  std::string text;
  if (pVariant != nullptr)
    fetchText([pVariant](char* buffer, DWORD& len) { return pVariant->getType(buffer, len); }, text);
  return text;
}

std::string CVariantHelper::getValue(IVariantRead* pVariant) {
  std::string text;
  if (pVariant != nullptr)
    fetchText([pVariant](char* buffer, DWORD& len) { return pVariant->getValue(buffer, len); }, text);
  return text;
}
