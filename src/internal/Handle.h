#ifndef OSTRELLED_SRC_INTERNAL_HANDLE_H
#define OSTRELLED_SRC_INTERNAL_HANDLE_H

// Lifetime of every heap handle handed out by a *_create or *_open function:
// a null pointer is tolerated and the caller's pointer is reset after deletion.
namespace ostrelled {
namespace internal {

template <class T>
inline void destroyHandle(T*& handle) {
  if (handle != nullptr) {
    delete handle;
    handle = nullptr;
  }
}

}  // namespace internal
}  // namespace ostrelled

#endif
