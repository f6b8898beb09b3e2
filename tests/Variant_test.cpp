#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include <ostrelled/StringAssistant.h>
#include <ostrelled/Variant.h>

// Every allocation of the process is counted, the library's included.
static size_t g_allocations = 0;
void* operator new(size_t size) {
  ++g_allocations;
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void* operator new[](size_t size) { return operator new(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }

namespace {

const size_t kWidth[] = {0, 1, 1, 2, 2, 4, 4, 8, 8, 8, 8, 4, 8, 8, 1};  // member bytes per tag

int lengthWord(LPBSTRUNIT block) {
  int len;
  std::memcpy(&len, block, 4);
  return len;
}
const char* textOf(const TVARIANT& v) { return reinterpret_cast<const char*>(v.bstrVal) + 4; }

// Same tag and same member bits; a string must match text and length word.
void expectSame(const TVARIANT& actual, const TVARIANT& expected) {
  ASSERT_EQ(actual.vt, expected.vt);
  if (actual.vt != TVT_BSTR) {
    EXPECT_EQ(std::memcmp(&actual.llVal, &expected.llVal, kWidth[actual.vt]), 0) << std::hex << actual.ullVal;
  } else if (actual.bstrVal == nullptr || expected.bstrVal == nullptr) {
    EXPECT_EQ(actual.bstrVal, expected.bstrVal);
  } else {
    EXPECT_EQ(lengthWord(actual.bstrVal), lengthWord(expected.bstrVal));
    EXPECT_STREQ(textOf(actual), textOf(expected));
  }
}

// A string record with a null block, or with raw bytes and no terminator.
CVariant rawString(const char* data, int len) {
  CVariant v;
  v.vt = TVT_BSTR;
  if (data == nullptr) return v;
  v.bstrVal = new BSTR_UNIT[len + 4];
  std::memcpy(v.bstrVal, &len, 4);
  std::memcpy(reinterpret_cast<char*>(v.bstrVal) + 4, data, len);
  return v;
}

}  // namespace

TEST(VariantConversion, MatrixIncludingItsDeliberateFailures) {
  const struct {
    CVariant from;
    TVARTYPE to;
    bool ok;
    CVariant expected;  // where the conversion fails the record must stay as it was
  } rows[] = {
      // integers extend by the source's sign and keep the low bits when narrowing
      {CVariant(-1), TVT_UINT, true, CVariant(4294967295u)},
      {CVariant(char(-1)), TVT_I8, true, CVariant(-1LL)},
      {CVariant(ULONG_MAX), TVT_I1, true, CVariant(char(-1))},
      {CVariant(ULLONG_MAX), TVT_R8, true, CVariant(18446744073709551615.0)},
      {CVariant(1e300), TVT_R4, true, CVariant(HUGE_VALF)},
      // floats truncate toward zero
      {CVariant(2.9), TVT_INT, true, CVariant(2)},
      {CVariant(-2.9), TVT_UI1, true, CVariant((unsigned char)254)},
      {CVariant(300.7), TVT_I1, true, CVariant(char(44))},
      {CVariant(1e19), TVT_UI8, true, CVariant(10000000000000000000ULL)},
      {CVariant(-2.75), TVT_UI4, true, CVariant(ULONG_MAX - 1)},
      {CVariant(3e9), TVT_INT, true, CVariant(INT_MAX)},  // out of range clamps
      {CVariant(NAN), TVT_I8, true, CVariant(0LL)},
      // booleans: every number but the long-long pair
      {CVariant(5L), TVT_BOOL, true, CVariant(true)},
      {CVariant(NAN), TVT_BOOL, true, CVariant(true)},
      {CVariant(5LL), TVT_BOOL, false, {}},
      {CVariant(5ULL), TVT_BOOL, false, {}},
      // text: the length word counts the terminator
      {CVariant(-1), TVT_BSTR, true, CVariant("-1")},
      {CVariant(LONG_MIN), TVT_BSTR, true, CVariant("-9223372036854775808")},
      {CVariant(ULLONG_MAX), TVT_BSTR, true, CVariant("18446744073709551615")},
      {CVariant(1.5f), TVT_BSTR, true, CVariant("1.500000")},
      {CVariant(true), TVT_BSTR, true, CVariant("1")},
      // parsing: base 0, leading space and sign accepted, trailing text ignored
      {CVariant("300"), TVT_I1, true, CVariant(char(44))},
      {CVariant(" 12abc"), TVT_INT, true, CVariant(12)},
      {CVariant("0x1f"), TVT_INT, true, CVariant(31)},
      {CVariant("017"), TVT_I2, true, CVariant(short(15))},
      {CVariant("-1"), TVT_UI4, true, CVariant(ULONG_MAX)},
      {CVariant("18446744073709551615"), TVT_UI8, true, CVariant(ULLONG_MAX)},
      {CVariant("0x10"), TVT_BOOL, true, CVariant(true)},
      {CVariant("true"), TVT_BOOL, true, CVariant(false)},
      {rawString("123", 3), TVT_INT, true, CVariant(123)},
      // nothing converts to TVT_NULL; TVT_NULL only changes its tag
      {CVariant(5), TVT_NULL, false, {}},
      {CVariant("x"), TVT_NULL, false, {}},
      {CVariant(), TVT_R8, true, CVariant(0.0)},
      {CVariant(), TVT_BSTR, true, rawString(nullptr, 0)},
      {CVariant("same"), TVT_BSTR, true, CVariant("same")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << "row " << (&row - rows));
    CVariant v(row.from);
    EXPECT_EQ(variant_change_type(v, row.to), row.ok);
    expectSame(v, row.ok ? row.expected : row.from);
  }
}

TEST(VariantConversion, ScalarConversionsAllocateNothingAndTextOneBlock) {
  CVariant number(-2.75), text("0x1F");
  size_t before = g_allocations;
  const bool narrowed = number.changeType(TVT_I2);
  const ULONGLONG widened = variant_resolve_as_ulonglong(number);
  const int parsed = variant_resolve_as_int(text);
  const size_t scalarAllocations = g_allocations - before;
  before = g_allocations;
  const bool formatted = number.changeType(TVT_BSTR);
  const size_t textAllocations = g_allocations - before;
  EXPECT_TRUE(narrowed && formatted);
  EXPECT_EQ(widened, ULLONG_MAX - 1);
  EXPECT_EQ(parsed, 31);
  EXPECT_EQ(scalarAllocations, 0u);
  EXPECT_EQ(textAllocations, 1u);
}

TEST(VariantConversion, LargestDoublesFormatInFull) {
  CVariant huge(1e308), lowest(-DBL_MAX);
  ASSERT_TRUE(huge.changeType(TVT_BSTR) && lowest.changeType(TVT_BSTR));
  EXPECT_EQ(lengthWord(huge.bstrVal), 309 + 7 + 1);
  EXPECT_EQ(std::strncmp(textOf(huge), "1000000000000000010979", 22), 0);
  EXPECT_STREQ(textOf(huge) + 309, ".000000");
  EXPECT_EQ(lengthWord(lowest.bstrVal), 318);
}

TEST(VariantConversion, ReadersLeaveTheSourceAndReadFailuresAsRawBytes) {
  CVariant text("42");
  EXPECT_EQ(variant_resolve_as_short(text), 42);
  EXPECT_EQ(variant_resolve_as_double(text), 42.0);
  expectSame(text, CVariant("42"));
  // long-long to bool fails, so the low byte of the source is what is read
  EXPECT_TRUE(variant_resolve_as_bool(CVariant(5LL)));
  EXPECT_FALSE(variant_resolve_as_bool(CVariant(0x100LL)));
  EXPECT_EQ(variant_resolve_as_int(CVariant()), 0);
  CVariant d(-2.9);
  EXPECT_EQ(static_cast<unsigned char>(d), 254);
  EXPECT_EQ(static_cast<float>(d), -2.9f);
  std::string s;
  EXPECT_TRUE(rawString("abc", 3).getValue(s));  // no terminator in the block
  EXPECT_EQ(s, "abc");
  CVariant target("old");
  EXPECT_TRUE(d.changeType(TVT_INT, target));
  EXPECT_EQ(d.vt, TVT_R8);
  expectSame(target, CVariant(-2));
}

TEST(VariantConversion, SizesAndBitFields) {
  const UINT bits[] = {0, 8, 8, 16, 16, 32, 32, 64, 64, 64, 64, 32, 64, 0, 8, 0};
  for (int tag = 0; tag <= 15; ++tag) {
    UINT width = 99;
    EXPECT_EQ(variant_get_datatype_size(TVARTYPE(tag), width), bits[tag] != 0) << tag;
    EXPECT_EQ(width, bits[tag]) << tag;
  }
  const struct {
    CVariant before;
    int bits;
    bool ok;
    CVariant after;
  } fields[] = {
      {CVariant((unsigned char)0xFF), 4, true, CVariant((unsigned char)0x0F)},
      {CVariant(char(0x0F)), 4, true, CVariant(char(-1))},
      {CVariant(char(0x17)), 4, true, CVariant(char(0x17))},  // top bit clear: left as is
      {CVariant(ULLONG_MAX), 64, true, CVariant(ULLONG_MAX)},
      {CVariant(0x7FFFFFFFFFLL), 36, true, CVariant(-1LL)},
      {CVariant(2.5), 4, false, CVariant(2.5)},
      {CVariant(0xFFu), 0, false, CVariant(0xFFu)},
      {CVariant((short)-1), 17, false, CVariant((short)-1)},
  };
  for (const auto& row : fields) {
    CVariant v(row.before);
    EXPECT_EQ(variant_ajust_data_value(v, row.bits), row.ok) << (&row - fields);
    expectSame(v, row.after);
  }
}

TEST(VariantValue, SettersReleaseFirstAndKeepTheValuesOwnType) {
  CVariant v(3.5);
  variant_set_int(v, 5, false);  // the flag cannot convert to the cleared tag
  expectSame(v, CVariant(5));
  variant_set_string(v, "abc", false);
  variant_set_string(v, nullptr, true);  // ignored: the string stays
  expectSame(v, CVariant("abc"));
  variant_set_string(v, "", true);
  EXPECT_EQ(lengthWord(v.bstrVal), 1);
  CVariant block("xy");
  variant_set_bstrunit(v, block.bstrVal);  // deep copy: the caller keeps its block
  EXPECT_NE(v.bstrVal, block.bstrVal);
  expectSame(v, block);
  CVariant& same = block;
  block = same;  // cleared before it is read
  EXPECT_EQ(block.vt, TVT_NULL);
  variant_set_variant(v, v);
  EXPECT_EQ(v.vt, TVT_NULL);
  EXPECT_EQ(v.ullVal, 0u);
}

TEST(VariantValue, EqualityRulesAndTheirDeliberateGaps) {
  const struct {
    CVariant a, b;
    bool equal;
  } rows[] = {
      {CVariant(1), CVariant(1L), false},  // no conversion across tags
      {CVariant(7L), CVariant(7L), true},
      {CVariant(7LL), CVariant(7LL), false},  // the long-long tags are never equal
      {CVariant(NAN), CVariant(NAN), false},
      {CVariant(0.0), CVariant(-0.0), true},
      {CVariant(), CVariant(), true},
      // strings compare L bytes from the length word: the last four data bytes never count
      {CVariant("abcd"), CVariant("abce"), true},
      {CVariant("abcdef"), CVariant("xbcdef"), false},
      {CVariant("ab"), CVariant("cd"), true},
      {CVariant("abc"), CVariant("abcd"), false},
      {rawString(nullptr, 0), rawString(nullptr, 0), true},
      {rawString(nullptr, 0), CVariant(""), false},
  };
  for (const auto& row : rows) EXPECT_EQ(row.a == row.b, row.equal) << (&row - rows);
  EXPECT_FALSE(CVariant(3) == static_cast<tagTVARIANT*>(nullptr));
}

TEST(VariantTypeName, TableBothWaysAndTheBufferConvention) {
  const char* names[] = {nullptr, "char", "unsigned char", "short", "unsigned short", "int",
                         "unsigned int", "long", "unsigned long", "long long", "unsigned long long",
                         "float", "double", "string", "bool"};
  for (int tag = TVT_I1; tag <= TVT_BOOL; ++tag) {
    std::string name;
    TVARTYPE back = TVT_NULL;
    EXPECT_TRUE(CVariant::resolveDataType(TVARTYPE(tag), name) && variant_resolve_type(names[tag], back));
    EXPECT_EQ(name, names[tag]);
    EXPECT_EQ(back, tag);
  }
  DWORD len = 0;
  EXPECT_TRUE(variant_resolve_display_type(TVT_R8, nullptr, len));
  EXPECT_EQ(len, 7u);
  char buffer[32] = "untouched";
  len = 6;  // one short
  EXPECT_FALSE(variant_resolve_display_type(TVT_R8, buffer, len));
  EXPECT_EQ(len, 6u);
  EXPECT_STREQ(buffer, "untouched");
  len = 7;  // exact fit
  EXPECT_TRUE(variant_resolve_display_type(TVT_R8, buffer, len));
  EXPECT_STREQ(buffer, "double");
  EXPECT_FALSE(variant_resolve_display_type(TVT_NULL, nullptr, len));
  EXPECT_FALSE(variant_resolve_display_type(TVARTYPE(15), nullptr, len));
  TVARTYPE t = TVT_R8;
  EXPECT_FALSE(variant_resolve_type(nullptr, t));
  EXPECT_EQ(t, TVT_R8);
  for (const char* unknown : {"String", " int", "int ", ""}) {
    t = TVT_R8;
    EXPECT_FALSE(variant_resolve_type(unknown, t));
    EXPECT_EQ(t, TVT_NULL);
  }
}

namespace {

// Reports a fixed type name and text; numbers read as 42, and the overload used is kept.
class FixedRead : public IVariantRead {
 public:
  FixedRead(const char* type, const char* value, bool reportEmpty = false)
      : m_type(type), m_value(value), m_reportEmpty(reportEmpty) {}
  bool queryInterface(const char*, void**) override { return false; }
  ULONG addRef() override { return 1; }
  ULONG releaseRef() override { return 1; }
  bool getType(char* p, DWORD& len) override { return text(m_type, p, len); }
  bool getValue(char* p, DWORD& len) override { return text(m_value, p, len); }
#define FIXED_READ(T) \
  bool getValue(T& v) override { return m_used = #T, v = static_cast<T>(42), true; }
  FIXED_READ(unsigned char) FIXED_READ(char) FIXED_READ(unsigned short) FIXED_READ(short)
  FIXED_READ(unsigned int) FIXED_READ(int) FIXED_READ(unsigned long) FIXED_READ(long)
  FIXED_READ(unsigned long long) FIXED_READ(long long) FIXED_READ(float) FIXED_READ(double) FIXED_READ(bool)
#undef FIXED_READ
  std::string m_used;

 private:
  bool text(const std::string& s, char* p, DWORD& len) {
    if (!m_reportEmpty) return CStringAssistant::getBaseStringFromSTLString(s, p, len);
    len = 0;
    return true;
  }
  std::string m_type, m_value;
  bool m_reportEmpty;
};

}  // namespace

TEST(VariantRead, SetFromReadInterfaceUsesTheOverloadOfItsType) {
  CVariant v("old");
  for (const char* type : {"unsigned short", "long", "unsigned long long", "float", "bool", "char"}) {
    FixedRead source(type, "");
    variant_set_variantread(v, &source);
    TVARTYPE expected;
    ASSERT_TRUE(variant_resolve_type(type, expected));
    EXPECT_EQ(v.vt, expected);
    EXPECT_EQ(source.m_used, type);
    EXPECT_EQ(variant_resolve_as_int(v), type == std::string("bool") ? 1 : 42);
  }
  FixedRead text("string", "hello");
  CVariant fromText(&text);
  expectSame(fromText, CVariant("hello"));
  FixedRead unknown("String", "x");
  variant_set_variantread(fromText, &unknown);
  EXPECT_EQ(fromText.vt, TVT_NULL);
  EXPECT_EQ(unknown.m_used, "");
  fromText = "again";
  fromText.setVariant(nullptr);
  EXPECT_EQ(fromText.vt, TVT_NULL);
  EXPECT_EQ(CVariantHelper::getValue(nullptr), "");
  FixedRead empty("int", "7", true);  // reports length 0
  EXPECT_EQ(CVariantHelper::getType(&empty), "");
  EXPECT_EQ(CVariantHelper::getValue(&empty), "");
}
