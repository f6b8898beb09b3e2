// Variant values: initialising, setting, copying, clearing and comparing records.
#include <ostrelled/Variant.h>

#include <cstring>

#include "DataType/internal/BStrBlock.h"
#include "DataType/internal/ScalarDispatch.h"

using namespace ostrelled::internal;

namespace {

// The tail shared by every setter: srcVar has been cleared and value holds the new
// content with its own tag; srcVar takes it over (string block included, no copy).
void storeIntoCleared(TVARIANT& srcVar, TVARIANT& value, bool bIncludeType) {
  if (!bIncludeType) {
    // Conversion to the record's tag, read after the clear: it is TVT_NULL, which no
    // value converts to, so the value keeps its own type. This order is intended and
    // makes the flag change nothing.
    variant_change_type(value, srcVar.vt);
  }
  srcVar = value;
}

template <class T>
void setScalar(TVARIANT& srcVar, T var, bool bIncludeType) {
  variant_clear(srcVar);
  TVARIANT value;
  variant_init(value);
  value.vt = Scalar<T>::kTag;
  Scalar<T>::ref(value) = var;
  storeIntoCleared(srcVar, value, bIncludeType);
}

// String records compare L bytes from the start of each block, that is from the
// length word on, so the last four data bytes never count. This differs on purpose
// from bstr_equal_bstr, which compares the data bytes.
bool stringRecordsEqual(LPBSTRUNIT block1, LPBSTRUNIT block2) {
  if (block1 == nullptr || block2 == nullptr) return block1 == block2;
  const int len = blockLength(block1);
  if (len != blockLength(block2)) return false;
  return len <= 0 || std::memcmp(block1, block2, static_cast<size_t>(len)) == 0;
}

}  // namespace

void variant_init(TVARIANT& srcVar) {
  std::memset(&srcVar, 0, sizeof srcVar);
  srcVar.vt = TVT_NULL;
}

void variant_clear(TVARIANT& srcVar) {
  if (srcVar.vt == TVT_BSTR) freeBlock(srcVar.bstrVal);
  srcVar.ullVal = 0;  // all eight bytes of the union
  srcVar.vt = TVT_NULL;
}

#define OSTRELLED_DEFINE_SETTER(name, type, tag, member, format, typeName) \
  void variant_set_##name(TVARIANT& srcVar, type var, bool bIncludeType) { setScalar(srcVar, var, bIncludeType); }
OSTRELLED_SCALAR_TYPES(OSTRELLED_DEFINE_SETTER)
#undef OSTRELLED_DEFINE_SETTER

void variant_set_string(TVARIANT& srcVar, const char* var, bool bIncludeType) {
  if (var == nullptr) return;  // the record is kept as it was, not even cleared
  // The copy comes first so that a text inside the record's own block stays readable.
  TVARIANT value;
  variant_init(value);
  value.vt = TVT_BSTR;
  value.bstrVal = makeBlock(var, std::strlen(var) + 1);
  variant_clear(srcVar);
  storeIntoCleared(srcVar, value, bIncludeType);
}

void variant_set_bstrunit(TVARIANT& srcVar, LPBSTRUNIT var) {
  // Copied before the clear, so the record's own block may be passed in.
  LPBSTRUNIT copy = copyBlock(var);
  variant_clear(srcVar);
  srcVar.vt = TVT_BSTR;
  srcVar.bstrVal = copy;
}

void variant_set_variant(TVARIANT& srcVar, const TVARIANT& newVar) {
  // Cleared before newVar is read: variant_set_variant(v, v) leaves v TVT_NULL. Intended.
  variant_clear(srcVar);
  if (newVar.vt != TVT_BSTR) {
    srcVar = newVar;
    return;
  }
  srcVar.vt = TVT_BSTR;
  srcVar.bstrVal = copyBlock(newVar.bstrVal);
}

void variant_set_variantread(TVARIANT& srcVar, IVariantRead* pVar) {
  variant_clear(srcVar);
  if (pVar == nullptr) return;
  TVARTYPE type = TVT_NULL;
  variant_resolve_type(CVariantHelper::getType(pVar).c_str(), type);
  if (type == TVT_BSTR) {
    variant_set_string(srcVar, CVariantHelper::getValue(pVar).c_str(), true);
    return;
  }
  // The overload whose out-parameter has the tag's type writes straight into the union.
  visitScalar(type, [&](auto tag) {
    srcVar.vt = type;
    return pVar->getValue(Scalar<typename decltype(tag)::type>::ref(srcVar));
  });
}

bool variant_equal_variant(const TVARIANT& srcVar, const TVARIANT& dstVar) {
  if (srcVar.vt != dstVar.vt) return false;
  switch (srcVar.vt) {
    case TVT_NULL:
      return true;
    case TVT_BSTR:
      return stringRecordsEqual(srcVar.bstrVal, dstVar.bstrVal);
    case TVT_BOOL:
      return srcVar.bVal == dstVar.bVal;
    case TVT_I8:
    case TVT_UI8:
      // The long-long tags have no equality rule: never equal, even to themselves. Kept.
      return false;
    default:
      // Same-width values compare as their type: integers bit for bit, floats by IEEE.
      return visitScalar(srcVar.vt, [&](auto tag) {
        using T = typename decltype(tag)::type;
        return scalarValue<T>(srcVar) == scalarValue<T>(dstVar);
      });
  }
}

bool CVariant::getValue(std::string& text) const {
  CVariant copy(*this);
  if (!copy.changeType(TVT_BSTR)) return false;
  text = withBlockText(copy.bstrVal, [](const char* value) { return std::string(value); });
  return true;
}
