#ifndef OSTRELLED_EXPORT_H
#define OSTRELLED_EXPORT_H

// The one marker for everything the library exports; all else is hidden.
#define OSTRELLED_EXPORT __attribute__((visibility("default")))

#endif
