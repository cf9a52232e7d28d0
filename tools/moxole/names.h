// How entry names are written on the terminal and on disk, and how paths
// given on the command line are read.
//
// Entry names are UTF-8 (each of the name's UTF-16 units, as the library
// reports them) and may hold control characters ("\x05SummaryInformation")
// and slashes.  One escaping serves both display and extraction, so what
// `ls` prints is exactly the file name that `extract` writes and that `cat`
// accepts:
//
//   - characters below U+0020, U+007F to U+009F, '/' and '\' become \xHH
//     (two lower-case hex digits: the character U+00HH);
//   - the names "." and ".." get their first dot escaped (\x2e);
//   - the empty name, which cannot be a file name, is written \x00;
//   - every other character stays as it is, in UTF-8.
//
// The result holds no control character and no '/', and is never empty,
// "." or "..", so a name can be used as one file name inside a directory
// without reaching outside it.  Unescaping reverses it exactly, for names
// without U+0000 (only damaged files have those).
#ifndef MOXOLEFIO_TOOLS_MOXOLE_NAMES_H_
#define MOXOLEFIO_TOOLS_MOXOLE_NAMES_H_

#include <string>
#include <vector>

namespace moxole {

std::string escapeName(const std::string& name);

// Reverses escapeName: \xHH is the character U+00HH in UTF-8, so the
// 8-bit escapes of older listings ("caf\xe9") still name the same entry.
// A backslash that does not start \xHH stands for itself, so hand-typed
// names need no escaping beyond what is unreadable.  False when the text
// decodes to a name holding U+0000.
bool unescapeName(const std::string& text, std::string* name);

// Splits a path written with '/' into unescaped names; empty components
// (leading, trailing or doubled slashes) are skipped, so "" and "/" both
// name the root.  False when a component does not unescape.
bool splitPath(const std::string& path, std::vector<std::string>* names);

// "parent/name", or just "name" when parent is empty.
std::string joinPath(const std::string& parent, const std::string& name);

}  // namespace moxole

#endif  // MOXOLEFIO_TOOLS_MOXOLE_NAMES_H_
