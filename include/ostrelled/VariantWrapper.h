#ifndef OSTRELLED_VARIANTWRAPPER_H
#define OSTRELLED_VARIANTWRAPPER_H

#include <cstring>

#include <ostrelled/OS_Thread.h>
#include <ostrelled/ScalarTypes.h>
#include <ostrelled/Types.h>
#include <ostrelled/VariantInterface.h>

/// @file
/// The variant wrapper (variant_wrapper_* over a handle), the read and write interface
/// objects it hands out, and CReference, a holder of one reference.

/// Puts one TVARIANT behind a read and a write interface object (defined inside the
/// library). Only the reference counts are thread-safe; the wrapped variant and the
/// handle's settings must not be changed while another thread uses them.
struct variant_wrapper_handle;

/// The name under which queryInterface answers for an interface (besides "IBase").
template <class Interface>
struct CInterfaceName;
/// The read interface answers to "IVariantRead".
template <>
struct CInterfaceName<IVariantRead> {
  /// The interface's own name.
  static constexpr const char* kName = "IVariantRead";
};
/// The write interface answers to "IVariantWrite".
template <>
struct CInterfaceName<IVariantWrite> {
  /// The interface's own name.
  static constexpr const char* kName = "IVariantWrite";
};

/// Reference count and name lookup of an interface object, written once for every
/// interface. An object lives on the heap, starts with one reference, and is destroyed
/// by the releaseRef that brings its count to 0, right after onFinalRelease().
/// The destructor and onFinalRelease take the slots after the interface's operations.
template <class Interface>
class OSTRELLED_EXPORT CInterfaceStub : public Interface {
 public:
  /// Interface objects are never copied; each is shared through its reference count.
  CInterfaceStub(const CInterfaceStub&) = delete;
  /// Interface objects are never assigned.
  CInterfaceStub& operator=(const CInterfaceStub&) = delete;

  /// Answers to "IBase" and to the interface's own name only (both name this same
  /// object); false, *pInterface untouched, for any other or a null name or pointer.
  bool queryInterface(const char* name, void** pInterface) override {
    if (name == nullptr || pInterface == nullptr) return false;
    if (std::strcmp(name, "IBase") != 0 && std::strcmp(name, CInterfaceName<Interface>::kName) != 0) return false;
    *pInterface = static_cast<Interface*>(this);
    addRef();
    return true;
  }
  /// Adds a reference atomically; returns the count after the increment.
  ULONG addRef() override { return OS::Thread::syncFetchAdd(&m_dwRef); }
  /// Drops a reference atomically; returns the count after it, and at 0 destroys the object.
  ULONG releaseRef() override {
    const ULONG count = OS::Thread::syncFetchSub(&m_dwRef);
    if (count != 0) return count;
    onFinalRelease();
    delete this;
    return 0;
  }

 protected:
  /// Starts with one reference, the creator's.
  CInterfaceStub() : m_dwRef(1) {}
  /// Objects go only through releaseRef, never through delete.
  virtual ~CInterfaceStub() = default;
  /// Called once, just before the object destroys itself; does nothing here.
  virtual void onFinalRelease() {}

  /// The reference count, changed only atomically.
  ULONG m_dwRef;
};

/// The count-holding stub of the read interface.
class OSTRELLED_EXPORT IVariantReadStub : public CInterfaceStub<IVariantRead> {};
/// The count-holding stub of the write interface.
class OSTRELLED_EXPORT IVariantWriteStub : public CInterfaceStub<IVariantWrite> {};

/// Reads the variant it is pointed at (not owned). Every operation fails while it points
/// at none. Text results follow CStringAssistant::getBaseStringFromSTLString: a null
/// buffer asks for the size, a buffer one short fails and is left alone.
class OSTRELLED_EXPORT CVariantRead : public IVariantReadStub {
 public:
  /// Points at no variant: every operation fails until setWrapperValue.
  CVariantRead() : m_pWrapperValue(nullptr) {}
  /// Points at pWrapperValue (null for none); the variant stays the caller's.
  void setWrapperValue(TVARIANT* pWrapperValue) { m_pWrapperValue = pWrapperValue; }

  /// The type name; a TVT_NULL value has none and reports empty text.
  bool getType(char* pType, DWORD& dwLen) override;
  /// The value as text (a string as it is, a number formatted); the variant is unchanged.
  /// False for a tag outside the enumeration.
  bool getValue(char* pValue, DWORD& dwLen) override;
  /// Declares the scalar readers.
#define OSTRELLED_DECLARE_READ(name, type, tag, member, format, typeName) \
  /** The value converted to type as variant_resolve_as_##name does */    \
  bool getValue(type& value) override;
  OSTRELLED_SCALAR_TYPES(OSTRELLED_DECLARE_READ)
#undef OSTRELLED_DECLARE_READ

 protected:
  /// Objects go only through releaseRef.
  ~CVariantRead() override;

 private:
  TVARIANT* m_pWrapperValue;
};

/// Writes the variant it is pointed at (not owned). Every operation fails while it points
/// at none; otherwise each returns true.
class OSTRELLED_EXPORT CVariantWrite : public IVariantWriteStub {
 public:
  /// Points at no variant: every operation fails until setWrapperValue.
  CVariantWrite() : m_pWrapperValue(nullptr) {}
  /// Points at pWrapperValue (null for none); the variant stays the caller's.
  void setWrapperValue(TVARIANT* pWrapperValue) { m_pWrapperValue = pWrapperValue; }

  /// Converts the value to the named type and returns true even for an unknown name or an
  /// impossible conversion (the value is then unchanged): intended, callers that care
  /// read the type back.
  bool setType(const char* pType) override;
  /// Stores the value through the variant setter of its type; bIncludeType is passed on.
  bool setValue(const char* pValue, bool bIncludeType) override;
  /// Declares the scalar writers.
#define OSTRELLED_DECLARE_WRITE(name, type, tag, member, format, typeName)    \
  /** Stores a type through variant_set_##name with bIncludeType passed on */ \
  bool setValue(type value, bool bIncludeType) override;
  OSTRELLED_SCALAR_TYPES(OSTRELLED_DECLARE_WRITE)
#undef OSTRELLED_DECLARE_WRITE

 protected:
  /// Objects go only through releaseRef.
  ~CVariantWrite() override;

 private:
  TVARIANT* m_pWrapperValue;
};

/// Holds one reference to an interface object and gives it back when it goes.
template <class T>
class CReference {
 public:
  /// Holds nothing (nil).
  CReference() : m_pObject(nullptr) {}
  /// Adopts the reference that p carries (no addRef), like operator=(T*).
  explicit CReference(T* p) : m_pObject(p) {}
  /// A copy takes a reference of its own.
  CReference(const CReference& other) : m_pObject(other.m_pObject) {
    if (m_pObject != nullptr) m_pObject->addRef();
  }
  /// Takes a reference to other's object and gives back the one held before.
  CReference& operator=(const CReference& other) {
    if (other.m_pObject != nullptr) other.m_pObject->addRef();
    release();
    m_pObject = other.m_pObject;
    return *this;
  }
  /// Gives back the reference held, if any.
  ~CReference() { release(); }

  /// Gives back the reference held so far and adopts p's without adding one (a new
  /// object's count of 1 becomes this reference's).
  CReference& operator=(T* p) {
    release();
    m_pObject = p;
    return *this;
  }
  /// True when no object is held.
  bool nil() const { return m_pObject == nullptr; }
  /// Gives back the reference held, if any; the reference is nil afterwards.
  void release() {
    T* object = m_pObject;
    m_pObject = nullptr;
    if (object != nullptr) object->releaseRef();
  }
  /// The object held; null when nil.
  T* operator->() const { return m_pObject; }
  /// The object held, without adding a reference; null when nil.
  operator T*() const { return m_pObject; }

 private:
  T* m_pObject;
};

extern "C" {
/// New handle: read allowed, write not, no variant.
OSTRELLED_EXPORT variant_wrapper_handle* variant_wrapper_create();
/// Deletes the handle (and its variant if it owns one) and sets the caller's pointer to
/// null; null does nothing. Interfaces still held survive, but still point at the
/// handle's variant: after an owned variant is gone they must not be used.
OSTRELLED_EXPORT void variant_wrapper_destroy(variant_wrapper_handle*& handle);
/// Which interfaces variant_wrapper_get_variantread/_get_variantwrite hand out from now on;
/// interfaces handed out earlier keep working (intended). Null is ignored.
OSTRELLED_EXPORT void variant_wrapper_set_mode(variant_wrapper_handle* handle, bool bAllowRead, bool bAllowWrite);
/// Wraps wrapperVar: a deep copy that the handle owns when bCopyVar is true, otherwise
/// wrapperVar itself, which the caller keeps alive while the handle or its interfaces are
/// used. A variant the handle owned is freed. Interfaces already out see the new variant.
/// Handing back the handle's own variant changes nothing.
OSTRELLED_EXPORT void variant_wrapper_set_wrapper_value(variant_wrapper_handle* handle, TVARIANT* wrapperVar,
                                                        bool bCopyVar);
/// The wrapped variant; null when there is none or for a null handle.
OSTRELLED_EXPORT TVARIANT* variant_wrapper_get_wrapper_value(variant_wrapper_handle* handle);
/// The type name through the handle's read interface whatever the mode, with dwLen written
/// through despite the const when it changes (the size of a null-buffer query): pass a
/// variable. False for a null handle or no variant.
OSTRELLED_EXPORT bool variant_wrapper_get_type(variant_wrapper_handle* handle, char* pType, const DWORD& dwLen);
/// setType through the handle's write interface whatever the mode: true even for an unknown
/// name; false for a null handle or no variant.
OSTRELLED_EXPORT bool variant_wrapper_set_type(variant_wrapper_handle* handle, const char* pType);
/// The read interface with one reference added for the caller (give it back with
/// releaseRef); null when reading is not allowed or the handle is null.
OSTRELLED_EXPORT IVariantRead* variant_wrapper_get_variantread(variant_wrapper_handle* handle);
/// The write interface, as variant_wrapper_get_variantread when writing is allowed.
OSTRELLED_EXPORT IVariantWrite* variant_wrapper_get_variantwrite(variant_wrapper_handle* handle);
/// A new handle that always owns a deep copy of the variant, even when the source only
/// borrowed it; same mode, its own interfaces. Null for a null handle.
OSTRELLED_EXPORT variant_wrapper_handle* variant_wrapper_clone(variant_wrapper_handle* handle);
}

#endif
