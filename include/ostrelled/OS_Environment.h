#ifndef OSTRELLED_OS_ENVIRONMENT_H
#define OSTRELLED_OS_ENVIRONMENT_H

#include <stddef.h>
#include <sys/types.h>

#include <ostrelled/Export.h>

/// @file
/// The path of the running executable.

/// Signed byte count, or -1.
typedef ssize_t SSIZE_T;

extern "C" {
/// Full path of the running executable from /proc/self/exe: the byte count, or
/// -1. No terminator is written and a longer path is cut at __len silently.
OSTRELLED_EXPORT SSIZE_T os_environment_get_application_path(char* __buf, size_t __len);
}

#endif
