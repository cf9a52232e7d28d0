// moxole check: the library's structural scan of a file, one defect a line.
//
// This command goes through the native interface rather than the plug-in
// table: the scan is only offered there.
#include <stdio.h>

#include "moxolefio/moxolefio.hpp"
#include "tools/moxole/commands.h"
#include "tools/moxole/document.h"
#include "tools/moxole/names.h"
#include "tools/moxole/report.h"

namespace moxole {

namespace {

// A path of the native interface, each name escaped as 'ls' shows it.
// One leading '/' stands for a first name that is empty.
std::string shownPath(const std::string& path) {
  if (path.empty()) return "-";
  std::string rest = path[0] == '/' ? path.substr(1) : path;
  std::string shown;
  for (;;) {
    const size_t slash = rest.find('/');
    if (!shown.empty()) shown += '/';
    shown += escapeName(rest.substr(0, slash));
    if (slash == std::string::npos) break;
    rest.erase(0, slash + 1);
  }
  return shown;
}

// Messages quote names as stored: control bytes would break the line.
std::string shownMessage(const std::string& text) {
  std::string shown;
  for (unsigned char c : text) {
    if (c < 0x20 || c == 0x7F) {
      char hex[8];
      snprintf(hex, sizeof hex, "\\x%02x", c);
      shown += hex;
    } else {
      shown += static_cast<char>(c);
    }
  }
  return shown;
}

int statusOf(mox::Errc code) {
  switch (code) {
    case mox::Errc::not_found: return kExitNotFound;
    case mox::Errc::not_a_compound_file:
    case mox::Errc::damaged: return kExitBadDocument;
    default: return kExitIo;
  }
}

}  // namespace

int runCheck(const Library&, const Invocation& call) {
  const std::string& path = call.operands[0];
  int status = checkInputFile(path);
  if (status != kExitOk) return status;
  std::vector<mox::Defect> defects;
  try {
    defects = mox::CompoundFile::open(path).check();
  } catch (const mox::Error& e) {
    return fail(statusOf(e.code()), "", e.what());
  } catch (const std::bad_alloc&) {
    return fail(kExitIo, path, "out of memory");
  }
  status = kExitOk;
  for (const mox::Defect& d : defects) {
    const bool error = d.severity == mox::Severity::error;
    if (error) status = kExitBadDocument;
    printf("%s\t%s\t%s\t%s\t%s\n", error ? "error" : "warning", d.code.c_str(), shownPath(d.path).c_str(),
           d.sector < 0 ? "-" : std::to_string(d.sector).c_str(), shownMessage(d.message).c_str());
  }
  return finishOutput(status);
}

}  // namespace moxole
