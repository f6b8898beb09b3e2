#ifndef OSTRELLED_TYPES_H
#define OSTRELLED_TYPES_H

#include <ostrelled/Export.h>

/// @file
/// The scalar type names, the value tags, the counted-string unit, the tagged value and
/// the real-time mode, shared by the whole interface. LONG, ULONG and DWORD follow the
/// platform's long and are 64 bits wide.

/// Signed 8-bit integer (TVT_I1).
typedef char CHAR;
/// Unsigned 8-bit integer (TVT_UI1).
typedef unsigned char BYTE;
/// Signed 16-bit integer (TVT_I2).
typedef short SHORT;
/// Unsigned 16-bit integer (TVT_UI2).
typedef unsigned short USHORT;
/// Signed 32-bit integer (TVT_INT).
typedef int INT;
/// Unsigned 32-bit integer (TVT_UINT).
typedef unsigned int UINT;
/// Signed 64-bit integer despite the name (TVT_I4): the platform's long.
typedef long LONG;
/// Unsigned 64-bit integer despite the name (TVT_UI4): the platform's unsigned long.
typedef unsigned long ULONG;
/// Signed 64-bit integer (TVT_I8).
typedef long long LONGLONG;
/// Unsigned 64-bit integer (TVT_UI8).
typedef unsigned long long ULONGLONG;
/// 32-bit floating point (TVT_R4).
typedef float FLOAT;
/// 64-bit floating point (TVT_R8).
typedef double DOUBLE;
/// The boolean of a variant (TVT_BOOL), one byte.
typedef bool TVARIANT_BOOL;
/// Unsigned 64-bit integer despite the name; sizes and lengths of text out-parameters.
typedef unsigned long DWORD;
/// Untyped pointer.
typedef void* LPVOID;

/// Value tags, where TVT_I4/TVT_UI4 name the 64-bit LONG/ULONG pair; the 32-bit pair
/// is TVT_INT/TVT_UINT.
enum TVARTYPE : unsigned short {
  TVT_NULL = 0,   ///< No value; the union is zero.
  TVT_I1 = 1,     ///< CHAR, in cVal.
  TVT_UI1 = 2,    ///< BYTE, in bVal.
  TVT_I2 = 3,     ///< SHORT, in iVal.
  TVT_UI2 = 4,    ///< USHORT, in uiVal.
  TVT_INT = 5,    ///< INT, in intVal.
  TVT_UINT = 6,   ///< UINT, in uintVal.
  TVT_I4 = 7,     ///< LONG (64 bits), in lVal.
  TVT_UI4 = 8,    ///< ULONG (64 bits), in ulVal.
  TVT_I8 = 9,     ///< LONGLONG, in llVal.
  TVT_UI8 = 10,   ///< ULONGLONG, in ullVal.
  TVT_R4 = 11,    ///< FLOAT, in fltVal.
  TVT_R8 = 12,    ///< DOUBLE, in dblVal.
  TVT_BSTR = 13,  ///< Counted string, in bstrVal; the only tag that owns memory.
  TVT_BOOL = 14   ///< TVARIANT_BOOL, in boolVal.
};

/// One cell of a counted-string block. A block is a signed 32-bit length word L
/// followed by L data bytes; an LPBSTRUNIT always points at the length word.
struct BSTR_UNIT {
  char character;  ///< One byte of the block: the length word's or the data's.
};
/// Pointer to the length word of a counted-string block (allocated with new[]).
typedef BSTR_UNIT* LPBSTRUNIT;

/// Tagged value. Only a TVT_BSTR record owns memory (its bstrVal block).
typedef struct tagTVARIANT {
  TVARTYPE vt;  ///< Which member of the union holds the value.
  union {
    CHAR cVal;              ///< Value of a TVT_I1 record.
    BYTE bVal;              ///< Value of a TVT_UI1 record.
    SHORT iVal;             ///< Value of a TVT_I2 record.
    USHORT uiVal;           ///< Value of a TVT_UI2 record.
    INT intVal;             ///< Value of a TVT_INT record.
    UINT uintVal;           ///< Value of a TVT_UINT record.
    LONG lVal;              ///< Value of a TVT_I4 record (64 bits).
    ULONG ulVal;            ///< Value of a TVT_UI4 record (64 bits).
    LONGLONG llVal;         ///< Value of a TVT_I8 record.
    ULONGLONG ullVal;       ///< Value of a TVT_UI8 record.
    FLOAT fltVal;           ///< Value of a TVT_R4 record.
    DOUBLE dblVal;          ///< Value of a TVT_R8 record.
    LPBSTRUNIT bstrVal;     ///< Block of a TVT_BSTR record, owned by the record; may be null.
    TVARIANT_BOOL boolVal;  ///< Value of a TVT_BOOL record.
  };
} TVARIANT, *LPTVARIANT;
/// @typedef LPTVARIANT
/// Pointer to a tagged value.

/// Selects the real-time or the standard branch of a call. USE_DEFAULT falls
/// back to get_default_rt_mode(), which is always USE_STD.
enum RT_MODE : int {
  USE_DEFAULT = 0,  ///< Whatever get_default_rt_mode() says (USE_STD).
  USE_RT = 1,       ///< The real-time branch.
  USE_STD = 2       ///< The standard branch.
};

#endif
