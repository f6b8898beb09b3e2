#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include <ostrelled/StringAssistant.h>
#include <ostrelled/Variant.h>

// Every allocation of the process is counted, the library's included, so that tests
// can check how many blocks an operation allocates.
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

// Width in bytes of each tag's member, for comparing records bit for bit.
const size_t kWidth[] = {0, 1, 1, 2, 2, 4, 4, 8, 8, 8, 8, 4, 8, 8, 1};

int lengthWord(LPBSTRUNIT block) {
  int len;
  std::memcpy(&len, block, 4);
  return len;
}
const char* textOf(const TVARIANT& v) { return reinterpret_cast<const char*>(v.bstrVal) + 4; }

// Same tag and same member bits; a string must match text and length word.
void expectSame(const TVARIANT& actual, const TVARIANT& expected) {
  ASSERT_EQ(actual.vt, expected.vt);
  if (actual.vt == TVT_BSTR) {
    ASSERT_EQ(actual.bstrVal == nullptr, expected.bstrVal == nullptr);
    if (actual.bstrVal == nullptr) return;
    EXPECT_EQ(lengthWord(actual.bstrVal), lengthWord(expected.bstrVal));
    EXPECT_STREQ(textOf(actual), textOf(expected));
  } else if (actual.vt < sizeof kWidth / sizeof kWidth[0]) {
    EXPECT_EQ(std::memcmp(&actual.llVal, &expected.llVal, kWidth[actual.vt]), 0)
        << std::hex << actual.ullVal << " != " << expected.ullVal;
  }
}

CVariant nullString() {
  CVariant v;
  v.vt = TVT_BSTR;
  return v;
}

// A string record holding raw bytes without a terminator.
CVariant rawString(const char* data, int len) {
  CVariant v;
  v.vt = TVT_BSTR;
  v.bstrVal = new BSTR_UNIT[len + 4];
  std::memcpy(v.bstrVal, &len, 4);
  std::memcpy(reinterpret_cast<char*>(v.bstrVal) + 4, data, len);
  return v;
}

struct Conversion {
  CVariant from;
  TVARTYPE to;
  bool ok;
  CVariant expected;  // unused where the conversion fails: the record must stay as it was
};

}  // namespace

TEST(VariantConversion, MatrixIncludingItsDeliberateFailures) {
  const Conversion rows[] = {
      // casts: sign or zero extension, low bits when narrowing
      {CVariant(-1), TVT_UINT, true, CVariant(4294967295u)},
      {CVariant(char(-1)), TVT_I8, true, CVariant(-1LL)},
      {CVariant((unsigned char)255), TVT_I8, true, CVariant(255LL)},
      {CVariant(0x80000000u), TVT_I4, true, CVariant(2147483648L)},
      {CVariant(ULONG_MAX), TVT_I1, true, CVariant(char(-1))},
      {CVariant(-5LL), TVT_UI8, true, CVariant(ULLONG_MAX - 4)},
      {CVariant(ULLONG_MAX), TVT_R8, true, CVariant(18446744073709551615.0)},
      {CVariant(0.1f), TVT_R8, true, CVariant(double(0.1f))},
      {CVariant(1e300), TVT_R4, true, CVariant(HUGE_VALF)},
      // floats truncate toward zero
      {CVariant(2.9), TVT_INT, true, CVariant(2)},
      {CVariant(-2.9), TVT_INT, true, CVariant(-2)},
      {CVariant(-2.9), TVT_UI1, true, CVariant((unsigned char)254)},
      {CVariant(300.7), TVT_I1, true, CVariant(char(44))},
      {CVariant(3e9), TVT_UINT, true, CVariant(3000000000u)},
      {CVariant(-1.0), TVT_UINT, true, CVariant(4294967295u)},
      {CVariant(1e19), TVT_UI8, true, CVariant(10000000000000000000ULL)},
      {CVariant(-2.75), TVT_UI4, true, CVariant(ULONG_MAX - 1)},
      {CVariant(3e9), TVT_INT, true, CVariant(INT_MAX)},  // out of range clamps
      {CVariant(NAN), TVT_I8, true, CVariant(0LL)},
      // booleans
      {CVariant(5L), TVT_BOOL, true, CVariant(true)},
      {CVariant(0.0), TVT_BOOL, true, CVariant(false)},
      {CVariant(NAN), TVT_BOOL, true, CVariant(true)},
      {CVariant(true), TVT_R8, true, CVariant(1.0)},
      {CVariant(true), TVT_I2, true, CVariant(short(1))},
      {CVariant(5LL), TVT_BOOL, false, {}},
      {CVariant(5ULL), TVT_BOOL, false, {}},
      // text, whose length word counts the terminator
      {CVariant(-1), TVT_BSTR, true, CVariant("-1")},
      {CVariant(char(-5)), TVT_BSTR, true, CVariant("-5")},
      {CVariant((unsigned char)200), TVT_BSTR, true, CVariant("200")},
      {CVariant(LONG_MIN), TVT_BSTR, true, CVariant("-9223372036854775808")},
      {CVariant(ULLONG_MAX), TVT_BSTR, true, CVariant("18446744073709551615")},
      {CVariant(1.5f), TVT_BSTR, true, CVariant("1.500000")},
      {CVariant(-2.75), TVT_BSTR, true, CVariant("-2.750000")},
      {CVariant(true), TVT_BSTR, true, CVariant("1")},
      // parsing: base 0, leading space and sign accepted, trailing text ignored
      {CVariant("300"), TVT_I1, true, CVariant(char(44))},
      {CVariant(" 12abc"), TVT_INT, true, CVariant(12)},
      {CVariant("abc"), TVT_INT, true, CVariant(0)},
      {CVariant("0x1f"), TVT_INT, true, CVariant(31)},
      {CVariant("017"), TVT_I2, true, CVariant(short(15))},
      {CVariant("-1"), TVT_UI4, true, CVariant(ULONG_MAX)},
      {CVariant("-1"), TVT_UI1, true, CVariant((unsigned char)255)},
      {CVariant("18446744073709551615"), TVT_UI8, true, CVariant(ULLONG_MAX)},
      {CVariant("-2.5e1"), TVT_R8, true, CVariant(-25.0)},
      {CVariant("1"), TVT_BOOL, true, CVariant(true)},
      {CVariant("0x10"), TVT_BOOL, true, CVariant(true)},
      {CVariant("true"), TVT_BOOL, true, CVariant(false)},
      {rawString("123", 3), TVT_INT, true, CVariant(123)},
      // nothing converts to TVT_NULL; TVT_NULL only changes its tag
      {CVariant(5), TVT_NULL, false, {}},
      {CVariant("x"), TVT_NULL, false, {}},
      {CVariant(true), TVT_NULL, false, {}},
      {CVariant(), TVT_R8, true, CVariant(0.0)},
      {CVariant(), TVT_BOOL, true, CVariant(false)},
      {CVariant(), TVT_BSTR, true, nullString()},
      {CVariant("same"), TVT_BSTR, true, CVariant("same")},
  };
  for (const Conversion& row : rows) {
    SCOPED_TRACE(testing::Message() << "row " << (&row - rows) << ": tag " << row.from.vt << " to " << row.to);
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
  CVariant huge(1e308), lowest(-DBL_MAX), inf(INFINITY);
  ASSERT_TRUE(huge.changeType(TVT_BSTR));
  EXPECT_EQ(lengthWord(huge.bstrVal), 309 + 7 + 1);
  EXPECT_EQ(std::strncmp(textOf(huge), "1000000000000000010979", 22), 0);
  EXPECT_STREQ(textOf(huge) + 309, ".000000");
  ASSERT_TRUE(lowest.changeType(TVT_BSTR));
  EXPECT_EQ(lengthWord(lowest.bstrVal), 318);
  ASSERT_TRUE(inf.changeType(TVT_BSTR));
  EXPECT_STREQ(textOf(inf), "inf");
}

TEST(VariantConversion, ReadersLeaveTheSourceAndReadFailuresAsRawBytes) {
  CVariant text("42");
  EXPECT_EQ(variant_resolve_as_short(text), 42);
  EXPECT_EQ(variant_resolve_as_double(text), 42.0);
  EXPECT_TRUE(variant_resolve_as_bool(text));
  EXPECT_EQ(text.vt, TVT_BSTR);
  EXPECT_STREQ(text.bstrVal ? reinterpret_cast<char*>(text.bstrVal) + 4 : "", "42");
  // long-long to bool fails, so the low byte of the source is what is read
  EXPECT_TRUE(variant_resolve_as_bool(CVariant(5LL)));
  EXPECT_FALSE(variant_resolve_as_bool(CVariant(0x100LL)));
  EXPECT_EQ(variant_resolve_as_int(CVariant()), 0);
  CVariant d(-2.9);
  EXPECT_EQ(static_cast<int>(d), -2);
  EXPECT_EQ(static_cast<unsigned char>(d), 254);
  EXPECT_EQ(static_cast<float>(d), -2.9f);
  EXPECT_EQ(d.vt, TVT_R8);
  std::string s;
  EXPECT_TRUE(CVariant(-7).getValue(s));
  EXPECT_EQ(s, "-7");
  EXPECT_TRUE(rawString("abc", 3).getValue(s));  // no terminator in the block
  EXPECT_EQ(s, "abc");
  CVariant source(2.5), target("old");
  EXPECT_TRUE(source.changeType(TVT_INT, target));
  EXPECT_EQ(source.vt, TVT_R8);
  expectSame(target, CVariant(2));
}

TEST(VariantConversion, SizesAndBitFields) {
  const UINT bits[] = {0, 8, 8, 16, 16, 32, 32, 64, 64, 64, 64, 32, 64, 0, 8};
  for (int tag = 0; tag <= TVT_BOOL; ++tag) {
    UINT width = 99;
    EXPECT_EQ(variant_get_datatype_size(TVARTYPE(tag), width), bits[tag] != 0) << tag;
    EXPECT_EQ(width, bits[tag]) << tag;
  }
  UINT width = 99;
  EXPECT_FALSE(variant_get_datatype_size(TVARTYPE(15), width));
  EXPECT_EQ(width, 0u);

  const struct {
    CVariant before;
    int bits;
    bool ok;
    CVariant after;
  } fields[] = {
      {CVariant((unsigned char)0xFF), 4, true, CVariant((unsigned char)0x0F)},
      {CVariant(char(0x0F)), 4, true, CVariant(char(-1))},
      {CVariant(char(0x17)), 4, true, CVariant(char(0x17))},  // top bit clear: left as is
      {CVariant(0x80L), 8, true, CVariant(-128L)},
      {CVariant(0xFFFFFFFFu), 1, true, CVariant(1u)},
      {CVariant(ULLONG_MAX), 64, true, CVariant(ULLONG_MAX)},
      {CVariant(0x7FFFFFFFFFLL), 36, true, CVariant(-1LL)},
      {CVariant(2.5), 4, false, CVariant(2.5)},
      {CVariant(true), 1, false, CVariant(true)},
      {CVariant(0xFFu), 0, false, CVariant(0xFFu)},
      {CVariant((short)-1), 17, false, CVariant((short)-1)},
  };
  for (const auto& row : fields) {
    CVariant v(row.before);
    EXPECT_EQ(variant_ajust_data_value(v, row.bits), row.ok) << row.bits;
    expectSame(v, row.after);
  }
}

TEST(VariantValue, SettersReleaseFirstAndKeepTheValuesOwnType) {
  CVariant v(3.5);
  variant_set_int(v, 5, false);  // the flag cannot convert to the cleared tag
  expectSame(v, CVariant(5));
  variant_set_string(v, "abc", false);
  EXPECT_EQ(v.vt, TVT_BSTR);
  variant_set_string(v, nullptr, true);
  EXPECT_STREQ(textOf(v), "abc");
  variant_set_string(v, "", true);
  EXPECT_EQ(lengthWord(v.bstrVal), 1);
  v.setValue(7ULL, false);
  expectSame(v, CVariant(7ULL));

  CVariant block("xy");
  LPBSTRUNIT own = block.bstrVal;
  variant_set_bstrunit(v, own);  // deep copy: the caller keeps its block
  EXPECT_NE(v.bstrVal, own);
  expectSame(v, block);
  variant_set_bstrunit(v, nullptr);
  expectSame(v, nullString());

  CVariant copy(block);
  variant_set_variant(copy, copy);  // cleared before it is read
  EXPECT_EQ(copy.vt, TVT_NULL);
  CVariant& same = block;
  block = same;
  EXPECT_EQ(block.vt, TVT_NULL);
  variant_clear(v);
  EXPECT_EQ(v.vt, TVT_NULL);
  EXPECT_EQ(v.ullVal, 0u);
}

TEST(VariantValue, ConstructorsTagEachType) {
  const std::pair<CVariant, TVARTYPE> rows[] = {
      {CVariant('a'), TVT_I1},     {CVariant((unsigned char)1), TVT_UI1}, {CVariant(short(1)), TVT_I2},
      {CVariant((unsigned short)1), TVT_UI2}, {CVariant(1), TVT_INT},  {CVariant(1u), TVT_UINT},
      {CVariant(1L), TVT_I4},      {CVariant(1UL), TVT_UI4},              {CVariant(1LL), TVT_I8},
      {CVariant(1ULL), TVT_UI8},   {CVariant(1.0f), TVT_R4},              {CVariant(1.0), TVT_R8},
      {CVariant(true), TVT_BOOL},  {CVariant(std::string("s")), TVT_BSTR}, {CVariant(), TVT_NULL},
  };
  for (const auto& row : rows) EXPECT_EQ(row.first.vt, row.second);
}

TEST(VariantValue, EqualityRulesAndTheirDeliberateGaps) {
  const struct {
    CVariant a, b;
    bool equal;
  } rows[] = {
      {CVariant(1), CVariant(1L), false},  // no conversion across tags
      {CVariant(7L), CVariant(7L), true},
      {CVariant(7LL), CVariant(7LL), false},  // the long-long tags are never equal
      {CVariant(7ULL), CVariant(7ULL), false},
      {CVariant(NAN), CVariant(NAN), false},
      {CVariant(0.0), CVariant(-0.0), true},
      {CVariant(1.5f), CVariant(1.5f), true},
      {CVariant(true), CVariant(true), true},
      {CVariant('a'), CVariant('b'), false},
      {CVariant(), CVariant(), true},
      // strings compare L bytes from the length word: the last four data bytes never count
      {CVariant("abcd"), CVariant("abce"), true},
      {CVariant("abcdef"), CVariant("xbcdef"), false},
      {CVariant("ab"), CVariant("cd"), true},
      {CVariant("abc"), CVariant("abcd"), false},
      {nullString(), nullString(), true},
      {nullString(), CVariant(""), false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(variant_equal_variant(row.a, row.b), row.equal) << (&row - rows);
    EXPECT_EQ(row.a == row.b, row.equal) << (&row - rows);
  }
  CVariant v(3);
  EXPECT_FALSE(v == static_cast<tagTVARIANT*>(nullptr));
  EXPECT_TRUE(v == static_cast<tagTVARIANT*>(CVariant(3)));
}

TEST(VariantTypeName, TableBothWaysAndTheBufferConvention) {
  const char* names[] = {nullptr, "char", "unsigned char", "short", "unsigned short", "int",
                         "unsigned int", "long", "unsigned long", "long long", "unsigned long long",
                         "float", "double", "string", "bool"};
  for (int tag = TVT_I1; tag <= TVT_BOOL; ++tag) {
    std::string name;
    ASSERT_TRUE(CVariant::resolveDataType(TVARTYPE(tag), name));
    EXPECT_EQ(name, names[tag]);
    TVARTYPE back = TVT_NULL;
    EXPECT_TRUE(variant_resolve_type(names[tag], back));
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
  len = 100;
  EXPECT_TRUE(variant_resolve_display_type(TVT_UI8, buffer, len));
  EXPECT_EQ(len, 19u);
  EXPECT_FALSE(variant_resolve_display_type(TVT_NULL, nullptr, len));
  EXPECT_FALSE(variant_resolve_display_type(TVARTYPE(15), nullptr, len));
  std::string unchanged = "x";
  EXPECT_FALSE(CVariant::resolveDataType(TVT_NULL, unchanged));
  EXPECT_EQ(unchanged, "x");

  TVARTYPE t = TVT_R8;
  EXPECT_FALSE(variant_resolve_type("String", t));
  EXPECT_EQ(t, TVT_NULL);
  for (const char* unknown : {" int", "Int", "int ", ""}) {
    t = TVT_R8;
    EXPECT_FALSE(CVariant::resolveDataType(std::string(unknown), t)) << unknown;
  }
  t = TVT_R8;
  EXPECT_FALSE(variant_resolve_type(nullptr, t));
  EXPECT_EQ(t, TVT_R8);
}

namespace {

// A read interface over a fixed type name and text; numbers are read as 42 and the
// overload that was used is remembered.
class FixedRead : public IVariantRead {
 public:
  FixedRead(std::string type, std::string value, bool reportEmpty = false)
      : m_type(std::move(type)), m_value(std::move(value)), m_reportEmpty(reportEmpty) {}
  bool queryInterface(const char*, void**) override { return false; }
  ULONG addRef() override { return 1; }
  ULONG releaseRef() override { return 1; }
  bool getType(char* p, DWORD& len) override { return text(m_type, p, len); }
  bool getValue(char* p, DWORD& len) override { return text(m_value, p, len); }
  bool getValue(unsigned char& v) override { return number(v, "unsigned char"); }
  bool getValue(char& v) override { return number(v, "char"); }
  bool getValue(unsigned short& v) override { return number(v, "unsigned short"); }
  bool getValue(short& v) override { return number(v, "short"); }
  bool getValue(unsigned int& v) override { return number(v, "unsigned int"); }
  bool getValue(int& v) override { return number(v, "int"); }
  bool getValue(unsigned long& v) override { return number(v, "unsigned long"); }
  bool getValue(long& v) override { return number(v, "long"); }
  bool getValue(unsigned long long& v) override { return number(v, "unsigned long long"); }
  bool getValue(long long& v) override { return number(v, "long long"); }
  bool getValue(float& v) override { return number(v, "float"); }
  bool getValue(double& v) override { return number(v, "double"); }
  bool getValue(bool& v) override { return number(v, "bool"); }
  std::string m_used;

 private:
  template <class T>
  bool number(T& v, const char* used) {
    v = static_cast<T>(42);
    m_used = used;
    return true;
  }
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
    EXPECT_EQ(source.m_used, type);
    TVARTYPE expected;
    ASSERT_TRUE(variant_resolve_type(type, expected));
    EXPECT_EQ(v.vt, expected);
    EXPECT_EQ(variant_resolve_as_int(v), type == std::string("bool") ? 1 : 42);
  }
  FixedRead text("string", "hello");
  CVariant fromText(&text);
  EXPECT_EQ(lengthWord(fromText.bstrVal), 6);
  EXPECT_STREQ(reinterpret_cast<char*>(fromText.bstrVal) + 4, "hello");
  FixedRead unknown("String", "x");
  variant_set_variantread(fromText, &unknown);
  EXPECT_EQ(fromText.vt, TVT_NULL);
  EXPECT_EQ(unknown.m_used, "");
  fromText = "again";
  fromText.setVariant(nullptr);
  EXPECT_EQ(fromText.vt, TVT_NULL);

  EXPECT_EQ(CVariantHelper::getValue(nullptr), "");
  EXPECT_EQ(CVariantHelper::getType(&text), "string");
  FixedRead empty("int", "7", true);
  EXPECT_EQ(CVariantHelper::getType(&empty), "");
  EXPECT_EQ(CVariantHelper::getValue(&empty), "");
}
