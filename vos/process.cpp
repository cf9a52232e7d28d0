// Process services: exit, running a command, sleeping.
#include <stdlib.h>
#include <unistd.h>

#include "moxvos.h"

extern "C" {

MOXVOS_API void moxvos_exit(int status) { exit(status); }

MOXVOS_API int moxvos_system(const char* command) { return system(command); }

MOXVOS_API int moxvos_usleep(uint32_t microseconds) {
  usleep(microseconds);
  return 0;
}

MOXVOS_API void moxvos_dummy(void) {}

}  // extern "C"
