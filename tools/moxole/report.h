// Exit statuses and the one-line failure messages of moxole.
//
// Every failure prints exactly one line on standard error, of the form
//   moxole: SUBJECT: WHAT
// and the command returns the matching exit status, so scripts can tell a
// typing mistake from a broken document from a missing entry.
#ifndef MOXOLEFIO_TOOLS_MOXOLE_REPORT_H_
#define MOXOLEFIO_TOOLS_MOXOLE_REPORT_H_

#include <string>

namespace moxole {

enum ExitStatus {
  kExitOk = 0,
  kExitUsage = 1,        // bad command line
  kExitBadDocument = 2,  // not a compound file, or damaged
  kExitNotFound = 3,     // input file, entry or object does not exist
  kExitIo = 4,           // a file cannot be read, written or stored;
                         // the library cannot be loaded
};

// Prints "moxole: subject: message" (or "moxole: message" when subject is
// empty) and returns status, so callers can write `return fail(...)`.
int fail(int status, const std::string& subject, const std::string& message);

// "damaged compound file: REASON", or with a general explanation when the
// library gave no reason.
std::string damagedText(const std::string& reason);

// An error text of the native interface without its leading "FILE: ".
std::string withoutFileName(const std::string& text, const std::string& file);

// The text of errno value `error`, for messages.
std::string errorText(int error);

}  // namespace moxole

#endif  // MOXOLEFIO_TOOLS_MOXOLE_REPORT_H_
