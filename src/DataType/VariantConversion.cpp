// Variant conversion: changing a record's tag, reading it as any scalar, bit widths
// and bit-field adjustment. Converting between scalars allocates nothing; converting
// to text allocates only the block that the record keeps.
#include <ostrelled/Variant.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>

#include "DataType/internal/BStrBlock.h"
#include "DataType/internal/NumberText.h"
#include "DataType/internal/ScalarDispatch.h"

using namespace ostrelled::internal;

namespace {

// Room for the longest "%f" text: -DBL_MAX prints a sign, 309 digits, a point and six
// decimals (318 characters with the terminator).
constexpr size_t kTextBufferSize = 400;

// Truncation toward zero into I. Values beyond I's range (outside the interface's
// contract) clamp to its limits and NaN gives 0, so no conversion is ever undefined.
template <class I>
I truncateClamped(double value) {
  constexpr double kHalfRange = -static_cast<double>(std::numeric_limits<I>::min());
  if (std::isnan(value)) return 0;
  if (value >= kHalfRange) return std::numeric_limits<I>::max();
  if (value <= -kHalfRange - 1.0) return std::numeric_limits<I>::min();
  return static_cast<I>(value);
}

// Unsigned 64-bit truncation. Below 2^63 the value goes through the signed
// truncation, so a negative value wraps as its signed result would (-2.75 gives
// 2^64 - 2); from 2^64 on it clamps to the maximum.
std::uint64_t truncateUnsigned64(double value) {
  constexpr double kTwoTo63 = 9223372036854775808.0;
  if (value >= 2.0 * kTwoTo63) return std::numeric_limits<std::uint64_t>::max();
  if (value >= kTwoTo63) return static_cast<std::uint64_t>(value);
  return static_cast<std::uint64_t>(truncateClamped<std::int64_t>(value));
}

// Float to integer: 32-bit-and-narrower targets except UINT take the low bits of a
// signed 32-bit truncation; UINT, LONG and LONGLONG of a signed 64-bit one.
template <class D>
D floatToInteger(double value) {
  if constexpr (std::is_same_v<D, ULONG> || std::is_same_v<D, ULONGLONG>)
    return static_cast<D>(truncateUnsigned64(value));
  else if constexpr (sizeof(D) <= 4 && !std::is_same_v<D, UINT>)
    return static_cast<D>(truncateClamped<std::int32_t>(value));
  else
    return static_cast<D>(truncateClamped<std::int64_t>(value));
}

// One numeric cell of the conversion matrix; false where the matrix has no conversion.
template <class D, class S>
bool castScalar(S value, D& out) {
  if constexpr (std::is_same_v<D, bool>) {
    // Every number reaches bool except the long-long pair: a deliberate asymmetry, kept.
    if constexpr (std::is_same_v<S, LONGLONG> || std::is_same_v<S, ULONGLONG>) return false;
    out = value != 0;  // NaN counts as not zero
  } else if constexpr (std::is_floating_point_v<S> && std::is_integral_v<D>) {
    out = floatToInteger<D>(value);
  } else {
    out = static_cast<D>(value);  // integers extend by their source's sign or wrap
  }
  return true;
}

// Text to a scalar, as the C library parses it with base 0 and no end pointer: trailing
// characters are ignored and text without a number gives 0. Integers take the fast
// path of NumberText.h, which hands the texts it does not recognise to the C library.
template <class D>
D parseScalar(const char* text) {
  if constexpr (std::is_same_v<D, bool>)
    return parseLong(text) != 0;
  else if constexpr (std::is_floating_point_v<D>)
    return static_cast<D>(std::atof(text));
  else if constexpr (std::is_signed_v<D>)
    return static_cast<D>(parseLong(text));  // strtol and strtoll alike: long is 64 bits
  else
    return static_cast<D>(parseUnsignedLong(text));
}

// The value's text in a new block whose length word counts the terminator.
// Integers print through to_chars, which writes the same digits as their formats;
// floats keep snprintf's "%f".
template <class S>
LPBSTRUNIT formatScalar(S value) {
  char text[kTextBufferSize];
  if constexpr (std::is_integral_v<S>) {
    const size_t len = formatInteger(text, sizeof text - 1, value);
    text[len] = '\0';
    return makeBlock(text, len + 1);
  } else {
    const int len = Scalar<S>::print(text, sizeof text, value);
    return makeBlock(text, len < 0 ? 1 : static_cast<size_t>(len) + 1);
  }
}

// Writes src's value converted to type into out's union, leaving the bytes that the
// target's member does not cover as they are. src is only read (a string is parsed,
// not freed), so readers convert without copying. False where the matrix has no
// conversion.
bool convertValue(const TVARIANT& src, TVARTYPE type, TVARIANT& out) {
  if (src.vt == type) return true;
  if (src.vt == TVT_BSTR) {
    return withBlockText(src.bstrVal, [&](const char* text) {
      return visitScalar(type, [&](auto target) {
        using D = typename decltype(target)::type;
        Scalar<D>::ref(out) = parseScalar<D>(text);
        return true;
      });
    });
  }
  // A record without a value (TVT_NULL or an unknown tag) is only retagged, keeping
  // its zero union: deliberate.
  if (src.vt == TVT_NULL || src.vt > TVT_BOOL) return true;
  return visitScalar(src.vt, [&](auto source) {
    const auto value = scalarValue<typename decltype(source)::type>(src);
    if (type == TVT_BSTR) {
      out.bstrVal = formatScalar(value);
      return true;
    }
    return visitScalar(type, [&](auto target) {
      using D = typename decltype(target)::type;
      D converted;
      if (!castScalar(value, converted)) return false;
      Scalar<D>::ref(out) = converted;
      return true;
    });
  });
}

template <class T>
T resolveAs(const TVARIANT& srcVar) {
  TVARIANT converted = srcVar;  // a shallow copy: convertValue never frees or keeps its string
  // When the conversion is impossible the source's own bytes are read as T; intended.
  convertValue(srcVar, Scalar<T>::kTag, converted);
  return scalarValue<T>(converted);
}

}  // namespace

// Only the union moves between the record and its converted copy: copying whole
// records built from narrow stores stalls store forwarding, a third of the cost.
bool variant_change_type(TVARIANT& var, TVARTYPE type) {
  if (var.vt == type) return true;
  TVARIANT converted;
  converted.ullVal = var.vt == TVT_BSTR ? 0 : var.ullVal;  // no stale pointer bytes beside a number
  if (!convertValue(var, type, converted)) return false;
  if (var.vt == TVT_BSTR) freeBlock(var.bstrVal);  // parsed: the text is no longer needed
  var.ullVal = converted.ullVal;
  var.vt = type;
  return true;
}

#define OSTRELLED_DEFINE_READER(name, type, tag, member, format, typeName) \
  type variant_resolve_as_##name(const TVARIANT& srcVar) { return resolveAs<type>(srcVar); }
OSTRELLED_SCALAR_TYPES(OSTRELLED_DEFINE_READER)
#undef OSTRELLED_DEFINE_READER

bool variant_get_datatype_size(TVARTYPE type, UINT& uMaxBit) {
  uMaxBit = 0;
  return visitScalar(type, [&](auto tag) {
    uMaxBit = sizeof(typename decltype(tag)::type) * 8;
    return true;
  });
}

bool variant_ajust_data_value(TVARIANT& var, int iSize) {
  return visitScalar(var.vt, [&](auto tag) {
    using T = typename decltype(tag)::type;
    if constexpr (!std::is_integral_v<T> || std::is_same_v<T, bool>) {
      return false;
    } else {
      constexpr int kWidth = sizeof(T) * 8;
      if (iSize < 1 || iSize > kWidth) return false;
      const std::uint64_t field = iSize == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << iSize) - 1;
      std::uint64_t data = static_cast<std::uint64_t>(scalarValue<T>(var));  // sign-extends signed T
      if constexpr (std::is_signed_v<T>) {
        // Sign extension only when the field's top bit is set; a clear top bit leaves
        // the bits above it as they were. One-sided on purpose.
        if ((data >> (iSize - 1)) & 1) data |= ~field;
      } else {
        data &= field;
      }
      Scalar<T>::ref(var) = static_cast<T>(data);
      return true;
    }
  });
}
