#ifndef OSTRELLED_EXPORT_H
#define OSTRELLED_EXPORT_H

/// @file
/// The export marker.

/// The one marker for everything the library exports; all else is built hidden.
#define OSTRELLED_EXPORT __attribute__((visibility("default")))

#endif
