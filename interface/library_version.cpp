// The shared object's own version, for hosts that want to log it.
#include "moxolefio.h"

extern "C" MOXOLE_API const char* moxoleVersion(void) { return "0.1.0"; }
