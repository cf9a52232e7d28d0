// Finding and loading libmoxolefio.so at run time.
//
// The library is looked for, in order:
//   1. the file named by MOXOLE_LIBRARY, when that is set (and nowhere else);
//   2. next to the moxole program (the build puts both in one directory);
//   3. the installed layout: the library directory relative to the
//      program's directory chosen at build time, then ../lib.
// Only the public table and a few exported names are used, exactly as any
// other host would.
#ifndef MOXOLEFIO_TOOLS_MOXOLE_LIBRARY_H_
#define MOXOLEFIO_TOOLS_MOXOLE_LIBRARY_H_

#include <string>

#include "moxolefio.h"

namespace moxole {

class Library {
 public:
  Library() = default;
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  // Loads the library and fills the table; on failure prints why and
  // returns false.
  bool load();

  const MoxOleInterface& api() const { return api_; }
  // Why hOLEopen refuses the document behind `io` (closed, as hOLEopen
  // leaves it), as the library words it; "" when it cannot say.
  std::string openFailure(_ZqTPIOobj* io, HostMemory* memory) const;
  const std::string& path() const { return path_; }

  // True when `function` is present; otherwise reports that this build of
  // the library lacks `name` and returns false.  Lets one command fail
  // clearly while the others keep working against a partial library.
  bool require(const void* function, const char* name) const;

 private:
  bool loadFrom(const std::string& path, std::string* error);

  MoxOleInterface api_{};
  int (*openFailure_)(_ZqTPIOobj*, HostMemory*, char*, int) = nullptr;
  std::string path_;
};

}  // namespace moxole

#endif  // MOXOLEFIO_TOOLS_MOXOLE_LIBRARY_H_
