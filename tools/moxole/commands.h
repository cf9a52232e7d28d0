// The commands of moxole.  main.cpp parses the command line and loads the
// library; each command gets its operands and flags already checked for
// count and spelling and returns the process's exit status.
#ifndef MOXOLEFIO_TOOLS_MOXOLE_COMMANDS_H_
#define MOXOLEFIO_TOOLS_MOXOLE_COMMANDS_H_

#include <string>
#include <vector>

#include "tools/moxole/library.h"

namespace moxole {

struct Invocation {
  std::vector<std::string> operands;
  std::string flags;  // single-letter options given, e.g. "lR"
  bool has(char flag) const { return flags.find(flag) != std::string::npos; }
};

using CommandFunction = int (*)(const Library& library, const Invocation& call);

struct Command {
  const char* name;
  const char* synopsis;     // after "usage: moxole "
  const char* description;  // shown by --help
  const char* flags;        // letters accepted
  int minOperands, maxOperands;
  CommandFunction run;
};

// All commands, in the order `moxole --help` lists them.
const std::vector<Command>& allCommands();

int runInfo(const Library& library, const Invocation& call);
int runList(const Library& library, const Invocation& call);
int runTree(const Library& library, const Invocation& call);
int runCat(const Library& library, const Invocation& call);
int runExtract(const Library& library, const Invocation& call);
int runPack(const Library& library, const Invocation& call);
int runObjects(const Library& library, const Invocation& call);
int runObject(const Library& library, const Invocation& call);
int runPut(const Library& library, const Invocation& call);
int runRemove(const Library& library, const Invocation& call);
int runMove(const Library& library, const Invocation& call);
int runMkdir(const Library& library, const Invocation& call);
int runCheck(const Library& library, const Invocation& call);
int runProps(const Library& library, const Invocation& call);

// Flushes standard output and turns a failed write into a reported status.
int finishOutput(int status);

// Writes all of `data` to a file descriptor; false on failure (errno set).
bool writeAll(int fd, const char* data, size_t size);

}  // namespace moxole

#endif  // MOXOLEFIO_TOOLS_MOXOLE_COMMANDS_H_
