// Running the built moxole from a test executable.  Header-only: the
// program's path (MOXOLE_PROGRAM) and the library's (MOX_LIBRARY_PATH) are
// defined per test executable.
#ifndef MOXOLEFIO_TESTS_SUPPORT_MOXOLE_CLI_H_
#define MOXOLEFIO_TESTS_SUPPORT_MOXOLE_CLI_H_

#include <string>
#include <vector>

#include "support/program_run.h"

// Runs moxole with `args`; the library is found the way an installed
// program finds it, never through a MOXOLE_LIBRARY the caller happens to
// have set.
inline moxtest::ProgramResult moxole(
    std::vector<std::string> args,
    moxtest::ProgramOptions options = moxtest::ProgramOptions()) {
  args.insert(args.begin(), MOXOLE_PROGRAM);
  options.unsetEnv.push_back("MOXOLE_LIBRARY");
  return moxtest::runProgram(args, options);
}

// Skips the current test, naming the first of the functions that the built
// library does not provide yet.
#define MOXOLE_SKIP_WITHOUT(...)                                          \
  do {                                                                    \
    std::string missing_ =                                                \
        moxtest::missingFunction(MOX_LIBRARY_PATH, {__VA_ARGS__});        \
    if (!missing_.empty()) {                                              \
      GTEST_SKIP() << "libmoxolefio does not provide " << missing_        \
                   << " yet";                                             \
    }                                                                     \
  } while (0)

// What every reading command needs.
#define MOXOLE_READER_FUNCTIONS                                           \
  "iOLEGetStreamTree", "iReadStreamChain", "lOLEseek", "iOLEread",        \
      "bOLEcloseStream"
#define MOXOLE_WRITER_FUNCTIONS "hOLEopenEx", "iOLEopenStreamEx", "iOLEwrite"

#endif  // MOXOLEFIO_TESTS_SUPPORT_MOXOLE_CLI_H_
