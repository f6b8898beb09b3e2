#ifndef OSTRELLED_TESTS_VARIANTTEXTORACLE_H
#define OSTRELLED_TESTS_VARIANTTEXTORACLE_H

// The C library calls that define the variant text conversions, and checks of
// the library against them: shared by the table test and the fuzz target.

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>

#include <ostrelled/Variant.h>

#include "DataType/internal/ScalarDispatch.h"

namespace internal = ostrelled::internal;

namespace oracle {

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

// Bit for bit, and any NaN of the same sign for any other.
template <class T>
bool sameValue(T a, T b) {
  if constexpr (std::is_floating_point_v<T>)
    if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b) && std::signbit(a) == std::signbit(b);
  return std::memcmp(&a, &b, sizeof(T)) == 0;
}

// Empty when text converts to tag as the C library parses it, errno
// included, or when tag is no scalar; else what differs.
inline std::string parseMismatch(const std::string& text, TVARTYPE tag) {
  std::string why;
  internal::visitScalar(tag, [&](auto target) {
    using D = typename decltype(target)::type;
    errno = 0;
    const D expected = libraryParse<D>(text.c_str());
    const int expectedErrno = errno;
    CVariant var(text.c_str());
    errno = 0;
    const bool converted = variant_change_type(var, tag) && var.vt == tag;
    if (!converted || errno != expectedErrno || !sameValue(internal::scalarValue<D>(var), expected))
      why = '"' + text + "\" to " + internal::Scalar<D>::kTypeName;
    return true;
  });
  return why;
}

// Empty when the text of value is exactly what its printf format prints, with
// the length word counting the terminator; else what differs.
template <class S>
std::string printMismatch(S value) {
  char expected[512];
  const int length = internal::Scalar<S>::print(expected, sizeof expected, value);
  TVARIANT var;
  variant_init(var);
  internal::Scalar<S>::ref(var) = value;
  var.vt = internal::Scalar<S>::kTag;
  std::string why;
  int word = 0;
  if (!variant_change_type(var, TVT_BSTR) || var.bstrVal == nullptr)
    why = "no text";
  else if (std::memcpy(&word, var.bstrVal, sizeof word), word != length + 1 ||
           std::strcmp(reinterpret_cast<const char*>(var.bstrVal) + sizeof word, expected) != 0)
    why = std::string("text of ") + expected;
  variant_clear(var);
  return why;
}

}  // namespace oracle

#endif
