#include <cmath>

#include "TestSupport.h"

namespace {

const size_t kWidth[] = {0, 1, 1, 2, 2, 4, 4, 8, 8, 8, 8, 4, 8, 8, 1};  // member bytes per tag

// A record as bytes: its tag, then its member's bytes or its string's length word and data.
std::string bytesOf(const TVARIANT& v) {
  if (v.vt != TVT_BSTR) return std::to_string(v.vt) + std::string(&v.cVal, kWidth[v.vt]);
  if (v.bstrVal == nullptr) return "null string";
  int len = 0;
  std::memcpy(&len, v.bstrVal, 4);
  return "string" + std::string(reinterpret_cast<const char*>(v.bstrVal), 4 + len);
}

}  // namespace

TEST(VariantConversion, MatrixIncludingItsDeliberateFailures) {
  // An expected TVT_NULL: the conversion fails and the record stays as it was.
  const struct {
    CVariant from;
    TVARTYPE to;
    CVariant expected;
  } rows[] = {
      // integers extend by the source's sign and keep the low bits when narrowing
      {CVariant(char(-1)), TVT_I8, CVariant(-1LL)},
      {CVariant(ULONG_MAX), TVT_I1, CVariant(char(-1))},
      // floats truncate toward zero, clamp beyond the integer's range, and NaN gives 0
      {CVariant(-2.9), TVT_UI1, CVariant((unsigned char)254)},
      {CVariant(1e19), TVT_UI8, CVariant(10000000000000000000ULL)},
      {CVariant(3e9), TVT_INT, CVariant(INT_MAX)},
      {CVariant(NAN), TVT_I8, CVariant(0LL)},
      // booleans: every number but the long-long pair
      {CVariant(5L), TVT_BOOL, CVariant(true)},
      {CVariant(5LL), TVT_BOOL, {}},
      {CVariant(5ULL), TVT_BOOL, {}},
      // text both ways: checked against the C library by fuzz/variant_text_fuzz.cpp
      // nothing converts to TVT_NULL; TVT_NULL only changes its tag
      {CVariant("x"), TVT_NULL, {}},
      {CVariant(), TVT_BSTR, CVariant(LPBSTRUNIT())},
  };
  for (const auto& row : rows) {
    CVariant v(row.from);
    const bool ok = row.expected.vt != TVT_NULL;
    EXPECT_EQ(variant_change_type(v, row.to), ok) << "row " << (&row - rows);
    EXPECT_EQ(bytesOf(v), bytesOf(ok ? row.expected : row.from)) << "row " << (&row - rows);
  }
}

TEST(VariantValue, SettersClearFirstSoIncludeTypeFalseStillKeepsTheValuesType) {
  CVariant v(3.5);
  variant_set_int(v, 5, false);  // the tag it would convert to has just been cleared (intended)
  EXPECT_EQ(bytesOf(v), bytesOf(CVariant(5)));
  variant_set_string(v, "abc", false);
  EXPECT_EQ(bytesOf(v), bytesOf(CVariant("abc")));
  variant_set_variant(v, v);  // cleared before it is read (intended)
  EXPECT_EQ(v.vt, TVT_NULL);
}

TEST(VariantValue, EqualityKeepsItsDeliberateGaps) {
  const struct {
    CVariant a, b;
    bool equal;
  } rows[] = {
      {CVariant(1), CVariant(1L), false},     // no conversion across tags
      {CVariant(7LL), CVariant(7LL), false},  // the long-long pair is never equal
      {CVariant(7L), CVariant(7L), true},
      // strings compare L bytes from the length word on: the last four data bytes never count
      {CVariant("abcd"), CVariant("abce"), true},
      {CVariant("abcdef"), CVariant("xbcdef"), false},
      {CVariant(LPBSTRUNIT()), CVariant(""), false},
  };
  for (const auto& row : rows) EXPECT_EQ(row.a == row.b, row.equal) << (&row - rows);
}

// Through the overload of the source's type, read here from a wrapped variant.
TEST(VariantRead, SetFromAReadInterfaceTakesItsTypeAndValue) {
  variant_wrapper_handle* wrapper = variant_wrapper_create();
  IVariantRead* read = variant_wrapper_get_variantread(wrapper);
  CVariant v("old");
  for (const char* type : {"unsigned short", "long", "float", "bool", "string"}) {
    CVariant value(-3);
    TVARTYPE tag;
    ASSERT_TRUE(variant_resolve_type(type, tag) && value.changeType(tag)) << type;
    variant_wrapper_set_wrapper_value(wrapper, &value, false);
    variant_set_variantread(v, read);
    EXPECT_EQ(bytesOf(v), bytesOf(value)) << type;
  }
  read->releaseRef();
  variant_wrapper_destroy(wrapper);
}

TEST(VariantConversion, BitFieldsSignExtendOnlyFromTheTopBit) {
  const struct {
    TVARTYPE vt;
    long long in;
    int bits;
    bool ok;
    long long out;
  } rows[] = {
      {TVT_UI1, 0xFF, 4, true, 0x0F},     {TVT_I1, 0x0F, 4, true, -1},
      {TVT_I1, 0x17, 4, true, 0x17},  // top field bit clear: higher bits stay (intended)
      {TVT_UI8, -1, 63, true, LLONG_MAX}, {TVT_I4, 0x80, 8, true, -128},
      {TVT_R8, 0, 4, false, 0},
  };
  for (const auto& r : rows) {
    CVariant v;
    v.vt = r.vt;
    v.llVal = r.in;
    EXPECT_EQ(variant_ajust_data_value(v, r.bits), r.ok) << r.vt;
    if (r.ok) {
      EXPECT_EQ(variant_resolve_as_longlong(v), r.out) << r.vt;
    }
  }
  UINT width = 7;
  EXPECT_FALSE(variant_get_datatype_size(TVT_BSTR, width));
  EXPECT_EQ(width, 0u);
  EXPECT_TRUE(variant_get_datatype_size(TVT_I4, width));
  EXPECT_EQ(width, 64u);  // LONG is 64 bits wide here
}
