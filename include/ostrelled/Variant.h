#ifndef OSTRELLED_VARIANT_H
#define OSTRELLED_VARIANT_H

#include <string>

#include <ostrelled/ScalarTypes.h>
#include <ostrelled/Types.h>
#include <ostrelled/VariantInterface.h>

/// @file
/// Tagged values: the flat variant_* functions (setters, readers, conversion, type names)
/// and CVariant, a TVARIANT with members.

extern "C" {
/// Makes a record of undefined content TVT_NULL with every byte zero; frees nothing.
OSTRELLED_EXPORT void variant_init(TVARIANT& srcVar);
/// Frees a held string; the record becomes TVT_NULL with a zero union.
OSTRELLED_EXPORT void variant_clear(TVARIANT& srcVar);
/// Deep copy of newVar that empties srcVar when both are the same record: srcVar is
/// cleared before newVar is read, so variant_set_variant(v, v) leaves v TVT_NULL (intended).
OSTRELLED_EXPORT void variant_set_variant(TVARIANT& srcVar, const TVARIANT& newVar);
/// Copies the value behind pVar (its type name decides the tag; an unknown name gives
/// TVT_NULL). A null pVar leaves the record cleared.
OSTRELLED_EXPORT void variant_set_variantread(TVARIANT& srcVar, IVariantRead* pVar);
/// Stores a copy of the text as TVT_BSTR (length word strlen + 1), except that a null text
/// leaves the record untouched, not even cleared. bIncludeType as for the scalar setters.
OSTRELLED_EXPORT void variant_set_string(TVARIANT& srcVar, const char* var, bool bIncludeType);
/// Stores a deep copy of a caller's block as TVT_BSTR; a null block (or one with a
/// negative length word) gives a null bstrVal. The caller keeps var.
OSTRELLED_EXPORT void variant_set_bstrunit(TVARIANT& srcVar, LPBSTRUNIT var);
/// Same tag and equal value, with deliberate gaps, kept: two TVT_I8 or two TVT_UI8 records
/// are never equal; strings compare their first L bytes from the length word on, so the
/// last four data bytes never count; NaN is unequal to everything.
OSTRELLED_EXPORT bool variant_equal_variant(const TVARIANT& srcVar, const TVARIANT& dstVar);

/// Converts in place; false (record unchanged) only for the impossible pairs: any
/// value to TVT_NULL, and TVT_I8/TVT_UI8 to TVT_BOOL (deliberate). A TVT_NULL record is
/// only retagged (a zero, or a null string). Text parses with base 0 and never fails (a
/// null string reads as 0). Floats truncate toward zero through a 32- or 64-bit integer;
/// beyond that integer's range they clamp to its limits, and NaN gives 0.
OSTRELLED_EXPORT bool variant_change_type(TVARIANT& var, TVARTYPE type);
/// Width in bits of a scalar tag (TVT_I4/TVT_UI4 are 64); 0 and false otherwise.
OSTRELLED_EXPORT bool variant_get_datatype_size(TVARTYPE type, UINT& uMaxBit);
/// Treats an integer as a field of iSize bits (1 to its width) with a one-sided sign rule:
/// signed values are sign-extended when bit iSize-1 is set and otherwise left unchanged
/// (on purpose); unsigned values keep their low iSize bits. False for other tags and for an
/// iSize outside 1..width (record unchanged).
OSTRELLED_EXPORT bool variant_ajust_data_value(TVARIANT& var, int iSize);

/// The tag's type name by the buffer convention; false for TVT_NULL and unknown tags.
OSTRELLED_EXPORT bool variant_resolve_display_type(TVARTYPE type, char* strType, DWORD& dwLen);
/// Exact, case-sensitive lookup of a type name. Unknown: type = TVT_NULL, false.
/// Null strType: false, type untouched.
OSTRELLED_EXPORT bool variant_resolve_type(const char* strType, TVARTYPE& type);

/// Declares one pair per scalar type of OSTRELLED_SCALAR_TYPES, from variant_set_char and
/// variant_resolve_as_char to variant_set_bool and variant_resolve_as_bool.
///
/// `variant_set_NAME` clears the record, then stores the value with its own tag.
/// bIncludeType false asks for conversion to the record's tag, but that tag has just
/// been cleared to TVT_NULL, so the result is the same as with true (intended).
///
/// `variant_resolve_as_NAME` gives the value converted to the type; srcVar never changes.
/// When the conversion is impossible the source's union bytes are read as the type
/// (TVT_I8 as bool: its low byte is tested for zero).
#define OSTRELLED_DECLARE_SCALAR_FUNCTIONS(name, type, tag, member, format, typeName)            \
  /** Stores a type as tag whatever bIncludeType says (the record is cleared first: intended) */ \
  OSTRELLED_EXPORT void variant_set_##name(TVARIANT& srcVar, type var, bool bIncludeType);       \
  /** The value converted to type (an impossible conversion reads the union bytes as a type) */  \
  OSTRELLED_EXPORT type variant_resolve_as_##name(const TVARIANT& srcVar);
OSTRELLED_SCALAR_TYPES(OSTRELLED_DECLARE_SCALAR_FUNCTIONS)
#undef OSTRELLED_DECLARE_SCALAR_FUNCTIONS
}

/// A TVARIANT with members that is emptied by assignment to itself, as variant_set_variant.
/// It adds no data and can be passed wherever a TVARIANT is expected. Each member forwards
/// to the flat function of the same role. Its destructor frees a held string.
class OSTRELLED_EXPORT CVariant : public tagTVARIANT {
 public:
  /// TVT_NULL.
  CVariant() { variant_init(*this); }
  /// A copy of the text as TVT_BSTR; a null text gives TVT_NULL.
  CVariant(const char* var) : CVariant() { variant_set_string(*this, var, true); }
  /// A copy of the text as TVT_BSTR.
  CVariant(const std::string& var) : CVariant() { variant_set_string(*this, var.c_str(), true); }
  /// A deep copy of a caller's block as TVT_BSTR, as variant_set_bstrunit.
  CVariant(LPBSTRUNIT var) : CVariant() { variant_set_bstrunit(*this, var); }
  /// A deep copy of a record.
  CVariant(const tagTVARIANT& var) : CVariant() { variant_set_variant(*this, var); }
  /// A null pointer gives TVT_NULL.
  CVariant(tagTVARIANT* var) : CVariant() {
    if (var != nullptr) variant_set_variant(*this, *var);
  }
  /// A copy of the value behind a read interface, as variant_set_variantread.
  CVariant(IVariantRead* var) : CVariant() { variant_set_variantread(*this, var); }
  /// A deep copy.
  CVariant(const CVariant& var) : CVariant() { variant_set_variant(*this, var); }
  /// Frees a held string.
  ~CVariant() { variant_clear(*this); }

  /// Stores a copy of the text as TVT_BSTR; a null text leaves the value untouched.
  CVariant& operator=(const char* var) {
    setValue(var, true);
    return *this;
  }
  /// Stores a copy of the text as TVT_BSTR.
  CVariant& operator=(const std::string& var) {
    setValue(var.c_str(), true);
    return *this;
  }
  /// Stores a deep copy of a caller's block as TVT_BSTR.
  CVariant& operator=(LPBSTRUNIT var) {
    variant_set_bstrunit(*this, var);
    return *this;
  }
  /// Deep copy of a record; assigning an object to itself empties it.
  CVariant& operator=(const tagTVARIANT& var) {
    variant_set_variant(*this, var);
    return *this;
  }
  /// A null pointer clears the record.
  CVariant& operator=(tagTVARIANT* var) {
    if (var != nullptr)
      variant_set_variant(*this, *var);
    else
      variant_clear(*this);
    return *this;
  }
  /// Copies the value behind a read interface, as variant_set_variantread.
  CVariant& operator=(IVariantRead* var) {
    setVariant(var);
    return *this;
  }
  /// Deep copy; assigning an object to itself empties it.
  CVariant& operator=(const CVariant& var) {
    variant_set_variant(*this, var);
    return *this;
  }

  /// Declares the constructor, assignment, setter and conversion of each scalar type.
#define OSTRELLED_CVARIANT_SCALAR_MEMBERS(name, type, tag, member, format, typeName)           \
  /** A type value as tag */                                                                   \
  CVariant(type var) : CVariant() { variant_set_##name(*this, var, true); }                    \
  /** Stores a type as tag */                                                                  \
  CVariant& operator=(type var) {                                                              \
    variant_set_##name(*this, var, true);                                                      \
    return *this;                                                                              \
  }                                                                                            \
  /** Stores a type as tag whatever bIncludeType says (see variant_set_##name) */              \
  void setValue(type var, bool bIncludeType) { variant_set_##name(*this, var, bIncludeType); } \
  /** The value converted to type as variant_resolve_as_##name does */                         \
  operator type() const { return variant_resolve_as_##name(*this); }
  OSTRELLED_SCALAR_TYPES(OSTRELLED_CVARIANT_SCALAR_MEMBERS)
#undef OSTRELLED_CVARIANT_SCALAR_MEMBERS

  /// Stores a copy of the text as TVT_BSTR; a null text leaves the value untouched.
  void setValue(const char* var, bool bIncludeType) { variant_set_string(*this, var, bIncludeType); }
  /// Copies the value behind a read interface, as variant_set_variantread.
  void setVariant(IVariantRead* var) { variant_set_variantread(*this, var); }
  /// Frees a held string; the value becomes TVT_NULL.
  void clear() { variant_clear(*this); }

  /// Same tag and equal value, with the deliberate gaps of variant_equal_variant.
  bool operator==(const CVariant& var) const { return variant_equal_variant(*this, var); }
  /// Same tag and equal value, with the deliberate gaps of variant_equal_variant.
  bool operator==(const tagTVARIANT& var) const { return variant_equal_variant(*this, var); }
  /// A null pointer is unequal to every record.
  bool operator==(tagTVARIANT* var) const { return var != nullptr && variant_equal_variant(*this, *var); }

  /// The record itself, for the flat functions.
  operator tagTVARIANT*() { return this; }

  /// Converts in place, as variant_change_type.
  bool changeType(TVARTYPE type) { return variant_change_type(*this, type); }
  /// Converts a copy placed in dst; this object is unchanged (dst may be this object,
  /// which then converts in place).
  bool changeType(TVARTYPE type, CVariant& dst) {
    if (&dst != this) variant_set_variant(dst, *this);
    return variant_change_type(dst, type);
  }
  /// The value as text (a copy converted to TVT_BSTR); a null string gives "".
  /// False, text unchanged, when the value has no text form.
  bool getValue(std::string& text) const;

  /// Width in bits of a scalar tag, as variant_get_datatype_size.
  static bool getDataTypeSize(TVARTYPE type, unsigned int& uMaxBit) { return variant_get_datatype_size(type, uMaxBit); }
  /// Treats an integer as a bit field, as variant_ajust_data_value (one-sided sign rule).
  static bool ajustDataValue(CVariant& var, int iSize) { return variant_ajust_data_value(var, iSize); }
  /// The tag's type name; false with strType unchanged for TVT_NULL and unknown tags.
  static bool resolveDataType(TVARTYPE type, std::string& strType);
  /// The tag of a type name; as variant_resolve_type.
  static bool resolveDataType(std::string strType, TVARTYPE& type);
};

/// Text fetched through an IVariantRead into a std::string.
class OSTRELLED_EXPORT CVariantHelper {
 public:
  /// The type name; "" for a null pointer or when the size query fails or reports 0.
  static std::string getType(IVariantRead* pVariant);
  /// The value as text; "" for a null pointer or when the size query fails or reports 0.
  static std::string getValue(IVariantRead* pVariant);
};

#endif
