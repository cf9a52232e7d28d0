// Dynamic loading, with an optional log of every load kept in
// "dll_debug.log" in the current directory while MOX_DLL_LOG is set.
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>

#include "moxvos.h"

extern "C" {

MOXVOS_API void moxvos_dll_log(const char* format, const char* argument) {
  if (format == nullptr || getenv("MOX_DLL_LOG") == nullptr) return;
  FILE* log = fopen("dll_debug.log", "a");
  if (log == nullptr) return;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  fprintf(log, format, argument);
#pragma GCC diagnostic pop
  fclose(log);
}

MOXVOS_API void* moxvos_dlopen(const char* name, int flags) {
  moxvos_dll_log("moxvos_dlopen dll %s \n", name);
  void* handle = dlopen(name, flags);
  if (handle == nullptr) moxvos_dll_log("ERROR: moxvos_dlopen dll %s \n", name);
  return handle;
}

// A null handle is the platform's "default" scope; a null name is nothing
// to look up.
MOXVOS_API void* moxvos_dlsym(void* handle, const char* name) {
  if (name == nullptr) return nullptr;
  return dlsym(handle, name);
}

MOXVOS_API char* moxvos_dlerror(void) { return dlerror(); }

// Libraries stay loaded for the life of the process.
MOXVOS_API int moxvos_dlclose(void*) { return 0; }

}  // extern "C"
