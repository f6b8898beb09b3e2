// The process-wide default real-time mode, which stays USE_STD.

#include <ostrelled/OS.h>

namespace xenomai {
RT_MODE rtDefaultMode = USE_STD;
}

RT_MODE get_default_rt_mode() { return xenomai::rtDefaultMode; }

// Inert by design: a caller cannot switch the process to real-time mode.
bool set_default_rt_mode(RT_MODE /*mode*/) { return false; }
