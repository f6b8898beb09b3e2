#ifndef OSTRELLED_VARIANTINTERFACE_H
#define OSTRELLED_VARIANTINTERFACE_H

#include <ostrelled/Types.h>

/// @file
/// Reference-counted interfaces over a variant. The order of the virtual
/// operations below is binary interface: callers compile against it, so never
/// reorder, insert or remove one. The destructors are protected and not virtual
/// (they take no slot): objects are released only through releaseRef.

/// The reference count and the lookup by interface name that every interface object has;
/// it is released only through releaseRef, never deleted.
class IBase {
 public:
  /// name is an interface's own name ("IBase", "IVariantRead", "IVariantWrite"). When the
  /// object implements it: *pInterface = the object, one reference added, true.
  /// Otherwise false and *pInterface is left as it was.
  virtual bool queryInterface(const char* name, void** pInterface) = 0;
  /// Adds a reference; returns the count after the increment.
  virtual ULONG addRef() = 0;
  /// Drops a reference; returns the count after the decrement. At 0 the object destroys itself.
  virtual ULONG releaseRef() = 0;

 protected:
  ~IBase() = default;
};

/// Reads a variant. Text results (getType, getValue(char*, DWORD&)) follow the library's
/// buffer convention (CStringAssistant::getBaseStringFromSTLString). Note the overload
/// order: unsigned before signed in each pair, unlike the TVARTYPE order.
class IVariantRead : public IBase {
 public:
  /// The value's type name ("char" ... "bool", "string").
  virtual bool getType(char* pType, DWORD& dwLen) = 0;
  /// @name Scalar readers
  //@{
  /// The value converted to the out-parameter's type.
  virtual bool getValue(unsigned char& byteValue) = 0;
  virtual bool getValue(char& cValue) = 0;
  virtual bool getValue(unsigned short& uiValue) = 0;
  virtual bool getValue(short& iValue) = 0;
  virtual bool getValue(unsigned int& uintValue) = 0;
  virtual bool getValue(int& intValue) = 0;
  virtual bool getValue(unsigned long& ulValue) = 0;
  virtual bool getValue(long& lValue) = 0;
  virtual bool getValue(unsigned long long& ullValue) = 0;
  virtual bool getValue(long long& llValue) = 0;
  virtual bool getValue(float& fltValue) = 0;
  virtual bool getValue(double& dblValue) = 0;
  //@}
  /// The value as text.
  virtual bool getValue(char* pValue, DWORD& dwLen) = 0;
  /// The value converted to bool; the only scalar reader placed after the text one.
  virtual bool getValue(bool& boolValue) = 0;

 protected:
  ~IVariantRead() = default;
};

/// Writes a variant. bIncludeType true: the variant takes the value's type; false asks
/// for conversion to the current type, which the library's setters settle exactly as
/// true (see variant_set_int).
class IVariantWrite : public IBase {
 public:
  /// Changes the value's type to the one named by pType.
  virtual bool setType(const char* pType) = 0;
  /// @name Value writers
  //@{
  /// Stores the value, with its own type when bIncludeType is true.
  virtual bool setValue(unsigned char byteValue, bool bIncludeType) = 0;
  virtual bool setValue(char cValue, bool bIncludeType) = 0;
  virtual bool setValue(unsigned short uiValue, bool bIncludeType) = 0;
  virtual bool setValue(short iValue, bool bIncludeType) = 0;
  virtual bool setValue(unsigned int uintValue, bool bIncludeType) = 0;
  virtual bool setValue(int intValue, bool bIncludeType) = 0;
  virtual bool setValue(unsigned long ulValue, bool bIncludeType) = 0;
  virtual bool setValue(long lValue, bool bIncludeType) = 0;
  virtual bool setValue(unsigned long long ullValue, bool bIncludeType) = 0;
  virtual bool setValue(long long llValue, bool bIncludeType) = 0;
  virtual bool setValue(float fltValue, bool bIncludeType) = 0;
  virtual bool setValue(double dblValue, bool bIncludeType) = 0;
  virtual bool setValue(const char* pValue, bool bIncludeType) = 0;
  virtual bool setValue(bool boolValue, bool bIncludeType) = 0;
  //@}

 protected:
  ~IVariantWrite() = default;
};

/// Both sides of one variant, for clients; the library itself implements no IVariant.
class IVariant : public IBase {
 public:
  /// The value's type name, by the buffer convention.
  virtual bool getType(char* pType, DWORD& dwLen) = 0;
  /// Changes the value's type to the one named by pType; false for an unknown name.
  virtual bool setType(const char* pType) = 0;
  /// *ppRead = a read interface over the same value, with one reference for the caller.
  virtual bool getVariantRead(IVariantRead** ppRead) = 0;
  /// *ppWrite = a write interface over the same value, with one reference for the caller.
  virtual bool getVariantWrite(IVariantWrite** ppWrite) = 0;
  /// *ppVariant = a new, independent variant holding a copy of the value (count 1).
  virtual bool clone(IVariant** ppVariant) = 0;

 protected:
  ~IVariant() = default;
};

#endif
