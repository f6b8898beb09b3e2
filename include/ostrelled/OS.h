#ifndef OSTRELLED_OS_H
#define OSTRELLED_OS_H

#include <ostrelled/Types.h>

/// @file
/// The process-wide default real-time mode.

/// Holds the process-wide default mode, under the name existing callers link against.
namespace xenomai {
/// Process-wide default for USE_DEFAULT; USE_STD from load time on, never changed.
extern OSTRELLED_EXPORT RT_MODE rtDefaultMode;
}  // namespace xenomai

extern "C" {
/// Returns the process-wide default mode, which is always USE_STD.
OSTRELLED_EXPORT RT_MODE get_default_rt_mode();
/// Deliberately inert: ignores its argument, changes nothing and returns false.
/// @param mode ignored; the default stays USE_STD.
/// @return false, always.
OSTRELLED_EXPORT bool set_default_rt_mode(RT_MODE mode);
}

#endif
