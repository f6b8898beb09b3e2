// Text conversion against the C library: every integer text must be the one its
// printf format prints, and every parse the value strtol's family or atof gives.
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include <ostrelled/Variant.h>

#include "VariantTextOracle.h"

using namespace ostrelled::internal;

namespace {

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
    for (int tag = TVT_I1; tag <= TVT_BOOL; ++tag) EXPECT_EQ(oracle::parseMismatch(text, static_cast<TVARTYPE>(tag)), "");
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

TEST(VariantTextConversion, IntegerTextIsTheTextOfItsPrintfFormat) {
  for (int tag = TVT_I1; tag <= TVT_BOOL; ++tag) {
    visitScalar(static_cast<TVARTYPE>(tag), [&](auto source) {
      using S = typename decltype(source)::type;
      if constexpr (std::is_integral_v<S>) {
        for (S value : integerSamples<S>()) EXPECT_EQ(oracle::printMismatch(value), "");
      }
      return true;
    });
  }
}

}  // namespace
