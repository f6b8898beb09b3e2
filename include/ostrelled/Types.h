#ifndef OSTRELLED_TYPES_H
#define OSTRELLED_TYPES_H

#include <ostrelled/Export.h>

// Scalar names used across the whole interface. LONG, ULONG and DWORD follow
// the platform's long and are 64 bits wide.
typedef char CHAR;
typedef unsigned char BYTE;
typedef short SHORT;
typedef unsigned short USHORT;
typedef int INT;
typedef unsigned int UINT;
typedef long LONG;
typedef unsigned long ULONG;
typedef long long LONGLONG;
typedef unsigned long long ULONGLONG;
typedef float FLOAT;
typedef double DOUBLE;
typedef bool TVARIANT_BOOL;
typedef unsigned long DWORD;
typedef void* LPVOID;

// Value tags. TVT_I4/TVT_UI4 name the 64-bit LONG/ULONG pair; the 32-bit pair
// is TVT_INT/TVT_UINT.
enum TVARTYPE : unsigned short {
  TVT_NULL = 0,
  TVT_I1 = 1,
  TVT_UI1 = 2,
  TVT_I2 = 3,
  TVT_UI2 = 4,
  TVT_INT = 5,
  TVT_UINT = 6,
  TVT_I4 = 7,
  TVT_UI4 = 8,
  TVT_I8 = 9,
  TVT_UI8 = 10,
  TVT_R4 = 11,
  TVT_R8 = 12,
  TVT_BSTR = 13,
  TVT_BOOL = 14
};

// One cell of a counted-string block. A block is a signed 32-bit length word L
// followed by L data bytes; an LPBSTRUNIT always points at the length word.
struct BSTR_UNIT {
  char character;
};
typedef BSTR_UNIT* LPBSTRUNIT;

// Tagged value. Only a TVT_BSTR record owns memory (its bstrVal block).
typedef struct tagTVARIANT {
  TVARTYPE vt;
  union {
    CHAR cVal;
    BYTE bVal;
    SHORT iVal;
    USHORT uiVal;
    INT intVal;
    UINT uintVal;
    LONG lVal;
    ULONG ulVal;
    LONGLONG llVal;
    ULONGLONG ullVal;
    FLOAT fltVal;
    DOUBLE dblVal;
    LPBSTRUNIT bstrVal;
    TVARIANT_BOOL boolVal;
  };
} TVARIANT, *LPTVARIANT;

// Selects the real-time or the standard branch of a call. USE_DEFAULT falls
// back to get_default_rt_mode(), which is always USE_STD.
enum RT_MODE : int { USE_DEFAULT = 0, USE_RT = 1, USE_STD = 2 };

#endif
