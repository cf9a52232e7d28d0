// Helpers shared by the stream tests: recognisable stream contents, a
// document opened on bytes in memory, and layout edits that move chains
// to chosen sectors.
#ifndef MOXOLEFIO_TESTS_SUPPORT_STREAM_KIT_H_
#define MOXOLEFIO_TESTS_SUPPORT_STREAM_KIT_H_

#include <stdint.h>

#include <vector>

#include "support/cfb_builder.h"
#include "support/open_doc.h"

namespace streamkit {

using cfb::pattern;

// Reads the current stream from its position to its end, `chunk` bytes per
// call, stopping at the first call that returns 0.
cfb::Bytes readToEnd(_MoxOleFile* h, uint32_t chunk = 1000);

// The FAT chain of directory entry `entry` (its start sector onward).
std::vector<uint32_t> chainOf(const cfb::CfbLayout& layout, int entry);

// Moves the FAT chain of directory entry `entry` (a regular stream, or the
// root's mini stream) to `sectors`, in order: payloads move along, the old
// sectors become free.  The new sectors must be free, for example padding.
void relocateChain(cfb::CfbLayout* layout, int entry, const std::vector<uint32_t>& sectors);

// The first of the free sectors CfbBuilder::setPaddingSectors reserves.
uint32_t firstPaddingSector(const cfb::CfbLayout& layout);

}  // namespace streamkit

#endif  // MOXOLEFIO_TESTS_SUPPORT_STREAM_KIT_H_
