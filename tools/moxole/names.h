// How entry names are written on the terminal and on disk, and how paths
// given on the command line are read.
//
// Entry names are 8-bit strings that may hold control bytes
// ("\x05SummaryInformation"), slashes and bytes above 0x7F.  One escaping
// serves both display and extraction, so what `ls` prints is exactly the
// file name that `extract` writes and that `cat` accepts:
//
//   - bytes below 0x20, 0x7F and above, '/' and '\' become \xHH
//     (two lower-case hex digits);
//   - the names "." and ".." get their first dot escaped (\x2e);
//   - the empty name, which cannot be a file name, is written \x00 (a real
//     name never holds a zero byte).
//
// The result is printable ASCII, never contains '/', and is never empty,
// "." or "..", so a name can be used as one file name inside a directory
// without reaching outside it.  Unescaping reverses it exactly.
#ifndef MOXOLEFIO_TOOLS_MOXOLE_NAMES_H_
#define MOXOLEFIO_TOOLS_MOXOLE_NAMES_H_

#include <string>
#include <vector>

namespace moxole {

std::string escapeName(const std::string& name);

// Reverses escapeName.  A backslash that does not start \xHH stands for
// itself, so hand-typed names need no escaping beyond what is unreadable.
// False when the text decodes to a name holding a zero byte.
bool unescapeName(const std::string& text, std::string* name);

// Splits a path written with '/' into unescaped names; empty components
// (leading, trailing or doubled slashes) are skipped, so "" and "/" both
// name the root.  False when a component does not unescape.
bool splitPath(const std::string& path, std::vector<std::string>* names);

// "parent/name", or just "name" when parent is empty.
std::string joinPath(const std::string& parent, const std::string& name);

}  // namespace moxole

#endif  // MOXOLEFIO_TOOLS_MOXOLE_NAMES_H_
