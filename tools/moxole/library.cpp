#include "tools/moxole/library.h"

#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <vector>

#include "tools/moxole/report.h"

#ifndef MOXOLE_RELATIVE_LIBDIR
#define MOXOLE_RELATIVE_LIBDIR "../lib"
#endif

namespace moxole {

namespace {

// The versioned name first: it is what an installed runtime package has
// even without the development symlink.
const char* const kFileNames[] = {"libmoxolefio.so.0", "libmoxolefio.so"};

std::string programDirectory() {
  char path[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return ".";
  std::string text(path, static_cast<size_t>(n));
  size_t slash = text.rfind('/');
  return slash == std::string::npos ? "." : text.substr(0, slash);
}

std::vector<std::string> candidates() {
  std::vector<std::string> directories = {programDirectory()};
  directories.push_back(directories[0] + "/" MOXOLE_RELATIVE_LIBDIR);
  directories.push_back(directories[0] + "/../lib");
  std::vector<std::string> files;
  for (const std::string& directory : directories) {
    for (const char* name : kFileNames) files.push_back(directory + "/" + name);
  }
  return files;
}

}  // namespace

bool Library::load() {
  const char* chosen = getenv("MOXOLE_LIBRARY");
  std::string error;
  if (chosen != nullptr && *chosen != '\0') {
    if (loadFrom(chosen, &error)) return true;
    fail(kExitIo, chosen, error);
    return false;
  }
  for (const std::string& file : candidates()) {
    if (access(file.c_str(), F_OK) != 0) continue;
    if (loadFrom(file, &error)) return true;
    fail(kExitIo, file, error);
    return false;
  }
  fail(kExitIo, "",
       "cannot find libmoxolefio.so next to the program or in ../lib; "
       "set MOXOLE_LIBRARY to its path");
  return false;
}

bool Library::loadFrom(const std::string& path, std::string* error) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* why = dlerror();
    *error = why != nullptr ? why : "cannot be loaded";
    return false;
  }
  auto getTable = reinterpret_cast<void (*)(void**)>(
      dlsym(handle, "GetOLEInterface"));
  if (getTable == nullptr) {
    *error = "not a moxolefio library (no GetOLEInterface)";
    dlclose(handle);
    return false;
  }
  // The library stays loaded until the process ends: handles and trees
  // point into it.
  getTable(reinterpret_cast<void**>(&api_));
  openFailure_ = reinterpret_cast<decltype(openFailure_)>(dlsym(handle, "moxoleOpenFailure"));
  path_ = path;
  return true;
}

std::string Library::openFailure(_ZqTPIOobj* io, HostMemory* memory) const {
  if (openFailure_ == nullptr || !io->open(io)) return std::string();
  char text[256];
  const int length = openFailure_(io, memory, text, sizeof text);
  io->close(io);
  return length > 0 ? std::string(text) : std::string();
}

bool Library::require(const void* function, const char* name) const {
  if (function != nullptr) return true;
  fail(kExitIo, path_, std::string("this build of the library lacks ") + name);
  return false;
}

}  // namespace moxole
