#ifndef OSTRELLED_SRC_DATATYPE_INTERNAL_SCALARDISPATCH_H
#define OSTRELLED_SRC_DATATYPE_INTERNAL_SCALARDISPATCH_H

#include <cstddef>
#include <cstdio>
#include <type_traits>

#include <ostrelled/ScalarTypes.h>

// Compile-time facts of the scalar list and the one runtime switch from a tag to its
// type. Generic code takes the type from a ScalarTag and looks its facts up in Scalar<T>.
namespace ostrelled {
namespace internal {

template <class T>
struct Scalar;

#define OSTRELLED_SCALAR_FACTS(name, type, tag, member, format, typeName)                                          \
  template <>                                                                                                      \
  struct Scalar<type> {                                                                                            \
    static constexpr TVARTYPE kTag = tag;                                                                          \
    static constexpr const char* kTypeName = typeName;                                                             \
    static type& ref(TVARIANT& var) { return var.member; }                                                         \
    static type get(const TVARIANT& var) { return var.member; }                                                    \
    static int print(char* buffer, size_t size, type value) { return std::snprintf(buffer, size, format, value); } \
  };
OSTRELLED_SCALAR_TYPES(OSTRELLED_SCALAR_FACTS)
#undef OSTRELLED_SCALAR_FACTS

// Carries a scalar type into a generic lambda; holds nothing.
template <class T>
struct ScalarTag {
  using type = T;
};

// Calls f(ScalarTag<T>{}) for the scalar type of vt and returns its bool result;
// false for TVT_NULL, TVT_BSTR and values outside the enumeration.
template <class F>
bool visitScalar(TVARTYPE vt, F&& f) {
  switch (vt) {
#define OSTRELLED_SCALAR_CASE(name, type, tag, member, format, typeName) \
  case tag:                                                              \
    return f(ScalarTag<type>{});
    OSTRELLED_SCALAR_TYPES(OSTRELLED_SCALAR_CASE)
#undef OSTRELLED_SCALAR_CASE
    default:
      return false;
  }
}

// A record's member of type T. A bool is read through its byte, so a byte other than
// 0 or 1 (left there by another type) reads as a defined true instead of an invalid bool.
template <class T>
T scalarValue(const TVARIANT& var) {
  if constexpr (std::is_same_v<T, bool>)
    return var.bVal != 0;
  else
    return Scalar<T>::get(var);
}

}  // namespace internal
}  // namespace ostrelled

#endif
