#ifndef OSTRELLED_OS_FILESYSTEM_H
#define OSTRELLED_OS_FILESYSTEM_H

#include <ostrelled/Types.h>

/// @file
/// Directory walks and path names.

/// Implemented by the caller and only called by the walk, which never creates,
/// copies or destroys it. rootPath followed by the relative path is the full path.
class IWalkThroughCallback {
 public:
  /// Reserved for the caller's own object management; the walk never calls it.
  virtual unsigned long addRef() { return 1; }
  /// Reserved for the caller's own object management; the walk never calls it.
  virtual unsigned long release() { return 1; }
  /// Reserved for the caller's own object management; the walk never calls it.
  virtual void* queryInterface(const char* /*strInterfaceName*/) { return nullptr; }
  /// Once for every entry that is not a directory (links, FIFOs, sockets and
  /// devices included; links are never followed).
  virtual void onWalkFile(const char* relativeFilePath, const char* rootPath) = 0;
  /// Once for every directory as it is entered, the starting one included.
  virtual void onWalkDirectory(const char* relativeDirPath, const char* rootPath) = 0;

 protected:
  ~IWalkThroughCallback() = default;
};

extern "C" {
/// Depth-first, pre-order walk of rootDir + dirPath in directory order, without
/// depth limit. A "/" is appended to a non-empty rootDir that ends in neither "/"
/// nor "\\". A null rootDir or dirPath walks nothing; a null callback still walks the tree.
OSTRELLED_EXPORT void os_filesystem_walk_through(const char* dirPath, const char* rootDir,
                                                 IWalkThroughCallback* pCallback);
/// The same walk, opening at most uintMaxDeep levels: 0 reports only the start
/// directory, 1 also its entries (subdirectories reported, not opened).
OSTRELLED_EXPORT void os_filesystem_walk_through_ex(const char* dirPath, const char* rootDir, unsigned int uintMaxDeep,
                                                    IWalkThroughCallback* pCallback);
/// Last component, with len written back despite the const: /usr/lib/ gives lib.
///
/// The three name functions cut trailing separators, read "\\" as "/" and
/// deliver by the text-buffer convention. An empty or separator-only path gives the
/// empty text with len 0 (not 1).
OSTRELLED_EXPORT bool os_filesystem_base_name(const char* absoluteFilePath, char* baseName, const DWORD& len);
/// Directory part with its trailing "/" (/usr/lib gives /usr/), or "." when there is none;
/// len is written back despite the const, as os_filesystem_base_name.
OSTRELLED_EXPORT bool os_filesystem_dir_name(const char* absoluteFilePath, char* dirName, const DWORD& len);
/// Text after the last "." of the last component; empty when it has none. len is written
/// back despite the const, as os_filesystem_base_name.
OSTRELLED_EXPORT bool os_filesystem_file_suffix(const char* absoluteFilePath, char* fileSuffix, const DWORD& len);
/// sync(): flushes every file system.
OSTRELLED_EXPORT void os_filesystem_sync();
}

#endif
