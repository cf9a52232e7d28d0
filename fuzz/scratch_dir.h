// A directory of the fuzzing process's own under /tmp (or $TMPDIR), for targets whose
// calls create files.  Nothing a target does may reach outside it, and
// nothing one input leaves behind may change what the next one sees.
#ifndef MOXOLEFIO_FUZZ_SCRATCH_DIR_H_
#define MOXOLEFIO_FUZZ_SCRATCH_DIR_H_

#include <string>

namespace moxfuzz {

// Creates $TMPDIR/moxfuzz-<tag>-<pid>-XXXXXX (/tmp when TMPDIR is not an
// absolute path) on first use and removes it with
// everything inside when the process exits normally.  Aborts when it cannot
// be made: a target that cannot confine its files must not run.
const std::string& scratchDir(const char* tag);

// Removes everything inside `dir` (not `dir` itself), first giving the
// owner back every permission a target may have taken away.
void emptyDir(const std::string& dir);

// Number of descriptors open in this process.
int openDescriptors();

}  // namespace moxfuzz

#endif  // MOXOLEFIO_FUZZ_SCRATCH_DIR_H_
