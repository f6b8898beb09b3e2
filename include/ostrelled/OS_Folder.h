#ifndef OSTRELLED_OS_FOLDER_H
#define OSTRELLED_OS_FOLDER_H

#include <string>

#include <ostrelled/Export.h>

/// @file
/// Folders by path. Every function returns false at once for a null or empty path.
/// Remove with contents, move and copy run rm, mv, cp and awk through the shell; paths
/// are quoted so that the shell takes them literally.

extern "C" {
/// True when a directory (or a link to one) exists there; trailing "/" ignored.
/// A path of slashes only throws std::out_of_range, as os_file_exist does.
OSTRELLED_EXPORT bool os_folder_exist(const char* strFolderPath);
/// Creates the directory and every missing parent with mode 0777 whatever the
/// umask. A leading "~" is a literal name, not the home directory. Parents made
/// before a failure stay.
OSTRELLED_EXPORT bool os_folder_create(const char* strFolderPath);
/// Removes a directory, handing a path of separators only to rm unguarded as "/".
/// bIncludeAllFiles false: rmdir, so only an empty directory goes. True: rm -rf.
OSTRELLED_EXPORT bool os_folder_remove(const char* strFolderPath, bool bIncludeAllFiles);
/// mv; an existing destination directory receives the source inside it.
OSTRELLED_EXPORT bool os_folder_move(const char* strSrcFolderPath, const char* strDstFolderPath);
/// Copies the source's visible top-level entries (the shell's "/*"). Into an
/// existing destination the source arrives as a subdirectory named by its last
/// component; a missing destination is created and receives the contents.
/// bFailedIfExist true keeps existing files and then reports awk's status,
/// which is 0 even when cp failed. An empty source fails with bFailedIfExist false.
OSTRELLED_EXPORT bool os_folder_copy(const char* strSrcFolderPath, const char* strDstFolderPath, bool bFailedIfExist);
}

namespace OS {
/// Inline forwarders to the os_folder_* functions, taking std::string.
namespace Folder {
/// As os_folder_exist.
inline bool exist(const std::string& strFolderPath) { return os_folder_exist(strFolderPath.c_str()); }
/// As os_folder_create.
inline bool create(const std::string& strFolderPath) { return os_folder_create(strFolderPath.c_str()); }
}  // namespace Folder
}  // namespace OS

#endif
