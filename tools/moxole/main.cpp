// moxole: a command-line host for libmoxolefio.
//
// Parses "moxole COMMAND [OPTIONS] OPERANDS", answers --help without
// touching the library, then loads the library and runs the command.
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "tools/moxole/commands.h"
#include "tools/moxole/report.h"

namespace moxole {

namespace {

const char kProgramHelp[] =
    "usage: moxole COMMAND [OPTIONS] ARGUMENTS\n"
    "\n"
    "Reads and writes OLE2 compound files (Word, Excel, PowerPoint, Outlook,\n"
    "installer and other structured-storage documents).\n"
    "\n"
    "Commands:\n"
    "%s"
    "\n"
    "Paths inside a document are written with '/'.  Names are shown in UTF-8\n"
    "with control characters, '/' and '\\' escaped as \\xHH, the character U+00HH\n"
    "(\"\\x05SummaryInformation\"); the same escapes are accepted in paths and\n"
    "used for extracted file names.  An empty name is written \\x00.\n"
    "\n"
    "Exit status: 0 success, 1 usage error, 2 not a compound file or damaged,\n"
    "3 file, entry or object not found, 4 a file cannot be read or written\n"
    "(or the library cannot be loaded).\n"
    "\n"
    "The library is loaded from the program's directory, then ../lib;\n"
    "MOXOLE_LIBRARY names another file.  'moxole COMMAND --help' describes a\n"
    "command.\n";

const Command* findCommand(const std::string& name) {
  for (const Command& command : allCommands()) {
    if (name == command.name) return &command;
  }
  return nullptr;
}

int printProgramHelp(FILE* out) {
  std::string list;
  for (const Command& command : allCommands()) {
    list += "  moxole ";
    list += command.synopsis;
    list += "\n";
  }
  fprintf(out, kProgramHelp, list.c_str());
  return kExitOk;
}

int usageError(const Command& command, const std::string& message) {
  fail(kExitUsage, command.name, message);
  fprintf(stderr, "usage: moxole %s\n", command.synopsis);
  return kExitUsage;
}

// Splits arguments into flags and operands; "--" ends the options and a
// lone "-" is an operand.
int parseArguments(const Command& command, int argc, char** argv,
                   Invocation* call, bool* help) {
  bool optionsEnded = false;
  for (int i = 0; i < argc; ++i) {
    std::string arg = argv[i];
    if (!optionsEnded && (arg == "--help" || arg == "-h")) {
      *help = true;
      return kExitOk;
    }
    if (!optionsEnded && arg == "--") {
      optionsEnded = true;
    } else if (!optionsEnded && arg.size() > 1 && arg[0] == '-') {
      for (size_t k = 1; k < arg.size(); ++k) {
        if (arg[k] == '-' || strchr(command.flags, arg[k]) == nullptr) {
          return usageError(command, "unknown option '" + arg + "'");
        }
        call->flags += arg[k];
      }
    } else {
      call->operands.push_back(arg);
    }
  }
  int count = static_cast<int>(call->operands.size());
  if (count < command.minOperands) return usageError(command, "missing operand");
  if (count > command.maxOperands) {
    return usageError(command, "too many operands");
  }
  return kExitOk;
}

}  // namespace

int run(int argc, char** argv) {
  if (argc < 2) {
    printProgramHelp(stderr);
    return kExitUsage;
  }
  std::string name = argv[1];
  if (name == "--help" || name == "-h" || name == "help") {
    return finishOutput(printProgramHelp(stdout));
  }
  const Command* command = findCommand(name);
  if (command == nullptr) {
    fail(kExitUsage, "", "unknown command '" + name + "'");
    fputs("Try 'moxole --help'.\n", stderr);
    return kExitUsage;
  }
  Invocation call;
  bool help = false;
  int status = parseArguments(*command, argc - 2, argv + 2, &call, &help);
  if (help) {
    printf("usage: moxole %s\n\n%s", command->synopsis, command->description);
    return finishOutput(kExitOk);
  }
  if (status != kExitOk) return status;
  Library library;
  if (!library.load()) return kExitIo;
  return command->run(library, call);
}

}  // namespace moxole

int main(int argc, char** argv) { return moxole::run(argc, argv); }
