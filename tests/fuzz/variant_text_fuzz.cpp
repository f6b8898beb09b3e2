// Variant text conversions in both directions, against the C library calls
// that define them: strtol, strtoul, strtoll, strtoull and atof (base 0, no end
// pointer) from text, and the printf format of each type to text.

#include <math.h>

#include <vector>

#include <ostrelled/Variant.h>

#include "FuzzInput.h"

namespace {

// Two results are the same value: bit for bit, and any NaN of the same sign
// for any other (the payload is not part of the value).
template <typename T>
bool same(T a, T b) {
  if constexpr (std::is_floating_point_v<T>) {
    if (isnan(a) || isnan(b)) return isnan(a) && isnan(b) && signbit(a) == signbit(b);
  }
  return memcmp(&a, &b, sizeof(T)) == 0;
}

// What each tag's parser gives for text s; the narrow types keep the low bits.
#define OSTRELLED_PARSED_TYPES(X)                            \
  X(TVT_I1, cVal, strtol(s, nullptr, 0))                     \
  X(TVT_UI1, bVal, strtoul(s, nullptr, 0))                   \
  X(TVT_I2, iVal, strtol(s, nullptr, 0))                     \
  X(TVT_UI2, uiVal, strtoul(s, nullptr, 0))                  \
  X(TVT_INT, intVal, strtol(s, nullptr, 0))                  \
  X(TVT_UINT, uintVal, strtoul(s, nullptr, 0))               \
  X(TVT_I4, lVal, strtol(s, nullptr, 0))                     \
  X(TVT_UI4, ulVal, strtoul(s, nullptr, 0))                  \
  X(TVT_I8, llVal, strtoll(s, nullptr, 0))                   \
  X(TVT_UI8, ullVal, strtoull(s, nullptr, 0))                \
  X(TVT_R4, fltVal, atof(s))                                 \
  X(TVT_R8, dblVal, atof(s))                                 \
  X(TVT_BOOL, boolVal, strtol(s, nullptr, 0) != 0)

void checkParsing(const std::string& text) {
  const char* s = text.c_str();
#define OSTRELLED_CHECK_PARSED(tag, member, expected)                          \
  {                                                                            \
    TVARIANT v;                                                                \
    variant_init(v);                                                           \
    variant_set_string(v, s, true);                                            \
    fuzz::check(variant_change_type(v, tag) && v.vt == tag, "parse " #tag, text); \
    fuzz::check(same(v.member, static_cast<decltype(v.member)>(expected)), "parsed " #tag, text); \
    variant_clear(v);                                                          \
  }
  OSTRELLED_PARSED_TYPES(OSTRELLED_CHECK_PARSED)
#undef OSTRELLED_CHECK_PARSED
}

// The text of a value, as its printf format gives it.
template <typename T>
std::string printed(const char* format, T value) {
  std::vector<char> text(512);
  snprintf(text.data(), text.size(), format, value);
  return text.data();
}

void checkFormatting(fuzz::Input& in) {
  const int which = in.byte() % 13;
  int index = 0;
#define OSTRELLED_CHECK_FORMATTED(name, type, tag, member, format, typeName)                      \
  if (index++ == which) {                                                                         \
    const type value = in.take<type>();                                                               \
    TVARIANT v;                                                                                   \
    variant_init(v);                                                                              \
    variant_set_##name(v, value, true);                                                           \
    const std::string expected = printed(format, value);                                          \
    fuzz::check(variant_change_type(v, TVT_BSTR) && v.vt == TVT_BSTR && v.bstrVal, "format " #tag, expected); \
    int length;                                                                                   \
    memcpy(&length, v.bstrVal, sizeof length);                                                    \
    const char* got = reinterpret_cast<const char*>(v.bstrVal) + 4;                              \
    fuzz::check(length == int(expected.size() + 1) && expected == got, "formatted " #tag, expected); \
    variant_clear(v);                                                                             \
  }
  OSTRELLED_SCALAR_TYPES(OSTRELLED_CHECK_FORMATTED)
#undef OSTRELLED_CHECK_FORMATTED
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  if (in.byte() & 1)
    checkFormatting(in);
  else
    checkParsing(in.rest());
  return 0;
}
