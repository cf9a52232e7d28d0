// Running the built moxole from a test executable.  Header-only: the
// program's path (MOXOLE_PROGRAM) is defined per test executable.
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

#endif  // MOXOLEFIO_TESTS_SUPPORT_MOXOLE_CLI_H_
