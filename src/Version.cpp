// The library's version, as the generated <ostrelled/Version.h> gives it.

#include <ostrelled/Version.h>

// The loaded library's own version, which a program may compare with the
// OSTRELLED_VERSION_STRING of the headers it was built with.
extern "C" OSTRELLED_EXPORT const char* ostrelled_version(void) { return OSTRELLED_VERSION_STRING; }
