// Text conversion against the C library: every integer text must be the one its
// printf format prints, and every parse the value strtol's family or atof gives.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <ostrelled/Variant.h>

#include "DataType/ScalarDispatch.h"

using namespace DataType;

namespace {

// What the C library makes of text for target type D, with the low bits kept.
template <class D>
D libraryParse(const char* text) {
  if constexpr (std::is_same_v<D, bool>)
    return std::strtol(text, nullptr, 0) != 0;
  else if constexpr (std::is_floating_point_v<D>)
    return static_cast<D>(std::atof(text));
  else if constexpr (std::is_same_v<D, LONGLONG>)
    return std::strtoll(text, nullptr, 0);
  else if constexpr (std::is_same_v<D, ULONGLONG>)
    return std::strtoull(text, nullptr, 0);
  else if constexpr (std::is_signed_v<D>)
    return static_cast<D>(std::strtol(text, nullptr, 0));
  else
    return static_cast<D>(std::strtoul(text, nullptr, 0));
}

// Every combination of white space, sign, body and tail: plain decimals of each length
// up to and past 64 bits, the limits of each width on both sides, octal and hexadecimal
// prefixes, and texts without a number.
std::vector<std::string> texts() {
  const char* spaces[] = {"", " ", "\t\n", "\v\f\r "};
  const char* signs[] = {"", "+", "-", "--", "+-"};
  const char* tails[] = {"", "abc", " 7", ".5", "9", "e3"};
  std::vector<std::string> bodies = {"0", "00", "07", "08", "017", "0x", "0X1f", "0xfffffffffffffffff", "0x8000000000000000",
      "0777777777777777777777", "01777777777777777777777", "", "x1", "abc", "1e5", "inf", "nan",
      "127", "128", "255", "256", "32767", "32768", "65535", "65536", "2147483647", "2147483648",
      "4294967295", "4294967296", "9223372036854775807", "9223372036854775808", "9223372036854775809",
      "18446744073709551615", "18446744073709551616", "99999999999999999999", "000000000000000000000001"};
  std::string digits;
  for (int length = 1; length <= 24; ++length) {
    digits += static_cast<char>('0' + (length * 7) % 10 + (length * 7 % 10 == 0));
    bodies.push_back(digits);
  }
  std::vector<std::string> out;
  for (const char* space : spaces)
    for (const char* sign : signs)
      for (const std::string& body : bodies)
        for (const char* tail : tails) out.push_back(std::string(space) + sign + body + tail);
  return out;
}

TEST(VariantTextConversion, EveryTextParsesAsTheCLibraryParsesIt) {
  for (const std::string& text : texts()) {
    for (int tag = TVT_I1; tag <= TVT_BOOL; ++tag) {
      if (tag == TVT_BSTR) continue;
      visitScalar(static_cast<TVARTYPE>(tag), [&](auto target) {
        using D = typename decltype(target)::type;
        errno = 0;
        const D expected = libraryParse<D>(text.c_str());
        const int expectedErrno = errno;
        CVariant var(text.c_str());
        errno = 0;
        EXPECT_TRUE(variant_change_type(var, static_cast<TVARTYPE>(tag)));
        EXPECT_EQ(errno, expectedErrno) << '"' << text << "\" to " << Scalar<D>::kTypeName;
        const D actual = scalarValue<D>(var);
        EXPECT_EQ(std::memcmp(&actual, &expected, sizeof(D)), 0) << '"' << text << "\" to " << Scalar<D>::kTypeName;
        return true;
      });
    }
  }
}

// The limits of each type and the values next to every power of ten, in that type.
template <class T>
std::vector<T> integerSamples() {
  std::vector<T> out = {std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), T(0), T(1), T(-1)};
  for (unsigned long long power = 1; power <= std::numeric_limits<T>::max() / 10; power *= 10) {
    for (unsigned long long value : {power * 10 - 1, power * 10, power * 10 + 1}) {
      out.push_back(static_cast<T>(value));
      out.push_back(static_cast<T>(0 - value));
    }
  }
  return out;
}

// The text of each sample of S against snprintf with S's own format.
template <class S>
void expectPrintfTexts() {
  for (S value : integerSamples<S>()) {
    char expected[32];
    const int length = Scalar<S>::print(expected, sizeof expected, value);
    TVARIANT var;
    variant_init(var);
    Scalar<S>::ref(var) = value;
    var.vt = Scalar<S>::kTag;
    EXPECT_TRUE(variant_change_type(var, TVT_BSTR));
    int word;
    std::memcpy(&word, var.bstrVal, sizeof word);
    EXPECT_EQ(word, length + 1);
    EXPECT_STREQ(reinterpret_cast<const char*>(var.bstrVal) + sizeof word, expected);
    variant_clear(var);
  }
}

TEST(VariantTextConversion, IntegerTextIsTheTextOfItsPrintfFormat) {
  for (int tag = TVT_I1; tag <= TVT_BOOL; ++tag) {
    visitScalar(static_cast<TVARTYPE>(tag), [&](auto source) {
      using S = typename decltype(source)::type;
      if constexpr (std::is_integral_v<S>) expectPrintfTexts<S>();
      return true;
    });
  }
}

}  // namespace
