#ifndef OSTRELLED_SCALARTYPES_H
#define OSTRELLED_SCALARTYPES_H

#include <ostrelled/Types.h>

/// @file
/// The list of scalar value types that every per-type family expands from.

/// The thirteen scalar value types in tag order, written once. Every per-type
/// family of the library (setters, readers, type names, sizes, text formats,
/// CVariant's members, container element types) expands from this list.
///
///     X(name, type, tag, member, format, typeName)
///
///     name      suffix of the flat functions: variant_set_<name>, variant_resolve_as_<name>
///     type      the scalar type of the value
///     tag       its TVARTYPE
///     member    its member in TVARIANT's union
///     format    printf format of its text (narrow types are promoted as arguments)
///     typeName  its textual type name, as reported through IVariantRead::getType
///
/// TVT_BSTR ("string") is not a scalar and is handled beside this list.
#define OSTRELLED_SCALAR_TYPES(X)                                        \
  X(char, CHAR, TVT_I1, cVal, "%d", "char")                              \
  X(byte, BYTE, TVT_UI1, bVal, "%u", "unsigned char")                    \
  X(short, SHORT, TVT_I2, iVal, "%d", "short")                           \
  X(ushort, USHORT, TVT_UI2, uiVal, "%u", "unsigned short")              \
  X(int, INT, TVT_INT, intVal, "%d", "int")                              \
  X(uint, UINT, TVT_UINT, uintVal, "%u", "unsigned int")                 \
  X(long, LONG, TVT_I4, lVal, "%ld", "long")                             \
  X(ulong, ULONG, TVT_UI4, ulVal, "%lu", "unsigned long")                \
  X(longlong, LONGLONG, TVT_I8, llVal, "%lld", "long long")              \
  X(ulonglong, ULONGLONG, TVT_UI8, ullVal, "%llu", "unsigned long long") \
  X(float, FLOAT, TVT_R4, fltVal, "%f", "float")                         \
  X(double, DOUBLE, TVT_R8, dblVal, "%f", "double")                      \
  X(bool, TVARIANT_BOOL, TVT_BOOL, boolVal, "%d", "bool")

#endif
