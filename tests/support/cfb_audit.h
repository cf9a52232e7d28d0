// A strict audit of a compound file as a writer should leave it, for
// both sector sizes: the header's counts agree with the tables; every
// sector after the header belongs to exactly one chain or table (none
// reachable from nothing, none claimed twice); every stream's chain has
// the length its size needs; each storage's children form a red-black
// tree ordered as the format orders siblings; names are terminated
// UTF-16 of the stated length.  Written apart from the library's own
// reading code, so that the two cannot share a mistake: it is the test
// reader's parse (support/cfb_reader.cpp) with free space allowed.
#ifndef MOXOLEFIO_TESTS_SUPPORT_CFB_AUDIT_H_
#define MOXOLEFIO_TESTS_SUPPORT_CFB_AUDIT_H_

#include <cstdint>
#include <string>
#include <vector>

namespace cfbaudit {

// Every problem found, one per line; empty for a well-formed file.
std::string audit(const std::vector<std::uint8_t>& file);

}  // namespace cfbaudit

#endif  // MOXOLEFIO_TESTS_SUPPORT_CFB_AUDIT_H_
