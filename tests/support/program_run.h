// Running programs (moxole, python3, the oracles) from end-to-end tests.
#ifndef MOXOLEFIO_TESTS_SUPPORT_PROGRAM_RUN_H_
#define MOXOLEFIO_TESTS_SUPPORT_PROGRAM_RUN_H_

#include <map>
#include <string>
#include <vector>

#include "support/vos_scratch.h"  // readFile, writeFile

namespace moxtest {

struct ProgramResult {
  int status = -1;  // exit status; 128 + signal when killed by one
  std::string out;  // standard output (empty when it went to a file)
  std::string err;  // standard error
};

struct ProgramOptions {
  // Variables to set ("NAME" -> value) and to remove from the environment.
  std::map<std::string, std::string> setEnv;
  std::vector<std::string> unsetEnv;
  // When not empty, standard output goes to this file instead of `out`.
  std::string stdoutPath;
};

// Runs argv[0] (looked up in PATH when it has no '/') with standard input
// from /dev/null and waits for it.
ProgramResult runProgram(const std::vector<std::string>& argv,
                         const ProgramOptions& options = ProgramOptions());

// A Python interpreter that has the olefile module: Debian's own first (a
// python3 earlier in PATH, such as a pyenv one, may lack Debian's
// modules); "" when there is none.
std::string olefilePython();

// A directory tree as path -> content, directories as path -> "<dir>";
// paths are relative to `root` and written with '/'.
std::map<std::string, std::string> snapshotTree(const std::string& root);

}  // namespace moxtest

#endif  // MOXOLEFIO_TESTS_SUPPORT_PROGRAM_RUN_H_
