#ifndef OSTRELLED_SRC_DATATYPE_INTERNAL_NUMBERTEXT_H
#define OSTRELLED_SRC_DATATYPE_INTERNAL_NUMBERTEXT_H

// Integer text both ways without the C library's per-call set-up, for variant conversion.
// The results equal printf's "%d" family and strtol's family with base 0, byte for byte.
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <type_traits>

namespace ostrelled {
namespace internal {

// The text of an integer exactly as its "%d", "%u", "%ld" ... format prints it: a
// narrow type is promoted as printf's arguments are. Returns the text's length.
template <class T>
size_t formatInteger(char* buffer, size_t size, T value) {
  static_assert(std::is_integral_v<T>, "integers only");
  return static_cast<size_t>(std::to_chars(buffer, buffer + size, +value).ptr - buffer);
}

// A decimal integer of at most 19 digits (so it fits 64 bits unsigned) after C-locale
// white space and a sign, not followed by another digit. That is every text the
// formats above print and most stored text; everything else (a leading 0, which base 0
// reads as an octal or hexadecimal prefix, no digits, 20 digits or more, a locale's own
// white space) is left to the C library, which then sets errno as it always does.
struct PlainDecimal {
  bool negative = false;
  std::uint64_t magnitude = 0;

  bool read(const char* p) {
    while (*p == ' ' || (*p >= '\t' && *p <= '\r')) ++p;
    negative = *p == '-';
    if (*p == '-' || *p == '+') ++p;
    if (*p == '0') return !isDigit(p[1]) && p[1] != 'x' && p[1] != 'X';  // a lone 0
    for (int digits = 0; isDigit(*p); ++p) {
      if (++digits > 19) return false;
      magnitude = magnitude * 10 + static_cast<unsigned>(*p - '0');
    }
    return magnitude != 0;
  }

  static bool isDigit(char c) { return static_cast<unsigned>(c - '0') < 10; }
};

// strtol (strtoll) of text with base 0 and no end pointer.
inline long parseLong(const char* text) {
  constexpr std::uint64_t kLimit = std::numeric_limits<long>::max();
  PlainDecimal number;
  if (!number.read(text) || number.magnitude > kLimit + (number.negative ? 1 : 0))
    return std::strtol(text, nullptr, 0);  // out of range: clamped, with ERANGE
  return number.negative ? static_cast<long>(0 - number.magnitude) : static_cast<long>(number.magnitude);
}

// strtoul (strtoull) of text with base 0 and no end pointer: a minus sign negates
// the unsigned result, so "-1" gives all ones.
inline unsigned long parseUnsignedLong(const char* text) {
  PlainDecimal number;
  if (!number.read(text)) return std::strtoul(text, nullptr, 0);
  return number.negative ? 0 - number.magnitude : number.magnitude;
}

static_assert(sizeof(long) == 8 && sizeof(long long) == 8, "long and long long parse alike");

}  // namespace internal
}  // namespace ostrelled

#endif
