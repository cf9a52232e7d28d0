// The real compound files of the shared corpus, when it is present.
#ifndef MOXOLEFIO_TESTS_SUPPORT_CORPUS_FILES_H_
#define MOXOLEFIO_TESTS_SUPPORT_CORPUS_FILES_H_

#include <string>
#include <vector>

namespace corpus {

// The corpus folder (MOX_CORPUS_DIR), or "" when it does not exist.
std::string directory();

// Paths of every compound file below the corpus folder, relative to it,
// sorted; the manifest, README and scripts are left out.
std::vector<std::string> files();

}  // namespace corpus

#endif  // MOXOLEFIO_TESTS_SUPPORT_CORPUS_FILES_H_
