// Variant text conversions against the C library: strto* (base 0) and atof from text, printf to it.

#include <cerrno>
#include <cmath>
#include <type_traits>

#include "DataType/internal/ScalarDispatch.h"
#include "FuzzInput.h"

namespace internal = ostrelled::internal;

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

// Bit for bit, and any NaN of the same sign for any other.
template <class T>
bool sameValue(T a, T b) {
  if constexpr (std::is_floating_point_v<T>)
    if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b) && std::signbit(a) == std::signbit(b);
  return memcmp(&a, &b, sizeof(T)) == 0;
}

// Text to every scalar tag as the C library parses it, errno included.
void checkParsing(const std::string& text) {
  for (int tag = TVT_I1; tag <= TVT_BOOL; ++tag)
    internal::visitScalar(static_cast<TVARTYPE>(tag), [&](auto target) {
      using D = typename decltype(target)::type;
      errno = 0;
      const D expected = libraryParse<D>(text.c_str());
      const int expectedErrno = errno;
      CVariant var(text.c_str());
      errno = 0;
      const bool converted = variant_change_type(var, static_cast<TVARTYPE>(tag)) && var.vt == tag;
      fuzz::check(converted && errno == expectedErrno && sameValue(internal::scalarValue<D>(var), expected), "parse",
                  '"' + text + "\" to " + internal::Scalar<D>::kTypeName);
      return true;
    });
}

// The text of a value of any scalar tag is what its printf format prints, the terminator counted.
void checkFormatting(fuzz::Input& in) {
  const auto tag = static_cast<TVARTYPE>(TVT_I1 + in.byte() % (TVT_BOOL - TVT_I1 + 1));
  internal::visitScalar(tag, [&](auto source) {
    using S = typename decltype(source)::type;
    const S value = in.take<S>();
    char expected[512];
    const int length = internal::Scalar<S>::print(expected, sizeof expected, value);
    TVARIANT var;
    variant_init(var);
    internal::Scalar<S>::ref(var) = value;
    var.vt = internal::Scalar<S>::kTag;
    int word = 0;
    const bool text = variant_change_type(var, TVT_BSTR) && var.bstrVal != nullptr;
    if (text) memcpy(&word, var.bstrVal, sizeof word);
    fuzz::check(
        text && word == length + 1 && strcmp(reinterpret_cast<const char*>(var.bstrVal) + sizeof word, expected) == 0,
        "format", expected);
    variant_clear(var);
    return true;
  });
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
